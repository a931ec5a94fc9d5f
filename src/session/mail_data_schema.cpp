// The document's schema: which members an object must and may have, and what each must hold. One walk in document
// order; the first failure ends it.
#include <algorithm>
#include <array>
#include <string_view>

#include "session/json_scan.h"
#include "session/session_mail_data.h"
#include "util/names.h"

namespace {

struct SizeUnit {
    std::string_view name;
    std::int64_t bytes;
};

constexpr std::array<SizeUnit, 5> kUnits = {{
    {"B", 1},
    {"KB", std::int64_t{1} << 10},
    {"MB", std::int64_t{1} << 20},
    {"GB", std::int64_t{1} << 30},
    {"TB", std::int64_t{1} << 40},
}};

// Kinds of bytes in a name, beside kEndsPlain. A second look at each name would cost a tenth of the document's time.
constexpr unsigned char kNoMailname = 2;  ///< is no mailname by itself
constexpr unsigned char kUpper = 4;

/// Mailnames up to this length, of bytes that each are one by themselves, need no further check: their rule limits the
/// length far above it, and else only the dot, which is no mailname by itself.
constexpr std::ptrdiff_t kPlainMailnameLength = 64;

byte_kinds make_name_kinds() {
    byte_kinds kinds = kPlainKinds;
    for (std::size_t byte = 0; byte < kinds.size(); ++byte) {
        const std::array<char, 2> alone = {static_cast<char>(byte), '\0'};
        const bool upper = byte >= 'A' && byte <= 'Z';
        kinds[byte] = static_cast<unsigned char>(
            kinds[byte] | (is_mailname_valid(alone.data()) != 0 ? 0 : kNoMailname) | (upper ? kUpper : 0));
    }
    return kinds;
}

/// Reads one document. A step leaves the parser behind what it read, or with an error.
class DocumentReader {
public:
    /// `for_session`: names are lower-cased and quotas turned into bytes on the way.
    DocumentReader(sj_parser* parser, mail_db_data_t* data, bool for_session)
        : parser_(parser), data_(data), for_session_(for_session) {}

    int read() {
        bool has_domain = false;
        bool has_member = false;
        members([&](std::string_view key) {
            has_member = true;
            if (key == "domain") {
                has_domain = true;
                domain();
            } else {
                sj_skip_value(parser_);
            }
        });
        // Whatever string error stands in the place of the first key, the answer is that the domain is missing.
        const bool lacks_first_key =
            !has_member && parser_->error != SJ_NO_OBJECT && parser_->error != SJ_NO_NAME_SEPARATOR;
        if ((!failed() && !has_domain) || lacks_first_key) {
            parser_->error = SJ_MISSING_FIELDS;
        }
        return parser_->error;
    }

    bool oddQuotas() const { return odd_quotas_; }

private:
    using NameStep = void (DocumentReader::*)(const char* detail, const char** value);

    bool failed() const { return parser_->error != SJ_OK; }

    /// The value before the position is not acceptable.
    void refuse(const char* detail) {
        parser_->detail = detail;
        parser_->error = SJ_CONSTRAINT;
    }

    /// The object before the position must have had its required members.
    void require(bool complete) {
        if (!failed() && !complete) {
            parser_->error = SJ_MISSING_FIELDS;
        }
    }

    /// Calls `member(key)` at the value of each member.
    template <typename Member>
    void members(Member member) {
        if (sj_parse_object_start(parser_) != SJ_OK || sj_parse_object_end_if_empty(parser_) != 0) {
            return;
        }
        do {
            const char* const key = sj_parse_object_key(parser_);
            if (!failed()) {
                member(key);
            }
        } while (!failed() && sj_parse_object_next(parser_) == 0);
    }

    /// Calls `element()` at each element of an array.
    template <typename Element>
    void elements(Element element) {
        if (sj_parse_array_start(parser_) != SJ_OK || sj_parse_array_end_if_empty(parser_) != 0) {
            return;
        }
        do {
            element();
        } while (!failed() && sj_parse_array_next(parser_) == 0);
    }

    /// A string that `is_valid` accepts; null after an error.
    char* checkedText(int (*is_valid)(const char*), const char* detail) {
        char* const text = sj_parse_string(parser_);
        if (text != nullptr && is_valid(text) == 0) {
            refuse(detail);
            return nullptr;
        }
        return text;
    }

    /// A mailname or mail alias; most are checked while they are parsed.
    void mailname(const char* detail, const char** value) {
        unsigned seen = 0;
        char* const name = parse_text(parser_, name_kinds_, &seen);
        if (name == nullptr) {
            return;
        }
        const std::ptrdiff_t length = parser_->position - name - 1;
        const bool plain = (seen & (kEndsPlain | kNoMailname)) == 0 && length != 0 && length <= kPlainMailnameLength;
        if (!plain && is_mailname_valid(name) == 0) {
            refuse(detail);
            return;
        }
        *value = for_session_ && seen != 0 ? ascii_lower(name) : name;
    }

    void domainName(const char* detail, const char** value) {
        char* const name = checkedText(&is_domain_name_valid, detail);
        if (name != nullptr) {
            *value = for_session_ ? ascii_lower(name) : name;
        }
    }

    /// Kept: the names of mail lists are not lower-cased.
    void maillist(const char* detail, const char** value) { *value = checkedText(&is_mailname_valid, detail); }

    void unit(const char* detail, const char** value) {
        const char* const name = checkedText(&is_valid_size_unit, detail);
        if (name != nullptr) {
            *value = name;
        }
    }

    void quota(const char* detail, std::int64_t* value) {
        *value = sj_parse_int64(parser_);
        if (!failed() && is_mbox_quota_valid(*value) == 0) {
            refuse(detail);
        }
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
    void names(const char* detail, std::size_t* count, std::size_t* capacity, const char*** array) {
        free_session_strings(parser_, count, capacity, array);
        elements([=, this] {
            const char* value = nullptr;
            (this->*name)(detail, &value);
            if (!failed()) {
                append_session_string(parser_, count, capacity, array, value);
            }
        });
    }

    void mail(mail_db_mail_t* record) {
        bool has_name = false;
        bool has_aliases = false;
        members([&](std::string_view key) {
            if (key == "name") {
                has_name = true;
                mailname("Mailname is not valid", &record->name);
            } else if (key == "aliases") {
                has_aliases = true;
                names<&DocumentReader::mailname>("Mail alias is not valid", &record->aliases_count,
                                                 &record->aliases_capacity, &record->aliases);
            } else if (key == "mbox_quota") {
                quota("Mailbox quota value is out of bounds", &record->quota);
            } else if (key == "mbox_quota_unit") {
                unit("Mailbox quota unit value is invalid", &record->quota_unit);
            } else {
                sj_skip_value(parser_);
            }
        });
        require(has_name && has_aliases);
        toBytes(&record->quota, record->quota_unit);
    }

    void mails() {
        free_session_mails(parser_, data_);
        elements([this] {
            mail_db_mail_t* record = append_session_mail(parser_, data_);
            if (record == nullptr) {
                return;
            }
            mail(record);
            if (failed()) {
                // Only whole records count.
                free_session_strings(parser_, &record->aliases_count, &record->aliases_capacity, &record->aliases);
                --data_->mails_count;
            }
        });
    }

    void domain() {
        // A second domain object replaces the first one, its optional members too.
        data_->domain_quota = kNoSessionQuota;
        data_->domain_quota_unit = kDefaultQuotaUnit;
        bool has_name = false;
        bool has_mails = false;
        bool has_aliases = false;
        bool has_maillists = false;
        members([&](std::string_view key) {
            if (key == "name") {
                has_name = true;
                domainName("Domain name is not valid", &data_->domain_name);
            } else if (key == "mails") {
                has_mails = true;
                mails();
            } else if (key == "dom_aliases") {
                has_aliases = true;
                names<&DocumentReader::domainName>("Domain alias is not valid", &data_->domain_aliases_count,
                                                   &data_->domain_aliases_capacity, &data_->domain_aliases);
            } else if (key == "maillists") {
                has_maillists = true;
                names<&DocumentReader::maillist>("Maillist is not valid", &data_->maillists_count,
                                                 &data_->maillists_capacity, &data_->maillists);
            } else if (key == "mbox_quota") {
                quota("Domain quota value is out of bounds", &data_->domain_quota);
            } else if (key == "mbox_quota_unit") {
                unit("Domain quota unit value is invalid", &data_->domain_quota_unit);
            } else {
                sj_skip_value(parser_);
            }
        });
        require(has_name && has_mails && has_aliases && has_maillists);
        toBytes(&data_->domain_quota, data_->domain_quota_unit);
    }

    sj_parser* parser_;
    mail_db_data_t* data_;
    bool for_session_;
    bool odd_quotas_ = false;
    byte_kinds name_kinds_ = make_name_kinds();
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

int is_mbox_quota_valid(std::int64_t quota) {
    return quota >= -1 ? 1 : 0;
}

std::int64_t get_size_unit(const char* unit) {
    const std::string_view wanted = unit != nullptr ? unit : "";
    const auto* const known = std::find_if(kUnits.begin(), kUnits.end(),
                                           [wanted](const SizeUnit& candidate) { return candidate.name == wanted; });
    return known != kUnits.end() ? known->bytes : 0;
}

int is_valid_size_unit(const char* unit) {
    return get_size_unit(unit) != 0 ? 1 : 0;
}

std::int64_t get_value_in_bytes(std::int64_t value, const char* unit) {
    // A product that does not fit wraps around, as the callers' check for negative results expects.
    return static_cast<std::int64_t>(static_cast<std::uint64_t>(value) *
                                     static_cast<std::uint64_t>(get_size_unit(unit)));
}
