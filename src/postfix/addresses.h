// Mail addresses as the keys and values of records.
#pragma once

#include <string>

namespace kavro::mail::postfix {

/// Mailname, "@", domain.
inline std::string addressOf(const std::string& name, const std::string& domain) {
    return name + '@' + domain;
}

}  // namespace kavro::mail::postfix
