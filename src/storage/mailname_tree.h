// The directories of the mail storage, made by descriptor: whatever runs as the mail user may write there, so no owner
// or mode is ever set through a name that could lead elsewhere.
#pragma once

#include <sys/types.h>

#include <boost/filesystem.hpp>

#include "process/descriptors.h"

namespace kavro::mail {

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
