// Writing of message files. Names and steps are those of maildir(5), the quota's are maildirquota(7)'s.
#include "mxdeliver/maildir.h"

#include <fcntl.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <ctime>

#include "mxdeliver/delivery_error.h"
#include "process/descriptors.h"
#include "process/retry.h"
#include "storage/mailbox_quota.h"
#include "storage/maildirsize.h"
#include "util/file_io.h"

namespace mxdeliver {

namespace {

/// Readers give a longer file up.
constexpr off_t kLongestCount = 4096;
/// Header and one line: nothing was added since the mailbox was counted.
constexpr long kFreshLines = 2;
constexpr time_t kFreshSeconds = 900;

[[noreturn]] void fail(const std::string& what) {
    throw Trouble("cannot " + what + ": " + std::strerror(errno));
}

kavro::QuietFdOwner openAt(int directory, const std::string& name, int flags, mode_t mode = 0) {
    return kavro::QuietFdOwner(kavro::retryInterrupted(
        [&] { return ::openat(directory, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC, mode); }));
}

kavro::QuietFdOwner openMaildir(const std::string& directory) {
    kavro::QuietFdOwner maildir(
        kavro::retryInterrupted([&] { return ::open(directory.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC); }));
    if (maildir.empty()) {
        fail("open the Maildir " + directory);
    }
    for (const char* name : {"tmp", "new", "cur"}) {
        if (openAt(maildir.get(), name, O_RDONLY | O_DIRECTORY).empty()) {
            fail("open " + directory + name);
        }
    }
    return maildir;
}

/// What the quota file says of itself.
struct QuotaFile {
    long sizeLimit = 0;
    long countLimit = 0;
    bool fresh = false;    ///< counted a moment ago
    bool tooLong = false;  ///< about to be unreadable
};

/// False when there is no quota.
bool readQuotaFile(const std::string& directory, QuotaFile& quota) {
    const kavro::CFile file(std::fopen((directory + "maildirsize").c_str(), "re"));
    std::array<char, 128> line;
    struct stat found {};
    if (file == nullptr || ::fstat(::fileno(file.get()), &found) != 0 || !S_ISREG(found.st_mode) ||
        std::fgets(line.data(), line.size(), file.get()) == nullptr ||
        std::sscanf(line.data(), "%ldS,%ldC", &quota.sizeLimit, &quota.countLimit) < 1) {
        return false;
    }
    long lines = 1;
    while (lines <= kFreshLines && std::fgets(line.data(), line.size(), file.get()) != nullptr) {
        ++lines;
    }
    quota.fresh = lines <= kFreshLines && std::time(nullptr) - found.st_mtime < kFreshSeconds;
    quota.tooLong = found.st_size > kLongestCount;
    return quota.sizeLimit != 0 || quota.countLimit != 0;
}

bool fits(const std::string& directory, const Message& message) {
    QuotaFile quota;
    if (!readQuotaFile(directory, quota)) {
        return true;
    }
    const auto counted = [&] { return check_maildirpp_overquota(directory.c_str(), message.size(), 1) == 0; };
    if (!quota.tooLong) {
        const bool enough = counted();
        if (enough || quota.fresh) {
            return enough;
        }
    }
    if (write_maildirpp_maildirsize(directory.c_str(), ::geteuid(), ::getegid(),
                                    static_cast<std::uint64_t>(quota.sizeLimit),
                                    static_cast<std::uint64_t>(quota.countLimit)) == 0) {
        throw Trouble("cannot count " + directory);
    }
    return counted();
}

std::string uniqueName(const Message& message) {
    const auto now = std::chrono::system_clock::now().time_since_epoch();
    const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(now);
    const auto rest = std::chrono::duration_cast<std::chrono::microseconds>(now - seconds);
    static unsigned sequence = 0;
    std::array<char, 65> host{};
    if (::gethostname(host.data(), host.size() - 1) != 0) {
        fail("tell the host's name");
    }
    std::string name = std::to_string(seconds.count()) + ".M" + std::to_string(rest.count()) + 'P' +
                       std::to_string(::getpid()) + 'Q' + std::to_string(++sequence) + '.' + host.data();
    // Neither may be in the name of a file of a Maildir.
    std::replace(name.begin(), name.end(), '/', '_');
    std::replace(name.begin(), name.end(), ':', '_');
    return name + ",S=" + std::to_string(message.size());
}

/// A file in "tmp" that is removed unless it was moved on.
class Draft {
public:
    Draft(int maildir, const std::string& name)
        : maildir_(maildir), path_("tmp/" + name), file_(openAt(maildir, path_, O_WRONLY | O_CREAT | O_EXCL, 0600)) {
        if (file_.empty()) {
            fail("make " + path_);
        }
    }
    Draft(const Draft&) = delete;
    Draft& operator=(const Draft&) = delete;
    ~Draft() { ::unlinkat(maildir_, path_.c_str(), 0); }

    void write(const Message& message) {
        const int source = message.rewound();
        for (std::uint64_t left = message.size(); left > 0;) {
            const ssize_t sent =
                kavro::retryInterrupted([&] { return ::sendfile(file_.get(), source, nullptr, left); });
            if (sent <= 0) {
                fail("write " + path_);
            }
            left -= static_cast<std::uint64_t>(sent);
        }
        if (::fsync(file_.get()) != 0 || file_.close_nothrow() != 0) {
            fail("write " + path_);
        }
    }

    void moveTo(const std::string& path) const {
        // A link, unlike a rename, never replaces a message.
        if (::linkat(maildir_, path_.c_str(), maildir_, path.c_str(), 0) != 0) {
            fail("make " + path);
        }
    }

private:
    int maildir_;
    std::string path_;
    kavro::QuietFdOwner file_;
};

/// One more message in the quota's count, where there is one. A line that is missing is found at the next count.
void addToCount(int maildir, const Message& message) {
    const kavro::QuietFdOwner file = openAt(maildir, "maildirsize", O_WRONLY | O_APPEND | O_NONBLOCK);
    if (file.empty()) {
        return;
    }
    std::array<char, 64> line;
    const int length =
        std::snprintf(line.data(), line.size(), "%12llu%12d\n", static_cast<unsigned long long>(message.size()), 1);
    if (::write(file.get(), line.data(), static_cast<std::size_t>(length)) != length) {
        std::fprintf(stderr, "maildirsize: %s\n", std::strerror(errno));
    }
}

}  // namespace

void checkMaildir(const std::string& directory, const Message& message) {
    openMaildir(directory);
    if (!fits(directory, message)) {
        throw DeliveryError(EX_UNAVAILABLE, "5.2.2 the mailbox is full");
    }
}

void deliverToMaildir(const std::string& directory, const Message& message) {
    const kavro::QuietFdOwner maildir = openMaildir(directory);
    const std::string name = uniqueName(message);
    Draft draft(maildir.get(), name);
    draft.write(message);
    const std::string delivered = "new/" + name;
    draft.moveTo(delivered);
    const kavro::QuietFdOwner directoryOfNew = openAt(maildir.get(), "new", O_RDONLY | O_DIRECTORY);
    if (directoryOfNew.empty() || ::fsync(directoryOfNew.get()) != 0) {
        const int error = errno;
        ::unlinkat(maildir.get(), delivered.c_str(), 0);
        errno = error;
        fail("write " + directory);
    }
    addToCount(maildir.get(), message);
}

}  // namespace mxdeliver
