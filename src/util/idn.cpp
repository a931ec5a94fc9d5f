// Internationalised domain names: the plain conversions, and the wrappers that throw.
#include "util/idn.h"

#include <idna.h>

#include <cstring>
#include <new>

#include "util/c_memory.h"
#include "util/log.h"

int idn_errno = IDNA_SUCCESS;

namespace {

/// Puts the code where idn_errno's readers look; no memory in the library ends the process.
void rememberFailure(int code) {
    if (code == IDNA_MALLOC_ERROR) {
        messlog2(1, 0, "Allocation failed");
    }
    idn_errno = code;
}

char* endOnFailure(const char* function, const char* input, char* result) {
    if (result == nullptr) {
        messlog2(1, 0, "%s(%s) failed: %s", function, input, idn_strerror(idn_errno));
    }
    return result;
}

using Conversion = int (*)(const char* input, char** output, int flags);

std::string convertOrThrow(Conversion conversion, const std::string& name) {
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
    rememberFailure(code);
    return nullptr;
}

char* idn_toutf8(const char* name) {
    char* output = nullptr;
    const int code = ::idna_to_unicode_8z8z(name, &output, 0);
    if (code != IDNA_SUCCESS) {
        rememberFailure(code);
    }
    return output;
}

char* idn_toascii_safe(const char* name) {
    return endOnFailure("idn_toascii_safe", name, idn_toascii(name));
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
    return endOnFailure("idn_email_toascii_safe", address, idn_email_toascii(address));
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
    return convertOrThrow(::idna_to_ascii_8z, name);
}

std::string toUtf8(const std::string& name) {
    return convertOrThrow(::idna_to_unicode_8z8z, name);
}

std::string emailToAscii(const std::string& address) {
    const std::string::size_type at = address.find('@');
    if (at == std::string::npos) {
        return address;
    }
    return address.substr(0, at + 1) + toAscii(address.substr(at + 1));
}

}  // namespace kavro::idn
