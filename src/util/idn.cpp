// What libidn answers: kept for readers of idn_errno by the plain functions, thrown by the others.
#include "util/idn.h"

#include <idna.h>

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
