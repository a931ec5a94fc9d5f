// Domain-rename plug-ins of other services: shared libraries that export
// `int rename_domain(const char* old_domain, const char* new_domain)`, each called in a child process of its own.
#pragma once

inline constexpr const char* kRenamePluginsDirectory = "/usr/lib/kavro-9.0/domain_rename";

/// Calls every regular file of the plug-in directory, in the directory's order. 0, or 1 at the first failure, which
/// ends the run, and when there is no such directory. A plug-in that never returns is waited for.
int RenameDomainInServices(const char* old_domain, const char* new_domain);
/// Calls one plug-in in a child process. 0, or 1 when it answered something else or crashed. SIGCHLD must not be
/// ignored, nor its handler reap this child.
int RenameDomainPluginCaller(const char* path, const char* old_domain, const char* new_domain);
/// Loads and calls one plug-in here; its result, or 0 when it cannot be loaded or has no such function.
int RenameDomain(const char* path, const char* old_domain, const char* new_domain);
