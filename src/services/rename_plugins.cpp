// Runs the plug-ins of other services after a domain got a new name.
//
// Some of the messages have no line end of their own. Kept: callers match these texts.
#include "services/rename_plugins.h"

#include <dlfcn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "process/error_stream.h"
#include "process/retry.h"
#include "process/start_state.h"
#include "util/file_io.h"
#include "util/log.h"

namespace {

constexpr int kFirstDiscardedLevel = 4;

/// The small sink of this file's messages: failures reach the operator on standard error, progress reports nobody. Not
/// the logging hook, so nothing of this goes to the system log. Keeps errno.
__attribute__((format(printf, 2, 3))) void logger(int level, const char* format, ...) {
    if (level >= kFirstDiscardedLevel) {
        return;
    }
    const kavro::ErrnoKeeper keeper;
    va_list arguments;
    va_start(arguments, format);
    std::vfprintf(stderr, format, arguments);
    va_end(arguments);
}

struct LibraryCloser {
    void operator()(void* library) const { ::dlclose(library); }
};

/// The type bits of what is there, links followed as the loader does. Nothing, with errno, when it cannot be told.
std::optional<mode_t> type_of(const char* path) {
    struct stat status {};
    if (kavro::retryInterrupted([&] { return ::stat(path, &status); }) == -1) {
        return std::nullopt;
    }
    return status.st_mode & S_IFMT;
}

/// Writes out all that is buffered, so that it is written once and not by the child too.
void flush_all() {
    kavro::uerr.flush();
    std::cout.flush();
    std::cerr.flush();
    std::clog.flush();
    std::fflush(nullptr);
}

/// The child's whole life. An exception must not unwind into the caller's frames, whose guards would undo the rename
/// a second time: noexcept makes it a crash of this child. It ends without the exit handlers, which are those of the
/// parent; what the plug-in printed is written out here.
[[noreturn]] void run_child(const char* path, const char* old_domain, const char* new_domain) noexcept {
    kavro::process::restoreSignalActions();
    const int result = RenameDomain(path, old_domain, new_domain);
    flush_all();
    // The parent sees the low eight bits: a plug-in that answers 256 has succeeded.
    ::_exit(result);
}

/// Calls one plug-in and reports how it went. 0 or 1.
int call_plugin(const std::string& path, const char* old_domain, const char* new_domain) {
    logger(KAVRO_LOG_DEBUG, "call plugin '%s'", path.c_str());
    const int status = RenameDomainPluginCaller(path.c_str(), old_domain, new_domain);
    if (status != 0) {
        logger(KAVRO_LOG_ERROR, "plugin '%s' failed with status '%d'\n", path.c_str(), status);
        return 1;
    }
    logger(KAVRO_LOG_DEBUG, "plugin '%s' succeeded", path.c_str());
    return 0;
}

}  // namespace

int RenameDomainInServices(const char* old_domain, const char* new_domain) {
    const auto type = type_of(kRenamePluginsDirectory);
    if (!type && errno != ENOENT && errno != ENOTDIR) {
        logger(KAVRO_LOG_ERROR, "cannot examine plugins dir '%s': %s\n", kRenamePluginsDirectory, std::strerror(errno));
        return 1;
    }
    if (type != S_IFDIR) {
        logger(KAVRO_LOG_ERROR, "plugin directory '%s' not exists or not directory", kRenamePluginsDirectory);
        return 1;
    }
    const kavro::CDirectory directory = kavro::openDirectory(kRenamePluginsDirectory);
    if (directory == nullptr) {
        logger(KAVRO_LOG_ERROR, "cannot open plugins dir '%s'", kRenamePluginsDirectory);
        return 1;
    }
    while (const dirent* entry = kavro::nextEntry(directory.get())) {
        std::string path(kRenamePluginsDirectory);
        path.append(1, '/').append(entry->d_name);
        if (path.size() >= PATH_MAX) {
            logger(KAVRO_LOG_ERROR, "path '%s/%s' is too long", kRenamePluginsDirectory, entry->d_name);
            return 1;
        }
        // Also passes over entries that are gone by now.
        if (type_of(path.c_str()) == S_IFREG && call_plugin(path, old_domain, new_domain) != 0) {
            return 1;
        }
    }
    if (errno != 0) {
        logger(KAVRO_LOG_ERROR, "cannot read plugins dir '%s': %s\n", kRenamePluginsDirectory, std::strerror(errno));
        return 1;
    }
    return 0;
}

int RenameDomainPluginCaller(const char* path, const char* old_domain, const char* new_domain) {
    flush_all();
    const pid_t child = ::fork();
    if (child == -1) {
        logger(KAVRO_LOG_ERROR, "cannot fork: %s\n", std::strerror(errno));
        return 1;
    }
    if (child == 0) {
        run_child(path, old_domain, new_domain);
    }
    int status = 0;
    if (kavro::retryInterrupted([&] { return ::waitpid(child, &status, 0); }) == -1) {
        logger(KAVRO_LOG_ERROR, "waitpid failed: %s\n", std::strerror(errno));
        return 1;
    }
    if (WIFSIGNALED(status)) {
        logger(KAVRO_LOG_ERROR, "child killed by signal: %d\n", WTERMSIG(status));
        return 1;
    }
    if (WIFEXITED(status)) {
        logger(KAVRO_LOG_DEBUG, "child exited with status: %d\n", WEXITSTATUS(status));
        return WEXITSTATUS(status) != 0 ? 1 : 0;
    }
    logger(KAVRO_LOG_ERROR, "unknown child behavior");
    return 1;
}

int RenameDomain(const char* path, const char* old_domain, const char* new_domain) {
    const std::unique_ptr<void, LibraryCloser> library(::dlopen(path, RTLD_LAZY));
    if (library == nullptr) {
        // Kept: the log is searched for this text, "cannop" included.
        logger(KAVRO_LOG_ERROR, "cannop load '%s' plugin: %s", path, ::dlerror());
        return 0;
    }
    // The function may legally be at address 0, so its absence shows only in the loader's error, cleared before.
    ::dlerror();
    void* const symbol = ::dlsym(library.get(), "rename_domain");
    if (const char* error = ::dlerror()) {
        logger(KAVRO_LOG_INFO, "plugin '%s' doesn't provide required 'rename_domain': %s", path, error);
        return 0;
    }
    const auto rename_domain = reinterpret_cast<int (*)(const char*, const char*)>(symbol);
    return rename_domain(old_domain, new_domain);
}
