// The directories of the mail storage: which names may be in their paths, the way in, and how they are made. All goes
// by descriptor: whatever runs as the mail user may write there, so nothing is opened and no owner or mode is set
// through a name that could lead elsewhere.
#pragma once

#include <sys/types.h>

#include <boost/filesystem.hpp>
#include <string>
#include <string_view>

#include "process/descriptors.h"

namespace kavro::mail {

/// A file-system error built from a short operation text, one or two paths and an errno value.
class FSError : public boost::filesystem::filesystem_error {
public:
    FSError(const std::string& operation, const boost::filesystem::path& path, int error)
        : boost::filesystem::filesystem_error(operation, path, make(error)) {}
    FSError(const std::string& operation, const boost::filesystem::path& first, const boost::filesystem::path& second,
            int error)
        : boost::filesystem::filesystem_error(operation, first, second, make(error)) {}

private:
    static boost::system::error_code make(int error) { return {error, boost::system::system_category()}; }
};

/// Whether a name may become one component of a path: names of addresses and domain aliases reach the storage as they
/// were given. False for an empty name, ".", "..", and a name with "/" or a NUL byte.
bool isPathComponent(std::string_view name) noexcept;

/// What is said of a name that is none.
std::string notPathComponentText(std::string_view name);

/// The name in lower case as the global locale has it. Throws std::runtime_error when it is no path component.
std::string lowerPathComponent(const std::string& name);

/// "<mail root>/<domain>/<mailname>", the names as they are.
std::string mailboxPath(const std::string& domain, const std::string& mailname);

/// The home of a mailname for the plain functions: the domain in ASCII form, the whole path in lower case, the mail
/// root included. Empty, reported, when the names do not give one.
std::string lowerCaseHome(const char* domain, const char* mailname);

/// Owner of the whole tree.
struct TreeOwner {
    uid_t uid;
    gid_t gid;
};

/// Opens a domain root for calls relative to it; empty with errno, ELOOP for a link. The mail user can put
/// links there, so one is followed only when root made it: an administrator may have moved a domain to another volume.
QuietFdOwner openDomainRoot(const boost::filesystem::path& root);

/// Opens any directory of the mail storage in the same way: the mail root is followed wherever it leads, a domain root
/// as openDomainRoot does, and no link below it (ENOTDIR). The mail root's name may be in lower case. Of a relative
/// path no part may be a link; any other absolute path is the caller's own and opened as it is. Empty with errno.
QuietFdOwner openMailDirectory(const std::string& path);

/// Makes the domain root, or gives the one that is there owner and mode again. Throws as createMailnameTree does; one
/// that was made here is gone then.
void createDomainDirectory(const boost::filesystem::path& root, const TreeOwner& owner);

/// Makes the home with the Maildir, its spam folder and the attachment store; what is there already gets owner and mode
/// again. Expects umask 077. Throws Boost's filesystem_error where a directory cannot be made, FSError "chown" or
/// "chmod" with the entry's path where it cannot be given away, also for a symbolic link in its place or, unless root
/// made it, in the domain root's. What was made before the failure stays, but for a directory that could not be given
/// away.
void createMailnameTree(const boost::filesystem::path& home, const TreeOwner& owner);

}  // namespace kavro::mail
