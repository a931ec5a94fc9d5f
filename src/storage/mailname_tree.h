// The directories below a mailname home, made by descriptor: whatever runs as the mail user may write there, so no
// owner or mode is ever set through a name that could lead elsewhere.
#pragma once

#include <sys/types.h>

#include <boost/filesystem.hpp>

namespace kavro::mail {

/// Owner of the whole tree.
struct TreeOwner {
    uid_t uid;
    gid_t gid;
};

/// Makes the home with the Maildir, its spam folder and the attachment store; what is there already gets owner and mode
/// again. Expects umask 077. Throws Boost's filesystem_error where a directory cannot be made, FSError "chown" or
/// "chmod" with the entry's path where it cannot be given away, also for a symbolic link in its place. What was made
/// before the failure stays.
void createMailnameTree(const boost::filesystem::path& home, const TreeOwner& owner);

}  // namespace kavro::mail
