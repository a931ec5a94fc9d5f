// Creation of domain roots and of the directories of a mailname home.
#include "storage/mailname_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>

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

/// Opens the directory that a link points to when root made the link. The link is held while it is judged and read: the
/// mail user owns the mail root and could put another one in its place. Empty with errno on failure.
FdOwner openBehindLink(const fs::path& link) {
    const FdOwner held(retryInterrupted([&] { return ::open(link.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
    struct stat status;
    if (held.empty() || ::fstat(held.get(), &status) == -1) {
        return FdOwner();
    }
    const bool isLink = S_ISLNK(status.st_mode);
    if (!isLink || status.st_uid != 0) {
        errno = isLink ? ELOOP : ENOTDIR;
        return FdOwner();
    }
    std::array<char, PATH_MAX> target;
    const ssize_t length = ::readlinkat(held.get(), "", target.data(), target.size());
    if (length == -1) {
        return FdOwner();
    }
    const fs::path path =
        fs::absolute(std::string(target.data(), static_cast<std::size_t>(length)), link.parent_path());
    return FdOwner(retryInterrupted([&] { return ::open(path.c_str(), OPEN_DIRECTORY); }));
}

}  // namespace

FdOwner openDomainRoot(const fs::path& root) {
    FdOwner directory(retryInterrupted([&] { return ::open(root.c_str(), OPEN_DIRECTORY | O_NOFOLLOW); }));
    return directory.empty() && (errno == ELOOP || errno == ENOTDIR) ? openBehindLink(root) : std::move(directory);
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
