// DomainKeys signing keys: one file "default" in a directory per domain under /etc/domainkeys. Domain lists are
// separated by ",". Messages go through the message reporter.
#pragma once

inline constexpr const char* DOMAINKEYS_D = "/etc/domainkeys";

/// The path of a domain's key file; newly allocated. Null for a null domain or, reported, when it is too long.
char* get_domainkeys_file(const char* domain);
/// 1 when the key file is a regular file, else 0.
int domainkeys_enabled(const char* domain);
/// Installs a copy of the key for each domain of the list. 0, or -1 when one failed.
int set_domain_key(const char* domains, const char* source_file);
/// The same with the key of another domain; a source without a key is success. 0 or -1.
int clone_domain_key(const char* src_domain, const char* dst_domains);
/// Removes the key directory of each domain of the list. 0 or -1.
int remove_domain_key(const char* domains);
