// The .qmail delivery file of a mailname, edited line by line, and the local delivery agent that its delivery line
// names. Plain functions: 0, or -1, logged.
#pragma once

#include <cstddef>

/// 0 Courier-IMAP, 1 Dovecot, -1 none, logged. A type found is kept for the life of the process.
int detectImapPop3Server();
const char* getImapPop3ServerHumanReadableName();
const char* getImapPop3ServerPkgctlComponentName();

/// Write a mailname's paths, lower-cased whole, into `dst` of `size` bytes.
int get_dotqmail_path(char* dst, std::size_t size, const char* mailname, const char* domain);
int get_mailhome_path(char* dst, std::size_t size, const char* mailname, const char* domain);

int dotqmail_reset(const char* path);
int dotqmail_add_delivery(const char* path);
int dotqmail_remove_delivery(const char* path);
int dotqmail_remove_delivery_strings(const char* path);
int dotqmail_add_forward(const char* path, const char* address);
int dotqmail_remove_forward(const char* path, const char* address);

int add_mailname_delivery(const char* mailname, const char* domain);
int remove_mailname_delivery(const char* mailname, const char* domain);
int add_mn_forward(const char* mailname, const char* domain, const char* address);
int rm_mn_forward(const char* mailname, const char* domain, const char* address);
