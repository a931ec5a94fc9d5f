// The panel's four Postfix lookup tables, by their full map names.
#pragma once

namespace kavro::mail::postfix {

inline constexpr const char* kVirtualDomainsTable = "hash:/var/spool/postfix/kavro/virtual_domains";
inline constexpr const char* kVmailboxTable = "hash:/var/spool/postfix/kavro/vmailbox";
inline constexpr const char* kVirtualTable = "hash:/var/spool/postfix/kavro/virtual";
inline constexpr const char* kAliasesTable = "hash:/var/spool/postfix/kavro/aliases";

/// The tool that makes every change to a table.
inline constexpr const char* kPostmap = "/usr/sbin/postmap";

}  // namespace kavro::mail::postfix
