// Creation of domain roots and of the directories of a mailname home.
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

constexpr mode_t DOMAIN_ROOT_MODE = 0750;
constexpr mode_t PRIVATE_DIRECTORY = 0700;
constexpr int OPEN_DIRECTORY = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// Sets owner and mode of a directory that was just opened (empty: that failed with errno).
void giveToOwner(const FdOwner& directory, const fs::path& path, const TreeOwner& owner, mode_t mode) {
    if (directory.empty() || retryInterrupted([&] { return ::fchown(directory.get(), owner.uid, owner.gid); }) == -1) {
        throw FSError("chown", path, errno);
    }
    if (retryInterrupted([&] { return ::fchmod(directory.get(), mode); }) == -1) {
        throw FSError("chmod", path, errno);
    }
}

/// One directory of the tree, and the path that its errors name.
class Directory {
public:
    Directory(fs::path&& path, const TreeOwner& owner, FdOwner&& fd)
        : path_(std::move(path)), owner_(owner), fd_(std::move(fd)) {}

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
        FdOwner fd(retryInterrupted([&] { return ::openat(fd_.get(), name, OPEN_DIRECTORY | O_NOFOLLOW); }));
        giveToOwner(fd, path, owner_, PRIVATE_DIRECTORY);
        return {std::move(path), owner_, std::move(fd)};
    }

    /// The three directories that make a directory a Maildir folder.
    void makeMessageDirectories() const {
        for (const char* name : {"tmp", "new", "cur"}) {
            make(name);
        }
    }

private:
    fs::path path_;
    TreeOwner owner_;
    FdOwner fd_;
};

}  // namespace

FdOwner openDomainRoot(const fs::path& root) {
    struct stat status;
    const bool link = ::lstat(root.c_str(), &status) == 0 && S_ISLNK(status.st_mode);
    if (link && status.st_uid != 0) {
        errno = ELOOP;
        return FdOwner();
    }
    const int flags = OPEN_DIRECTORY | (link ? 0 : O_NOFOLLOW);
    return FdOwner(retryInterrupted([&] { return ::open(root.c_str(), flags); }));
}

void createDomainDirectory(const fs::path& root, const TreeOwner& owner) {
    fs::create_directories(root);
    giveToOwner(openDomainRoot(root), root, owner, DOMAIN_ROOT_MODE);
}

void createMailnameTree(const fs::path& home, const TreeOwner& owner) {
    fs::path domainRoot = home.parent_path();
    fs::create_directories(domainRoot);
    FdOwner fd = openDomainRoot(domainRoot);
    if (fd.empty()) {
        throw FSError("chown", domainRoot, errno);
    }
    const Directory domain(std::move(domainRoot), owner, std::move(fd));
    const Directory root = domain.make(home.filename().c_str());
    const Directory maildir = root.make("Maildir");
    maildir.makeMessageDirectories();
    maildir.make(".Spam").makeMessageDirectories();
    root.make("@attachments");
}

}  // namespace kavro::mail
