// DomainKeys key files. Every list is worked through to its end; what fails on the way is reported and remembered.
//
// The reporter shows the system error that errno holds, so errno is cleared where no system call has failed.
#include "services/domain_keys.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>
#include <string>
#include <string_view>

#include "process/retry.h"
#include "util/accounts.h"
#include "util/atomic_copy.h"
#include "util/c_memory.h"
#include "util/directory_tree.h"
#include "util/log.h"
#include "util/names.h"

namespace {

using kavro::CString;

constexpr const char* kKeyFile = "default";
/// The group of the mail system's processes that sign.
constexpr const char* kReaders = "popuser";
constexpr mode_t kDirectoryMode = 0755;
constexpr mode_t kKeyMode = 0440;

/// For messages about arguments that may be null.
const char* printable(const char* text) {
    return text == nullptr ? "" : text;
}

/// The domain in lower case, checked to be the name of a directory entry: it becomes part of a path whose tree is
/// created or removed as root. Empty, reported, when it is not.
std::string directory_name(const std::string& domain) {
    const CString lowered(::strdup(domain.c_str()));
    if (lowered == nullptr) {
        messlog2(0, 0, "cannot convert %s to lower case", domain.c_str());
        return {};
    }
    std::string name = ascii_lower(lowered.get());
    if (name.empty() || name == "." || name == ".." || name.find('/') != std::string::npos) {
        errno = 0;
        messlog2(0, 0, "Domain name '%s' cannot be a directory of %s", domain.c_str(), kDomainKeysDirectory);
        return {};
    }
    return name;
}

/// The key file of a lower-case domain. Empty, reported, when the path is too long.
std::string key_path(const std::string& name) {
    std::string path = std::string(kDomainKeysDirectory) + '/' + name + '/' + kKeyFile;
    if (path.size() >= PATH_MAX) {
        errno = 0;
        messlog2(0, 0, "File name '%s' is too long to be stored in %s/%s", kKeyFile, kDomainKeysDirectory,
                 name.c_str());
        return {};
    }
    return path;
}

/// The directory of a lower-case domain. Empty, reported, when the path is too long.
std::string directory_path(const std::string& name) {
    std::string path = std::string(kDomainKeysDirectory) + '/' + name;
    if (path.size() >= PATH_MAX) {
        errno = 0;
        messlog2(0, 0, "Domain name '%s' is too long to be stored in %s", name.c_str(), kDomainKeysDirectory);
        return {};
    }
    return path;
}

/// Links are followed. 0 for an existing regular file, else what is wrong with it, as
/// errno values.
int regular_file_error(const char* path) {
    struct stat status {};
    if (kavro::retryInterrupted([&] { return ::stat(path, &status); }) != 0) {
        return errno;
    }
    if (S_ISREG(status.st_mode)) {
        return 0;
    }
    return S_ISDIR(status.st_mode) ? EISDIR : EINVAL;
}

/// 1 for a key file, 0 where there is none or something else in its place, -1, reported, when it cannot be told.
int has_key(const char* path) {
    switch (const int error = regular_file_error(path)) {
        case 0:
            return 1;
        case ENOENT:
        case ENOTDIR:
        case EISDIR:
        case EINVAL:
            return 0;
        default:
            errno = error;
            messlog2(0, 0, "Unable to examine %s: %s", path, std::strerror(error));
            return -1;
    }
}

/// Calls `apply` with each domain of a list. -1 when one answered other than 0, or when there is none to call it with.
template <typename Apply>
int for_each_domain(const char* domains, const Apply& apply) {
    std::string_view rest = printable(domains);
    bool found = false;
    int result = 0;
    while (!rest.empty()) {
        const std::string_view domain = rest.substr(0, rest.find(','));
        rest.remove_prefix(std::min(rest.size(), domain.size() + 1));
        if (domain.empty()) {
            continue;
        }
        found = true;
        if (apply(std::string(domain)) != 0) {
            result = -1;
        }
    }
    if (!found) {
        errno = 0;
        messlog2(0, 0, "cannot split domains list '%s'\n", printable(domains));
        return -1;
    }
    return result;
}

/// Gives one domain a copy of the source. 0, or -1, reported.
int install_key(const std::string& domain, const char* source_file, gid_t readers) {
    const std::string name = directory_name(domain);
    const std::string directory = name.empty() ? name : directory_path(name);
    if (directory.empty()) {
        return -1;
    }
    if (make_dir_p(directory.c_str(), kDirectoryMode, 0, 0) != 0) {
        messlog2(0, 0, "Unable to create directory %s: %s", directory.c_str(), std::strerror(errno));
        return -1;
    }
    const std::string key = key_path(name);
    if (key.empty()) {
        return -1;
    }
    return try_copy_file_atomic(source_file, key.c_str(), 0, readers, kKeyMode);
}

/// Removes one domain's directory with all that is in it. 0, or -1, reported.
int remove_directory(const std::string& domain) {
    const std::string name = directory_name(domain);
    const std::string directory = name.empty() ? name : directory_path(name);
    if (directory.empty()) {
        return -1;
    }
    // A file in its place is nobody's key and not ours to remove. A link goes, its target stays.
    struct stat status {};
    const bool foreign = kavro::retryInterrupted([&] { return ::lstat(directory.c_str(), &status); }) == 0 &&
                         !S_ISDIR(status.st_mode) && !S_ISLNK(status.st_mode);
    if (foreign) {
        errno = ENOTDIR;
    }
    if (foreign || rm_tree(directory.c_str()) != 0) {
        messlog2(0, 0, "Unable to remove directory %s: %s", directory.c_str(), std::strerror(errno));
        return -1;
    }
    return 0;
}

}  // namespace

char* get_domainkeys_file(const char* domain) {
    if (domain == nullptr) {
        return nullptr;
    }
    const std::string name = directory_name(domain);
    const std::string path = name.empty() ? name : key_path(name);
    return path.empty() ? nullptr : ::strdup(path.c_str());
}

int domainkeys_enabled(const char* domain) {
    const CString path(get_domainkeys_file(domain));
    return path != nullptr && has_key(path.get()) == 1 ? 1 : 0;
}

int set_domain_key(const char* domains, const char* source_file) {
    if (const int error = regular_file_error(source_file); error != 0) {
        errno = error;
        messlog2(0, 0, "No source file '%s': %s", source_file, std::strerror(error));
        return -1;
    }
    // Looked up once, before any domain is touched.
    gid_t readers = 0;
    if (kavro_getgr(kReaders, &readers) != 0) {
        messlog2(0, 0, "Unable to get group %s", kReaders);
        return -1;
    }
    return for_each_domain(domains,
                           [&](const std::string& domain) { return install_key(domain, source_file, readers); });
}

int clone_domain_key(const char* src_domain, const char* dst_domains) {
    const CString source(get_domainkeys_file(src_domain));
    if (source == nullptr) {
        errno = 0;
        messlog2(0, 0, "Cannot get domainkeys key file for %s", printable(src_domain));
        return -1;
    }
    const int found = has_key(source.get());
    return found == 1 ? set_domain_key(dst_domains, source.get()) : found;
}

int remove_domain_key(const char* domains) {
    return for_each_domain(domains, remove_directory);
}
