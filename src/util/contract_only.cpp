// The part of this floor's contract that no command of ours calls; other programs of the panel do: conversions of mail
// addresses and URLs, arrays of strings that grow, the edit of one line.
#include <regex.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>

#include "util/c_memory.h"
#include "util/idn.h"
#include "util/line_file.h"
#include "util/log.h"

namespace {

constexpr std::size_t kUrlBuffer = 4096;
constexpr const char* kUrlPattern = "^(ftp://|https?://)?([^@]+@)?([^/:]+)(.*)?$";

// Groups of the pattern; 0 is the whole match.
constexpr std::size_t kScheme = 1;
constexpr std::size_t kUser = 2;
constexpr std::size_t kHost = 3;
constexpr std::size_t kRest = 4;
constexpr std::size_t kGroupCount = 5;

struct RegexFreer {
    void operator()(regex_t* expression) const noexcept { ::regfree(expression); }
};

std::array<char, 256> regex_error(int code, const regex_t* expression) {
    std::array<char, 256> text{};
    ::regerror(code, expression, text.data(), text.size());
    return text;
}

/// Length of a group; 0 for one that is not there.
int group_length(const regmatch_t& group) {
    return group.rm_so == -1 ? 0 : static_cast<int>(group.rm_eo - group.rm_so);
}

const char* group_start(const char* url, const regmatch_t& group) {
    return group.rm_so == -1 ? "" : url + group.rm_so;
}

char* end_on_failure(const char* function, const char* input, char* result) {
    if (result == nullptr) {
        messlog2(1, 0, "%s(%s) failed: %s", function, input, idn_strerror(idn_errno));
    }
    return result;
}

std::size_t count_strings(char** array) {
    std::size_t count = 0;
    while (array != nullptr && array[count] != nullptr) {
        ++count;
    }
    return count;
}

}  // namespace

char* idn_toascii_safe(const char* name) {
    return end_on_failure("idn_toascii_safe", name, idn_toascii(name));
}

char* idn_email_toascii(const char* address) {
    const char* at = std::strchr(address, '@');
    if (at == nullptr) {
        return nullptr;
    }
    const kavro::CString domain(idn_toascii(at + 1));
    // Kept: a domain that cannot be converted is not noticed here.
    return asprintf_safe("%.*s@%s", static_cast<int>(at - address), address,
                         domain == nullptr ? "(null)" : domain.get());
}

char* idn_email_toascii_safe(const char* address) {
    return end_on_failure("idn_email_toascii_safe", address, idn_email_toascii(address));
}

const char* idn_url_toascii(const char* url) {
    static std::array<char, kUrlBuffer> result;

    regex_t expression;
    int code = ::regcomp(&expression, kUrlPattern, REG_EXTENDED);
    if (code != 0) {
        messlog2(1, 0, "regcomp() failed: %s", regex_error(code, &expression).data());
    }
    const std::unique_ptr<regex_t, RegexFreer> owner(&expression);

    std::array<regmatch_t, kGroupCount> groups{};
    code = ::regexec(&expression, url, groups.size(), groups.data(), 0);
    if (code != 0) {
        messlog2(0, 0, "regexec() failed: %s", regex_error(code, &expression).data());
        return nullptr;
    }
    if (group_length(groups[kHost]) == 0) {
        messlog2(0, 0, "no hostname found in URL");
        return nullptr;
    }
    const kavro::CString host(asprintf_safe("%.*s", group_length(groups[kHost]), group_start(url, groups[kHost])));
    const kavro::CString ascii(idn_toascii(host.get()));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_toascii() failed: %s", idn_strerror(idn_errno));
        return nullptr;
    }
    std::snprintf(result.data(), result.size(), "%.*s%.*s%s%.*s", group_length(groups[kScheme]),
                  group_start(url, groups[kScheme]), group_length(groups[kUser]), group_start(url, groups[kUser]),
                  ascii.get(), group_length(groups[kRest]), group_start(url, groups[kRest]));
    return result.data();
}

char** string_to_mas(char** array, const char* s) {
    const std::size_t count = count_strings(array);
    kavro::CString copy(::strdup(s));
    char** grown = copy == nullptr ? nullptr : static_cast<char**>(std::realloc(array, (count + 2) * sizeof(char*)));
    if (grown == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "System error: %s\n", std::strerror(errno));
        return nullptr;
    }
    grown[count] = copy.release();
    grown[count + 1] = nullptr;
    return grown;
}

int file_str(const char* path, const char* line, int action, int place) {
    const char* const lines[] = {line, nullptr};
    return file_strings(path, lines, action, place);
}
