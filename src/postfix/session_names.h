// Answers of the session queries as vectors. For use inside this folder.
#pragma once

#include <string>
#include <vector>

#include "session/session_queries.h"
#include "util/c_memory.h"

namespace kavro::mail::postfix {

/// Copies a query's answer and frees it; empty for null.
inline std::vector<std::string> takeNames(char** names) {
    std::vector<std::string> result;
    for (char** name = names; name != nullptr && *name != nullptr; ++name) {
        result.emplace_back(*name);
    }
    free_array(names);
    return result;
}

/// Names of the session's domain, in the order of the session data; none for another domain.
inline std::vector<std::string> mailnamesOf(const std::string& domain) {
    char** names = nullptr;
    get_mailnames_by_domain(nullptr, &names, domain.c_str());
    return takeNames(names);
}

inline std::vector<std::string> mailAliasesOf(const std::string& mailname, const std::string& domain) {
    char** names = nullptr;
    get_aliases_by_mailname(nullptr, &names, mailname.c_str(), domain.c_str());
    return takeNames(names);
}

inline std::vector<std::string> domainAliasesOf(const std::string& domain) {
    std::vector<std::string> result;
    append_domainaliases_by_domain(result, domain);
    return result;
}

inline std::vector<std::string> mailListsOf(const std::string& domain) {
    std::vector<std::string> result;
    append_maillists_by_domain(result, domain);
    return result;
}

}  // namespace kavro::mail::postfix
