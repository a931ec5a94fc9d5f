// Path components of the mail storage.
#include "storage/path_component.h"

#include <locale>
#include <stdexcept>

namespace kavro::mail {

bool isPathComponent(std::string_view name) noexcept {
    using namespace std::string_view_literals;
    return !name.empty() && name != "." && name != ".." && name.find_first_of("/\0"sv) == std::string_view::npos;
}

std::string notPathComponentText(std::string_view name) {
    return "'" + std::string(name) + "' cannot be the name of a directory in the mail storage";
}

std::string lowerPathComponent(const std::string& name) {
    if (!isPathComponent(name)) {
        throw std::runtime_error(notPathComponentText(name));
    }
    std::string lower = name;
    const std::locale locale;
    std::use_facet<std::ctype<char>>(locale).tolower(lower.data(), lower.data() + lower.size());
    return lower;
}

}  // namespace kavro::mail
