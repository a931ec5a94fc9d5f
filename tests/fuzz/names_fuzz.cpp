// Any bytes as names: an address is valid when both its sides are; conversions of one name agree with each other.
#include <cstring>

#include "fuzz.h"
#include "util/c_memory.h"
#include "util/idn.h"
#include "util/names.h"

void check(std::string& input) {
    const std::string name = input.c_str();
    const std::size_t at = name.find('@');
    const bool address = at != std::string::npos && is_mailname_valid(name.substr(0, at).c_str()) != 0 &&
                         is_domain_name_valid(name.substr(at + 1).c_str()) != 0;
    require((is_full_mailname_valid(name.c_str()) != 0) == address);
    const kavro::CString ascii(idn_toascii(name.c_str()));
    if (at == std::string::npos && ascii != nullptr) {
        const kavro::CString mail(idn_email_toascii(("x@" + name).c_str()));
        require(mail != nullptr && std::strcmp(mail.get() + 2, ascii.get()) == 0);
    }
    const kavro::CString unicode(idn_toutf8(name.c_str()));
    std::string lower = name;
    require(is_domain_name_valid(ascii_lower(lower.data())) == is_domain_name_valid(name.c_str()));
    const char* url = idn_url_toascii(name.c_str());
    require(url == nullptr || std::strlen(url) < 4096);
}
