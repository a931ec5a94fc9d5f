// Domain-rename plug-ins of other services: shared libraries, each called in a child process of its own.
#pragma once

inline constexpr const char* RENAME_PLUGINS_D = "/usr/lib/kavro-9.0/domain_rename";

/// Calls every plug-in. 0, or 1 at the first failure.
int RenameDomainInServices(const char* old_domain, const char* new_domain);
/// Calls one plug-in in a child process. 0 or 1.
int RenameDomainPluginCaller(const char* path, const char* old_domain, const char* new_domain);
/// Loads and calls one plug-in here; its result, or 0 when it is none.
int RenameDomain(const char* path, const char* old_domain, const char* new_domain);
