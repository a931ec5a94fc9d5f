// Any text as a list option: the names are what stands between the separators, in their order.
#include "frontend/option_types.h"
#include "fuzz.h"

namespace {

std::vector<std::string> names_in(const std::string& text) {
    std::vector<std::string> names(1);
    for (const char c : text) {
        if (c == ',' || c == ' ' || c == '\t') {
            names.emplace_back();
        } else {
            names.back() += c;
        }
    }
    return names;
}

}  // namespace

void check(std::string& text) {
    boost::any value;
    validate(value, {text}, static_cast<MailDbDomainAliasesList*>(nullptr), 0);
    require(text.empty() || boost::any_cast<MailDbDomainAliasesList>(value).names() == names_in(text));
    boost::any mails;
    validate(mails, {text}, static_cast<MailDbMailAddressesList*>(nullptr), 0);
    const auto list = boost::any_cast<MailDbMailAddressesList>(mails);
    for (const auto& [mailname, aliases] : list.mails()) {
        require(text.find(mailname) != std::string::npos && mailname.find_first_of(",; \t") == std::string::npos);
        for (const std::string& alias : aliases) {
            require(text.find(alias) != std::string::npos && alias.find_first_of(",; \t") == std::string::npos);
        }
    }
}
