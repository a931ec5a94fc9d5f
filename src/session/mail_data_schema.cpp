// The document's schema: which members an object must and may have, and what each must hold. One walk in document
// order; the first failure ends it.
#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "session/json_scan.h"
#include "session/mail_data_object.h"
#include "session/session_mail_data.h"
#include "util/names.h"

namespace {

using sj_scan::text;

// Kinds of bytes in a name, beside sj_scan::ENDS_PLAIN.
constexpr unsigned char NO_MAILNAME = 2;  ///< is no mailname by itself
constexpr unsigned char UPPER = 4;

/// Mailnames up to this length, of bytes that each are one by themselves, need no further check: their rule limits the
/// length far above it, and else only the dot, which is no mailname by itself.
constexpr std::size_t PLAIN_MAILNAME_LENGTH = 64;

sj_scan::byte_kinds make_name_kinds() {
    sj_scan::byte_kinds kinds = sj_scan::plain_kinds;
    for (std::size_t byte = 0; byte < kinds.size(); ++byte) {
        const std::array<char, 2> alone = {static_cast<char>(byte), '\0'};
        const bool upper = byte >= 'A' && byte <= 'Z';
        kinds[byte] = static_cast<unsigned char>(
            kinds[byte] | (is_mailname_valid(alone.data()) != 0 ? 0 : NO_MAILNAME) | (upper ? UPPER : 0));
    }
    return kinds;
}

// The members of the three kinds of objects. A key's place in its list is its number.
enum : std::size_t { ROOT_DOMAIN };
constexpr std::array<std::string_view, 1> ROOT_KEYS = {"domain"};
enum : std::size_t { DOMAIN_NAME, DOMAIN_MAILS, DOMAIN_ALIASES, DOMAIN_MAILLISTS, DOMAIN_QUOTA, DOMAIN_UNIT };
constexpr std::array<std::string_view, 6> DOMAIN_KEYS = {"name",      "mails",      "dom_aliases",
                                                         "maillists", "mbox_quota", "mbox_quota_unit"};
enum : std::size_t { MAIL_NAME, MAIL_ALIASES, MAIL_QUOTA, MAIL_UNIT };
constexpr std::array<std::string_view, 4> MAIL_KEYS = {"name", "aliases", "mbox_quota", "mbox_quota_unit"};

/// Whether the key and its closing quote stand at `at`. Looks no further than the first byte that differs.
template <const auto& KEYS, std::size_t key, std::size_t... Bytes>
bool stands(const char* at, std::index_sequence<Bytes...> /*bytes*/) {
    return ((at[Bytes] == KEYS[key][Bytes]) && ...) && at[sizeof...(Bytes)] == '"';
}

/// The number of the key that stands at `at`, behind its opening quote; the number of keys when none does.
template <const auto& KEYS, std::size_t... Keys>
std::size_t standing_key(const char* at, std::index_sequence<Keys...> /*keys*/) {
    std::size_t key = 0;
    static_cast<void>(
        ((stands<KEYS, Keys>(at, std::make_index_sequence<KEYS[Keys].size()>{}) || (++key, false)) || ...));
    return key;
}

/// A key with the colon behind it; `key` gets its number, that of no key when it is unknown. Known keys are recognised
/// where they stand, without being parsed.
template <const auto& KEYS>
char* parse_key(sj_parser* parser, char* at, std::size_t* key) {
    at = sj_scan::skip_space(at);
    if (*at == '"') {
        *key = standing_key<KEYS>(at + 1, std::make_index_sequence<KEYS.size()>{});
        if (*key != KEYS.size()) {
            return sj_scan::expect(parser, at + KEYS[*key].size() + 2, ':', SJ_NO_NAME_SEPARATOR);
        }
    }
    // What an escaped NUL cuts off is a known key as well.
    text name;
    at = sj_scan::parse_key(parser, at, &name);
    if (at != nullptr) {
        const auto found = std::find(KEYS.begin(), KEYS.end(), std::string_view(name.begin, name.length));
        *key = static_cast<std::size_t>(found - KEYS.begin());
    }
    return at;
}

/// Reads one document. Its steps are those of json_scan.h: from a position to the next one, or null.
class DocumentReader {
public:
    /// `for_session`: names are lower-cased and quotas turned into bytes on the way.
    DocumentReader(sj_parser* parser, mail_db_data_t* data, bool for_session)
        : parser_(parser), data_(data), for_session_(for_session) {}

    int read() {
        bool has_domain = false;
        bool has_member = false;
        char* const end = members<ROOT_KEYS>(parser_->position, [&](char* at, std::size_t key) {
            has_member = true;
            if (key == ROOT_DOMAIN) {
                has_domain = true;
                return domain(at);
            }
            return skip(at);
        });
        if (end != nullptr) {
            parser_->position = end;
        }
        // Whatever string error stands in the place of the first key, the answer is that the domain is missing.
        const bool lacks_first_key =
            !has_member && parser_->error != SJ_NO_OBJECT && parser_->error != SJ_NO_NAME_SEPARATOR;
        if ((end != nullptr && !has_domain) || lacks_first_key) {
            sj_scan::fail(parser_, SJ_MISSING_FIELDS);
        }
        return parser_->error;
    }

    bool oddQuotas() const { return odd_quotas_; }

private:
    using NameStep = char* (DocumentReader::*)(char* at, const char* detail, const char** value);

    /// A value was read up to `at`, but its content is not acceptable.
    char* refuse(char* at, const char* detail) {
        parser_->detail = detail;
        return sj_scan::fail(parser_, at, SJ_CONSTRAINT);
    }

    char* skip(char* at) {
        parser_->position = at;
        return sj_skip_value(parser_) == SJ_OK ? parser_->position : nullptr;
    }

    /// Calls the step `member(at, key)` at the value of each member, with the key's place in KEYS.
    template <const auto& KEYS, typename Member>
    char* members(char* at, Member member) {
        at = sj_scan::expect(parser_, at, '{', SJ_NO_OBJECT);
        if (at == nullptr) {
            return nullptr;
        }
        at = sj_scan::skip_space(at);
        if (*at == '}') {
            return at + 1;
        }
        bool more = true;
        while (more) {
            std::size_t key = 0;
            at = parse_key<KEYS>(parser_, at, &key);
            if (at != nullptr) {
                at = member(at, key);
            }
            if (at != nullptr) {
                at = sj_scan::next(parser_, at, '}', SJ_NO_OBJECT_SEPARATOR, &more);
            }
            if (at == nullptr) {
                return nullptr;
            }
        }
        return at;
    }

    /// Calls the step `element(at)` at each element of an array.
    template <typename Element>
    char* elements(char* at, Element element) {
        at = sj_scan::expect(parser_, at, '[', SJ_NO_ARRAY);
        if (at == nullptr) {
            return nullptr;
        }
        at = sj_scan::skip_space(at);
        if (*at == ']') {
            return at + 1;
        }
        bool more = true;
        while (more) {
            at = element(at);
            if (at != nullptr) {
                at = sj_scan::next(parser_, at, ']', SJ_NO_ARRAY_SEPARATOR, &more);
            }
            if (at == nullptr) {
                return nullptr;
            }
        }
        return at;
    }

    /// A string that `is_valid` accepts.
    char* checkedText(char* at, int (*is_valid)(const char*), const char* detail, text* parsed) {
        at = sj_scan::parse_text(parser_, at, parsed);
        if (at == nullptr || is_valid(parsed->begin) != 0) {
            return at;
        }
        return refuse(at, detail);
    }

    /// A mailname or mail alias; most are checked while they are parsed.
    char* mailname(char* at, const char* detail, const char** value) {
        text name;
        unsigned seen = 0;
        at = sj_scan::parse_text(parser_, at, name_kinds_, &name, &seen);
        if (at == nullptr) {
            return nullptr;
        }
        const bool plain = (seen & (sj_scan::ENDS_PLAIN | NO_MAILNAME)) == 0 && name.length != 0 &&
                           name.length <= PLAIN_MAILNAME_LENGTH;
        if (!plain && is_mailname_valid(name.begin) == 0) {
            return refuse(at, detail);
        }
        if (seen != 0 && for_session_) {
            ascii_lower(name.begin);
        }
        *value = name.begin;
        return at;
    }

    char* domainName(char* at, const char* detail, const char** value) {
        text name;
        at = checkedText(at, &is_domain_name_valid, detail, &name);
        if (at != nullptr) {
            *value = for_session_ ? ascii_lower(name.begin) : name.begin;
        }
        return at;
    }

    /// Kept: the names of mail lists are not lower-cased.
    char* maillist(char* at, const char* detail, const char** value) {
        text name;
        at = checkedText(at, &is_mailname_valid, detail, &name);
        *value = name.begin;
        return at;
    }

    char* unit(char* at, const char* detail, const char** value) {
        text name;
        at = checkedText(at, &is_valid_size_unit, detail, &name);
        if (at != nullptr) {
            *value = name.begin;
        }
        return at;
    }

    char* quota(char* at, const char* detail, std::int64_t* value) {
        parser_->position = at;
        *value = sj_parse_int64(parser_);
        if (parser_->error != SJ_OK) {
            return nullptr;
        }
        return is_mbox_quota_valid(*value) != 0 ? parser_->position : refuse(parser_->position, detail);
    }

    /// Once quota and unit are final.
    void toBytes(std::int64_t* quota, const char* unit) {
        if (for_session_ && *quota > 0) {
            *quota = get_value_in_bytes(*quota, unit);
            odd_quotas_ = odd_quotas_ || is_mbox_quota_valid(*quota) == 0;
        }
    }

    /// An array of names; it replaces one that stands there already.
    template <NameStep name>
    char* names(char* at, const char* detail, std::size_t* count, std::size_t* capacity, const char*** array) {
        if (*capacity != 0) {
            free_session_strings(parser_, count, capacity, array);
        }
        return elements(at, [=, this](char* element) -> char* {
            const char* value = nullptr;
            char* const end = (this->*name)(element, detail, &value);
            if (end == nullptr) {
                return nullptr;
            }
            const char** slot = append_session_item(parser_, count, capacity, array);
            if (slot == nullptr) {
                parser_->position = end;
                return nullptr;
            }
            *slot = value;
            return end;
        });
    }

    char* mail(char* at, mail_db_mail_t* record) {
        bool has_name = false;
        bool has_aliases = false;
        at = members<MAIL_KEYS>(at, [&](char* value, std::size_t key) {
            if (key == MAIL_NAME) {
                has_name = true;
                return mailname(value, "Mailname is not valid", &record->name);
            }
            if (key == MAIL_ALIASES) {
                has_aliases = true;
                return names<&DocumentReader::mailname>(value, "Mail alias is not valid", &record->aliases_count,
                                                        &record->aliases_capacity, &record->aliases);
            }
            if (key == MAIL_QUOTA) {
                return quota(value, "Mailbox quota value is out of bounds", &record->quota);
            }
            if (key == MAIL_UNIT) {
                return unit(value, "Mailbox quota unit value is invalid", &record->quota_unit);
            }
            return skip(value);
        });
        if (at != nullptr && !(has_name && has_aliases)) {
            return sj_scan::fail(parser_, at, SJ_MISSING_FIELDS);
        }
        toBytes(&record->quota, record->quota_unit);
        return at;
    }

    char* mails(char* at) {
        free_session_mails(parser_, data_);
        return elements(at, [this](char* element) -> char* {
            mail_db_mail_t* record = append_session_mail(parser_, data_);
            if (record == nullptr) {
                parser_->position = element;
                return nullptr;
            }
            char* const end = mail(element, record);
            if (end == nullptr) {
                // Only whole records count.
                free_session_strings(parser_, &record->aliases_count, &record->aliases_capacity, &record->aliases);
                --data_->mails_count;
            }
            return end;
        });
    }

    char* domain(char* at) {
        // A second domain object replaces the first one, its optional members too.
        data_->domain_quota = NO_SESSION_QUOTA;
        data_->domain_quota_unit = DEFAULT_QUOTA_UNIT;
        bool has_name = false;
        bool has_mails = false;
        bool has_aliases = false;
        bool has_maillists = false;
        at = members<DOMAIN_KEYS>(at, [&](char* value, std::size_t key) {
            if (key == DOMAIN_NAME) {
                has_name = true;
                return domainName(value, "Domain name is not valid", &data_->domain_name);
            }
            if (key == DOMAIN_QUOTA) {
                return quota(value, "Domain quota value is out of bounds", &data_->domain_quota);
            }
            if (key == DOMAIN_UNIT) {
                return unit(value, "Domain quota unit value is invalid", &data_->domain_quota_unit);
            }
            if (key == DOMAIN_ALIASES) {
                has_aliases = true;
                return names<&DocumentReader::domainName>(value, "Domain alias is not valid",
                                                          &data_->domain_aliases_count, &data_->domain_aliases_capacity,
                                                          &data_->domain_aliases);
            }
            if (key == DOMAIN_MAILLISTS) {
                has_maillists = true;
                return names<&DocumentReader::maillist>(value, "Maillist is not valid", &data_->maillists_count,
                                                        &data_->maillists_capacity, &data_->maillists);
            }
            if (key == DOMAIN_MAILS) {
                has_mails = true;
                return mails(value);
            }
            return skip(value);
        });
        if (at != nullptr && !(has_name && has_mails && has_aliases && has_maillists)) {
            return sj_scan::fail(parser_, at, SJ_MISSING_FIELDS);
        }
        toBytes(&data_->domain_quota, data_->domain_quota_unit);
        return at;
    }

    sj_parser* parser_;
    mail_db_data_t* data_;
    bool for_session_;
    bool odd_quotas_ = false;
    sj_scan::byte_kinds name_kinds_ = make_name_kinds();
};

}  // namespace

int parse_mail_db_data_object(sj_parser* parser, mail_db_data_t* object) {
    return DocumentReader(parser, object, false).read();
}

int parse_session_document(sj_parser* parser, mail_db_data_t* object, bool* odd_quotas) {
    DocumentReader reader(parser, object, true);
    const int result = reader.read();
    *odd_quotas = reader.oddQuotas();
    return result;
}
