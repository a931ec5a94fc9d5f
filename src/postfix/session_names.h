// Answers of the session queries as vectors. For use inside this folder.
#pragma once

#include <string>
#include <vector>

namespace kavro::mail::postfix {

/// Copies a query's answer and frees it; empty for null.
std::vector<std::string> takeNames(char** names);

/// Names of the session's domain, in the order of the session data; none for another domain.
std::vector<std::string> mailnamesOf(const std::string& domain);
std::vector<std::string> mailAliasesOf(const std::string& mailname, const std::string& domain);
std::vector<std::string> domainAliasesOf(const std::string& domain);
std::vector<std::string> mailListsOf(const std::string& domain);

}  // namespace kavro::mail::postfix
