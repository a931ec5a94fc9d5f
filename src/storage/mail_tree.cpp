// Paths, descriptors and directories of the mail storage.
#include "storage/mail_tree.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <cstring>
#include <locale>
#include <stdexcept>

#include "process/retry.h"
#include "util/c_memory.h"
#include "util/config.h"
#include "util/idn.h"
#include "util/log.h"
#include "util/names.h"

namespace kavro::mail {
namespace fs = boost::filesystem;
namespace {

constexpr mode_t kDomainRootMode = 0750;
constexpr mode_t kPrivateMode = 0700;
constexpr int kOpenDirectory = O_RDONLY | O_DIRECTORY | O_CLOEXEC;

/// Opens a directory in another one, never through a link in its place. Empty with errno.
QuietFdOwner openBelow(int parent, const char* name) {
    return QuietFdOwner(retryInterrupted([=] { return ::openat(parent, name, kOpenDirectory | O_NOFOLLOW); }));
}

/// Sets owner and mode of a directory that was just opened (empty: that failed with errno).
void giveToOwner(const FdOwner& directory, const fs::path& path, const TreeOwner& owner, mode_t mode) {
    if (directory.empty() || retryInterrupted([&] { return ::fchown(directory.get(), owner.uid, owner.gid); }) == -1) {
        throw FSError("chown", path, errno);
    }
    if (retryInterrupted([&] { return ::fchmod(directory.get(), mode); }) == -1) {
        throw FSError("chmod", path, errno);
    }
}

/// A directory that goes again, when it was made here, unless it is kept: nobody else could use one that has neither
/// its owner nor its mode.
class NewDirectory {
public:
    NewDirectory(int parent, std::string name, bool made) : parent_(parent), name_(std::move(name)), made_(made) {}
    NewDirectory(const NewDirectory&) = delete;
    NewDirectory& operator=(const NewDirectory&) = delete;
    ~NewDirectory() {
        if (made_) {
            retryInterrupted([this] { return ::unlinkat(parent_, name_.c_str(), AT_REMOVEDIR); });
        }
    }
    void keep() noexcept { made_ = false; }

private:
    int parent_;
    std::string name_;
    bool made_;
};

/// Boost's create_directories, repeated while a signal interrupts it: true when the last directory was made.
bool createDirectories(const fs::path& path) {
    for (;;) {
        try {
            return fs::create_directories(path);
        } catch (const fs::filesystem_error& error) {
            if (error.code().value() != EINTR) {
                throw;
            }
        }
    }
}

/// One directory of the tree, and the path that its errors name.
class Directory {
public:
    Directory(fs::path&& path, const TreeOwner& owner, QuietFdOwner&& fd)
        : path_(std::move(path)), owner_(owner), fd_(std::move(fd)) {}

    /// Makes a directory in this one, or takes the one that is there.
    Directory make(const char* name) const {
        fs::path path = path_ / name;
        const bool made =
            retryInterrupted([&] { return ::mkdirat(fd_.get(), name, S_IRWXU | S_IRWXG | S_IRWXO); }) == 0;
        if (!made) {
            const int error = errno;
            struct stat status;
            if (retryInterrupted([&] { return ::fstatat(fd_.get(), name, &status, 0); }) == -1 ||
                !S_ISDIR(status.st_mode)) {
                throw fs::filesystem_error("boost::filesystem::create_directory", path,
                                           {error, boost::system::system_category()});
            }
        }
        NewDirectory directory(fd_.get(), name, made);
        QuietFdOwner fd = openBelow(fd_.get(), name);
        giveToOwner(fd, path, owner_, kPrivateMode);
        directory.keep();
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
    QuietFdOwner fd_;
};

/// Opens the directory that a link points to when root made the link. The link is held while it is judged and read: the
/// mail user owns the mail root and could put another one in its place. Empty with errno on failure.
QuietFdOwner openBehindLink(int parent, const char* link) {
    const QuietFdOwner held(retryInterrupted([=] { return ::openat(parent, link, O_PATH | O_NOFOLLOW | O_CLOEXEC); }));
    struct stat status;
    if (held.empty() || ::fstat(held.get(), &status) == -1) {
        return QuietFdOwner();
    }
    const bool isLink = S_ISLNK(status.st_mode);
    if (!isLink || status.st_uid != 0) {
        errno = isLink ? ELOOP : ENOTDIR;
        return QuietFdOwner();
    }
    std::array<char, PATH_MAX> target;
    const ssize_t length =
        retryInterrupted([&] { return ::readlinkat(held.get(), "", target.data(), target.size() - 1); });
    if (length == -1) {
        return QuietFdOwner();
    }
    target[static_cast<std::size_t>(length)] = '\0';
    return QuietFdOwner(retryInterrupted([&] { return ::openat(parent, target.data(), kOpenDirectory); }));
}

QuietFdOwner openDomainRootAt(int parent, const char* name) {
    QuietFdOwner directory = openBelow(parent, name);
    return directory.empty() && (errno == ELOOP || errno == ENOTDIR) ? openBehindLink(parent, name)
                                                                     : std::move(directory);
}

/// The length of the mail root's name at the beginning of a path below it; 0 for any other path.
std::size_t mailRootLength(const std::string& path) {
    std::string_view root = zcpConfGetDefaultByIndex(kMailRootKey);
    while (root.ends_with('/')) {
        root.remove_suffix(1);
    }
    const bool below = path.size() > root.size() && path[root.size()] == '/' &&
                       ::strncasecmp(path.c_str(), root.data(), root.size()) == 0;
    return below ? root.size() : 0;
}

}  // namespace

bool isPathComponent(std::string_view name) noexcept {
    using namespace std::string_view_literals;
    return !name.empty() && name != "." && name != ".." && name.find_first_of("/\0"sv) == std::string_view::npos;
}

std::string notPathComponentText(std::string_view name) {
    return "'" + std::string(name) + "' cannot be the name of a directory in the mail storage";
}

std::string lowerPathComponent(const std::string& name) {
    if (!isPathComponent(name)) {
        throw std::runtime_error(notPathComponentText(name));
    }
    std::string lower = name;
    const std::locale locale;
    std::use_facet<std::ctype<char>>(locale).tolower(lower.data(), lower.data() + lower.size());
    return lower;
}

std::string mailboxPath(const std::string& domain, const std::string& mailname) {
    return std::string(zcpConfGetDefaultByIndex(kMailRootKey)) + '/' + domain + '/' + mailname;
}

std::string lowerCaseHome(const char* domain, const char* mailname) {
    errno = 0;
    const CString ascii(idn_toascii(domain));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_toascii(%s) failed: %s", domain, idn_strerror(idn_errno));
        return {};
    }
    for (const char* name : {static_cast<const char*>(ascii.get()), mailname}) {
        if (!isPathComponent(name)) {
            messlog2(0, 0, "%s", notPathComponentText(name).c_str());
            return {};
        }
    }
    std::string home = mailboxPath(ascii.get(), mailname);
    ascii_lower(home.data());
    return home;
}

QuietFdOwner openDomainRoot(const fs::path& root) {
    const QuietFdOwner parent(retryInterrupted([&] { return ::open(root.parent_path().c_str(), kOpenDirectory); }));
    return parent.empty() ? QuietFdOwner() : openDomainRootAt(parent.get(), root.filename().c_str());
}

QuietFdOwner openMailDirectory(const std::string& path) {
    const std::size_t rootLength = mailRootLength(path);
    const bool foreign = path.starts_with('/') && rootLength == 0;
    const std::string start = foreign ? path : rootLength > 0 ? path.substr(0, rootLength) : ".";
    QuietFdOwner directory(retryInterrupted([&] { return ::open(start.c_str(), kOpenDirectory); }));
    if (foreign) {
        return directory;
    }
    bool isDomain = rootLength > 0;
    for (const fs::path& part : fs::path(path.substr(rootLength)).relative_path()) {
        if (directory.empty() || part.empty() || part == ".") {
            continue;
        }
        directory =
            isDomain ? openDomainRootAt(directory.get(), part.c_str()) : openBelow(directory.get(), part.c_str());
        isDomain = false;
    }
    return directory;
}

void createDomainDirectory(const fs::path& root, const TreeOwner& owner) {
    NewDirectory made(AT_FDCWD, root.string(), createDirectories(root));
    giveToOwner(openDomainRoot(root), root, owner, kDomainRootMode);
    made.keep();
}

void createMailnameTree(const fs::path& home, const TreeOwner& owner) {
    fs::path domainRoot = home.parent_path();
    NewDirectory madeDomain(AT_FDCWD, domainRoot.string(), createDirectories(domainRoot));
    QuietFdOwner fd = openDomainRoot(domainRoot);
    if (fd.empty()) {
        throw FSError("chown", domainRoot, errno);
    }
    const Directory domain(std::move(domainRoot), owner, std::move(fd));
    const Directory root = domain.make(home.filename().c_str());
    madeDomain.keep();
    const Directory maildir = root.make("Maildir");
    maildir.makeMessageDirectories();
    maildir.make(".Spam").makeMessageDirectories();
    root.make("@attachments");
}

}  // namespace kavro::mail
