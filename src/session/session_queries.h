// Questions to the session mail data. Each writes a newly allocated, null-terminated array (free_array) or string
// through its second argument, null when there is no match, and returns 0; -1, logged, when no data is loaded. The
// first argument is a handle slot that other implementations use; pass null.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

#include "session/session_mail_data.h"

int get_domain_by_domainalias(void* handle, char** domain, const char* alias);
int get_mailnames_by_domain(void* handle, char*** mailnames, const char* domain);
int get_aliases_by_mailname(void* handle, char*** aliases, const char* mailname, const char* domain);
int get_domaliases_by_domain(void* handle, char*** aliases, const char* domain);
int get_maillists_by_domain(void* handle, char*** maillists, const char* domain);

/// The record of a mailname in the loaded data, found through an index that is built on first use; null when absent.
/// The first of equal names answers.
const mail_db_mail_t* find_session_mail(const char* mailname);
/// Drops the index. Whoever changes names in the object of get_session_mail_db_info after a query was made calls this;
/// asking for the object and releasing it do so themselves.
void reset_session_index();
/// The loaded data; null, logged with `caller`'s name, when there is none.
const mail_db_data_t* loaded_session_mail_data(const char* caller);

/// A query by domain, as the three above that need no other name.
using session_domain_query = int (*)(void* handle, char*** strings, const char* domain);

/// Adapters of the class layer: append the answer to the vector; a query without an answer appends nothing.
void appender(session_domain_query query, std::vector<std::string>& strings, const std::string& domain);
void append_domainaliases_by_domain(std::vector<std::string>& aliases, const std::string& domain);
void append_maillists_by_domain(std::vector<std::string>& lists, const std::string& domain);
/// Always throws std::runtime_error: session data does not tell which aliases are active.
void append_active_domaliases_by_domain(std::vector<std::string>& aliases, const std::string& domain);
