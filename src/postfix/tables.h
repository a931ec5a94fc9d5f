// The panel's four Postfix lookup tables: their full map names, what users are told they are called, and what their
// records are made of.
#pragma once

#include <string>

namespace kavro::mail::postfix {

inline constexpr const char* kVirtualDomainsTable = "hash:/var/spool/postfix/kavro/virtual_domains";
inline constexpr const char* kVmailboxTable = "hash:/var/spool/postfix/kavro/vmailbox";
inline constexpr const char* kVirtualTable = "hash:/var/spool/postfix/kavro/virtual";
inline constexpr const char* kAliasesTable = "hash:/var/spool/postfix/kavro/aliases";

/// Human names of stores, for the message that a change could not be taken back.
inline constexpr const char* kVirtualDomainsHumanName = "Postfix Virtual Domains Database";
inline constexpr const char* kVmailboxHumanName = "Postfix Virtual Mailboxes Database";
inline constexpr const char* kVirtualHumanName = "Postfix Virtual Aliases Database";
inline constexpr const char* kStorageHumanName = "Mail Storage";
inline constexpr const char* kAuthDatabaseHumanName = "Mail Authentication Database";

/// Where mail for standard addresses and for bounces is handed to the host itself.
inline constexpr const char* kLocalDomain = "@localhost.localdomain";

/// The value of the record in the virtual table that makes a name a domain alias; the key is that name.
inline constexpr const char* kDomainAliasMarker = "1";

/// The tool that makes every change to a table.
inline constexpr const char* kPostmap = "/usr/sbin/postmap";

/// The path of a table's text source: the part after the map type, the whole name when there is none.
inline std::string textSourcePath(const std::string& table) {
    return table.substr(table.find(':') + 1);
}

/// The path of its hash map.
inline std::string mapFile(const std::string& table) {
    return textSourcePath(table) + ".db";
}

/// Mailname, "@", domain: the key and value of most records.
inline std::string addressOf(const std::string& name, const std::string& domain) {
    return name + '@' + domain;
}

}  // namespace kavro::mail::postfix
