// DomainKeys signing keys: one file "default" in a directory per domain under /etc/domainkeys. Domain lists are
// separated by ","; empty entries are skipped, an entry that cannot be the name of a directory ("..", "a/b") is an
// error. Messages go through the message reporter.
#pragma once

inline constexpr const char* kDomainKeysDirectory = "/etc/domainkeys";

/// The path of a domain's key file; newly allocated, free with free(3). Null for a null domain or, reported, when it
/// reaches 4096 characters or the domain cannot be the name of a directory.
char* get_domainkeys_file(const char* domain);
/// 1 when the key file is a regular file, else 0; a failure to examine it is reported.
int domainkeys_enabled(const char* domain);
/// Installs a copy of the key for each domain of the list: root, group popuser, mode 0440. 0, or -1 when one failed;
/// the others are done all the same.
int set_domain_key(const char* domains, const char* source_file);
/// The same with the key of another domain; a source without a key is success, one that cannot be examined is not.
/// 0 or -1.
int clone_domain_key(const char* src_domain, const char* dst_domains);
/// Removes the key directory of each domain of the list; one that is not there is success. 0, or -1 when one failed.
int remove_domain_key(const char* domains);
