// Mailing lists of a domain, seen through one of its aliases. These two report their own exceptions.
#pragma once

#include <string>

namespace kavro::mail::postfix {

/// One record in the virtual table. 0, or 1 after a reported std::exception, 2 after a reported other one.
int createListAliasForDomainAlias(const std::string& domain, const std::string& domainAlias,
                                  const std::string& listName);
int removeListAliasForDomainAlias(const std::string& domainAlias, const std::string& listName);

}  // namespace kavro::mail::postfix
