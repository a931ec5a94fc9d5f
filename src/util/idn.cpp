// Internationalised domain names: the plain conversions, and the wrappers that throw.
#include "util/idn.h"

#include <idna.h>
#include <regex.h>

#include <array>
#include <cstdio>
#include <cstring>
#include <memory>
#include <new>

#include "util/c_memory.h"
#include "util/log.h"

int idn_errno = IDNA_SUCCESS;

namespace {

/// Puts the code where idn_errno's readers look; no memory in the library ends the process.
void remember_failure(int code) {
    if (code == IDNA_MALLOC_ERROR) {
        messlog2(1, 0, "Allocation failed");
    }
    idn_errno = code;
}

char* end_on_failure(const char* function, const char* input, char* result) {
    if (result == nullptr) {
        messlog2(1, 0, "%s(%s) failed: %s", function, input, idn_strerror(idn_errno));
    }
    return result;
}

using Conversion = int (*)(const char* input, char** output, int flags);

std::string convert_or_throw(Conversion conversion, const std::string& name) {
    char* output = nullptr;
    const int code = conversion(name.c_str(), &output, 0);
    const kavro::CString owner(output);
    if (code != IDNA_SUCCESS) {
        throw kavro::idn::IdnaError(code);
    }
    if (output == nullptr) {
        throw std::bad_alloc();
    }
    return output;
}

}  // namespace

char* idn_toascii(const char* name) {
    char* output = nullptr;
    const int code = ::idna_to_ascii_8z(name, &output, 0);
    if (code == IDNA_SUCCESS) {
        return output;
    }
    remember_failure(code);
    return nullptr;
}

char* idn_toutf8(const char* name) {
    char* output = nullptr;
    const int code = ::idna_to_unicode_8z8z(name, &output, 0);
    if (code != IDNA_SUCCESS) {
        remember_failure(code);
    }
    return output;
}

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

const char* idn_strerror(int code) {
    switch (code) {
        case IDNA_SUCCESS:
            return "Success";
        case IDNA_STRINGPREP_ERROR:
            return "Stringprep error";
        case IDNA_PUNYCODE_ERROR:
            return "Punycode error";
        case IDNA_CONTAINS_NON_LDH:
            return "Contains non-LDH characters";
        case IDNA_CONTAINS_MINUS:
            return "Contains minus";
        case IDNA_INVALID_LENGTH:
            return "Invalid length";
        case IDNA_NO_ACE_PREFIX:
            return "ACE prefix not found";
        case IDNA_ROUNDTRIP_VERIFY_ERROR:
            return "Verify error";
        case IDNA_CONTAINS_ACE_PREFIX:
            return "ACE prefix found";
        case IDNA_ICONV_ERROR:
            return "Iconv error";
        case IDNA_MALLOC_ERROR:
            return "Cannot allocate buffer";
        default:
            return "Unknown error";
    }
}

namespace kavro::idn {

std::string toAscii(const std::string& name) {
    return convert_or_throw(::idna_to_ascii_8z, name);
}

std::string toUtf8(const std::string& name) {
    return convert_or_throw(::idna_to_unicode_8z8z, name);
}

std::string emailToAscii(const std::string& address) {
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos) {
        return address;
    }
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

}  // namespace kavro::idn

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

}  // namespace

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
