// Names are compared exactly: the data was lower-cased when it was read.
#include "session/session_queries.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <string_view>
#include <unordered_map>

#include "util/c_memory.h"
#include "util/log.h"

namespace {

/// Mailnames with their records; empty until a mailname is looked for.
std::unordered_map<std::string_view, const mail_db_mail_t*> mails_by_name;

using StringArray = std::unique_ptr<char*, decltype(&free_array)>;

bool equal(const char* one, const char* other) {
    return one != nullptr && other != nullptr && std::strcmp(one, other) == 0;
}

/// A copy of `count` strings as a null-terminated array, made with one allocation for the array: appending them one by
/// one would look for the array's end each time. Null for none, and, logged, when there is no memory.
template <typename StringAt>
char** copy_strings(std::size_t count, StringAt string_at) {
    if (count == 0) {
        return nullptr;
    }
    StringArray array(static_cast<char**>(std::calloc(count + 1, sizeof(char*))), &free_array);
    for (std::size_t i = 0; array != nullptr && i != count; ++i) {
        array.get()[i] = ::strdup(string_at(i));
        if (array.get()[i] == nullptr) {
            array.reset();
        }
    }
    if (array == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "System error: %s\n", std::strerror(errno));
    }
    return array.release();
}

char** copy_array(std::size_t count, const char* const* strings) {
    return copy_strings(count, [strings](std::size_t i) { return strings[i]; });
}

/// Answers a query about `domain`: what `answer` makes of the data, null when the data is another domain's.
template <typename Answer>
int query(const char* caller, char*** output, const char* domain, Answer answer) {
    *output = nullptr;
    const mail_db_data_t* data = loaded_session_mail_data(caller);
    if (data == nullptr) {
        return -1;
    }
    if (equal(data->domain_name, domain)) {
        *output = answer(*data);
    }
    return 0;
}

/// The first of equal names counts.
void build_index(const mail_db_data_t& data) {
    mails_by_name.reserve(data.mails_count);
    for (std::size_t i = 0; i != data.mails_count; ++i) {
        if (data.mails[i].name != nullptr) {
            mails_by_name.emplace(data.mails[i].name, &data.mails[i]);
        }
    }
}

}  // namespace

const mail_db_data_t* loaded_session_mail_data(const char* caller) {
    if (session_mail_db_info == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Session mail DB info is not filled in call to %s(). Probably a programming error.",
                  caller);
    }
    return session_mail_db_info;
}

const mail_db_mail_t* find_session_mail(const char* mailname) {
    if (session_mail_db_info == nullptr || mailname == nullptr) {
        return nullptr;
    }
    const mail_db_data_t& data = *session_mail_db_info;
    try {
        if (mails_by_name.empty()) {
            build_index(data);
        }
    } catch (const std::bad_alloc&) {
        mails_by_name.clear();
        const mail_db_mail_t* const end = data.mails + data.mails_count;
        const mail_db_mail_t* const mail =
            std::find_if(static_cast<const mail_db_mail_t*>(data.mails), end,
                         [mailname](const mail_db_mail_t& candidate) { return equal(candidate.name, mailname); });
        return mail != end ? mail : nullptr;
    }
    const auto found = mails_by_name.find(mailname);
    return found != mails_by_name.end() ? found->second : nullptr;
}

void reset_session_index() {
    mails_by_name.clear();
}

int get_domain_by_domainalias(void* /*handle*/, char** domain, const char* alias) {
    *domain = nullptr;
    const mail_db_data_t* data = loaded_session_mail_data(__func__);
    if (data == nullptr) {
        return -1;
    }
    const char* const* const end = data->domain_aliases + data->domain_aliases_count;
    const bool known = std::any_of(static_cast<const char* const*>(data->domain_aliases), end,
                                   [alias](const char* candidate) { return equal(candidate, alias); });
    if (known && data->domain_name != nullptr) {
        *domain = ::strdup(data->domain_name);
    }
    return 0;
}

int get_mailnames_by_domain(void* /*handle*/, char*** mailnames, const char* domain) {
    return query(__func__, mailnames, domain, [](const mail_db_data_t& data) {
        return copy_strings(data.mails_count, [&data](std::size_t i) { return data.mails[i].name; });
    });
}

int get_aliases_by_mailname(void* /*handle*/, char*** aliases, const char* mailname, const char* domain) {
    return query(__func__, aliases, domain, [mailname](const mail_db_data_t&) -> char** {
        const mail_db_mail_t* mail = find_session_mail(mailname);
        return mail != nullptr ? copy_array(mail->aliases_count, mail->aliases) : nullptr;
    });
}

int get_domaliases_by_domain(void* /*handle*/, char*** aliases, const char* domain) {
    return query(__func__, aliases, domain,
                 [](const mail_db_data_t& data) { return copy_array(data.domain_aliases_count, data.domain_aliases); });
}

int get_maillists_by_domain(void* /*handle*/, char*** maillists, const char* domain) {
    return query(__func__, maillists, domain,
                 [](const mail_db_data_t& data) { return copy_array(data.maillists_count, data.maillists); });
}

void appender(session_domain_query ask, std::vector<std::string>& strings, const std::string& domain) {
    char** found = nullptr;
    ask(nullptr, &found, domain.c_str());
    const StringArray owner(found, &free_array);
    for (char** string = found; string != nullptr && *string != nullptr; ++string) {
        strings.emplace_back(*string);
    }
}

void append_domainaliases_by_domain(std::vector<std::string>& aliases, const std::string& domain) {
    appender(&get_domaliases_by_domain, aliases, domain);
}

void append_maillists_by_domain(std::vector<std::string>& lists, const std::string& domain) {
    appender(&get_maillists_by_domain, lists, domain);
}
