// One operation on the authentication database for a domain with all its aliases, or a mailname with all its aliases,
// in the order of the session mail data. They stop at the first failure and undo nothing: the backend decides about
// that.
//
// -1 failure, logged; 1 done, unless told otherwise; 0 nothing to do, because a list that is walked last is empty: the
// mailnames for add_domain_auth_alias, the mailname's aliases for rm_mails_from_domains and set_mass_postbox_passwd,
// the domain aliases for the others. What comes before the list was done all the same.
#pragma once

/// Clones every mailname of the domain, each after its aliases, from `domain` to `alias`.
int add_domain_auth_alias(const char* domain, const char* alias);
/// Removes the alias domain, then every mail alias under it. 0, not 1, when done.
int rm_domain_auth_alias(const char* alias);
/// Removes the mailname under the domain and under each domain alias.
int rm_mname_from_domains(const char* mailname, const char* domain);
/// The same for the mailname and for each of its aliases.
int rm_mails_from_domains(const char* mailname, const char* domain);
/// Sets a password under the domain and under each domain alias; an empty one removes. `flags` are those of
/// auth/auth_database.h.
int set_passwd_for_domains(const char* mailname, const char* domain, const char* password, unsigned char flags);
/// The same for the mailname and for each of its aliases.
int set_mass_postbox_passwd(const char* mailname, const char* domain, const char* password, unsigned char flags);
/// Applies the action, which answers -1 on failure, to the domain, then to its aliases; `actionName` fills the log
/// texts.
int domain_auth_action(const char* domain, int (*action)(const char* domain), const char* actionName);
