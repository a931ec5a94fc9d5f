// One operation on the authentication database for a domain with all its aliases, or a mailname with all its aliases.
// -1 failure (logged), 0 nothing to do, 1 done, unless told otherwise. They stop at the first failure and undo nothing.
#pragma once

int add_domain_auth_alias(const char* domain, const char* alias);
int rm_domain_auth_alias(const char* alias);  ///< 0, not 1, when done
int rm_mname_from_domains(const char* mailname, const char* domain);
int rm_mails_from_domains(const char* mailname, const char* domain);
int set_passwd_for_domains(const char* mailname, const char* domain, const char* password, unsigned char flags);
int set_mass_postbox_passwd(const char* mailname, const char* domain, const char* password, unsigned char flags);
/// Applies the action to the domain, then to its aliases in order; `actionName` fills the log texts.
int domain_auth_action(const char* domain, int (*action)(const char* domain), const char* actionName);
