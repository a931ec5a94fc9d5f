// Creation of the directories below a mailname home.
#include "storage/mailname_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/fs_error.h"

namespace kavro::mail {
namespace fs = boost::filesystem;
namespace {

constexpr mode_t PRIVATE_DIRECTORY = 0700;

/// Opens the directory itself, never what a link in its place points to, and sets owner and mode.
FdOwner giveToOwner(int parent, const char* name, const fs::path& path, const TreeOwner& owner) {
    FdOwner directory(
        retryInterrupted([&] { return ::openat(parent, name, O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
    if (directory.empty() || retryInterrupted([&] { return ::fchown(directory.get(), owner.uid, owner.gid); }) == -1) {
        throw FSError("chown", path, errno);
    }
    if (retryInterrupted([&] { return ::fchmod(directory.get(), PRIVATE_DIRECTORY); }) == -1) {
        throw FSError("chmod", path, errno);
    }
    return directory;
}

/// One directory of the tree, and the path that its errors name.
class Directory {
public:
    Directory(const fs::path& home, const TreeOwner& owner)
        : path_(home), owner_(owner), fd_(giveToOwner(AT_FDCWD, home.c_str(), home, owner)) {}

    /// Makes a directory in this one, or takes the one that is there.
    Directory make(const char* name) const {
        fs::path path = path_ / name;
        if (::mkdirat(fd_.get(), name, S_IRWXU | S_IRWXG | S_IRWXO) == -1) {
            const int error = errno;
            struct stat status;
            if (::fstatat(fd_.get(), name, &status, 0) == -1 || !S_ISDIR(status.st_mode)) {
                throw fs::filesystem_error("boost::filesystem::create_directory", path,
                                           {error, boost::system::system_category()});
            }
        }
        FdOwner fd = giveToOwner(fd_.get(), name, path, owner_);
        return {std::move(path), owner_, std::move(fd)};
    }

    /// The three directories that make a directory a Maildir folder.
    void makeMessageDirectories() const {
        for (const char* name : {"tmp", "new", "cur"}) {
            make(name);
        }
    }

private:
    Directory(fs::path&& path, const TreeOwner& owner, FdOwner&& fd)
        : path_(std::move(path)), owner_(owner), fd_(std::move(fd)) {}

    fs::path path_;
    TreeOwner owner_;
    FdOwner fd_;
};

}  // namespace

void createMailnameTree(const fs::path& home, const TreeOwner& owner) {
    fs::create_directories(home);
    const Directory root(home, owner);
    const Directory maildir = root.make("Maildir");
    maildir.makeMessageDirectories();
    maildir.make(".Spam").makeMessageDirectories();
    root.make("@attachments");
}

}  // namespace kavro::mail
