// The home is opened first, without following links; then the file in it is edited line by line, or emptied and
// written.
#include "storage/dotqmail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "process/descriptors.h"
#include "process/retry.h"
#include "process/system_error.h"
#include "storage/imap_server.h"
#include "storage/mail_tree.h"
#include "util/accounts.h"
#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/idn.h"
#include "util/line_file.h"
#include "util/log.h"

namespace {

using kavro::retryInterrupted;

constexpr mode_t kDotqmailMode = 0600;
constexpr std::string_view kNoDeliveryLine = "| true\n";

/// A delivery file, and its home, which is reached without following what the mail user may have linked there.
class DeliveryFile {
public:
    explicit DeliveryFile(const char* path)
        : path_(path),
          name_(path_.substr(path_.rfind('/') + 1)),
          home_(kavro::mail::openMailDirectory(path_.substr(0, path_.size() - name_.size()))),
          openError_(errno) {}

    const char* path() const noexcept { return path_.c_str(); }

    int giveToMailUser() const {
        if (home_.empty()) {
            errno = openError_;
            return -1;
        }
        return file_set_user_mode_at(home_.get(), path(), kMailUser, kDotqmailMode);
    }

    /// As file_strings does it.
    int edit(const char* const* lines, int action) const {
        if (!home_.empty()) {
            return file_strings_at(home_.get(), path(), lines, action, FILE_STRINGS_AT_END);
        }
        errno = openError_;
        const bool missing = errno == ENOENT;
        messlog2(0, 0,
                 missing && action == FILE_STRINGS_REMOVE ? "file_str: Unable to stat file %s: %s\n"
                                                          : "Unable to open file %s: %s\n",
                 path(), std::strerror(errno));
        return -1;
    }
    int edit(const char* line, int action) const {
        const char* const lines[] = {line, nullptr};
        return edit(lines, action);
    }

    /// Opens for writing and empties it. None, with errno; a link or anything but a file is refused, because whatever
    /// runs as the mail user could have put it there.
    kavro::QuietFdOwner openEmptied() const {
        errno = openError_;
        kavro::QuietFdOwner fd(home_.empty() ? -1 : retryInterrupted([this] {
            return ::openat(home_.get(), name_.c_str(),
                            O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, kDotqmailMode);
        }));
        struct stat status;
        if (fd.empty() || ::fstat(fd.get(), &status) == -1) {
            return {};
        }
        if (!S_ISREG(status.st_mode)) {
            errno = EINVAL;
            return {};
        }
        if (retryInterrupted([&] { return ::ftruncate(fd.get(), 0); }) == -1) {
            return {};
        }
        return fd;
    }

    /// Keeps errno.
    void remove() const {
        const kavro::ErrnoKeeper keeper;
        retryInterrupted([this] { return ::unlinkat(home_.get(), name_.c_str(), 0); });
    }

private:
    std::string path_;
    std::string name_;
    kavro::QuietFdOwner home_;
    int openError_;
};

int remove_delivery_strings(const DeliveryFile& file) {
    // The first is what earlier versions wrote.
    const char* const deliveries[] = {"./Maildir/", kavro::mail::imapServer(0)->deliveryLine,
                                      kavro::mail::imapServer(1)->deliveryLine, nullptr};
    if (file.edit(deliveries, FILE_STRINGS_REMOVE) != 0) {
        kavro_log(KAVRO_LOG_WARNING, "Unable to remove old delivery strings from '%s'", file.path());
        return -1;
    }
    return 0;
}

/// The address with its domain in ASCII form; null, reported, when it has none.
kavro::CString ascii_address(const char* address) {
    errno = 0;
    kavro::CString ascii(idn_email_toascii(address));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_email_toascii(%s) failed: %s", address, idn_strerror(idn_errno));
    }
    return ascii;
}

/// "&", the address and `ending`; null with errno when there is no memory.
kavro::CString forward_line(const char* address, const char* ending) {
    char* line = nullptr;
    return kavro::CString(::asprintf(&line, "&%s%s", address, ending) == -1 ? nullptr : line);
}

}  // namespace

int dotqmail_reset(const char* path) {
    const DeliveryFile file(path);
    kavro::QuietFdOwner fd = file.openEmptied();
    if (fd.empty()) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to open '%s': %s", path, std::strerror(errno));
        return -1;
    }
    if (kavro::writeAll(fd.get(), kNoDeliveryLine.data(), kNoDeliveryLine.size()) != kNoDeliveryLine.size() ||
        fd.close_nothrow() == -1) {
        file.remove();
        kavro_log(KAVRO_LOG_ERROR, "Unable to write to '%s': %s", path, std::strerror(errno));
        return -1;
    }
    return file.giveToMailUser();
}

int dotqmail_remove_delivery_strings(const char* path) {
    return remove_delivery_strings(DeliveryFile(path));
}

int dotqmail_add_delivery(const char* path) {
    const kavro::mail::ImapServer* server = kavro::mail::imapServer(detectImapPop3Server());
    if (server == nullptr) {
        return -1;
    }
    const DeliveryFile file(path);
    if (remove_delivery_strings(file) != 0) {
        return -1;
    }
    if (file.edit(server->deliveryLine, FILE_STRINGS_ADD) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to add delivery string to '%s'", path);
        return -1;
    }
    return file.giveToMailUser();
}

int dotqmail_remove_delivery(const char* path) {
    const DeliveryFile file(path);
    return remove_delivery_strings(file) != 0 ? -1 : file.giveToMailUser();
}

int dotqmail_add_forward(const char* path, const char* address) {
    const kavro::CString ascii = ascii_address(address);
    if (ascii == nullptr) {
        return -1;
    }
    const kavro::CString line = forward_line(ascii.get(), "");
    if (line == nullptr) {
        messlog2(0, 0, "asprintf(\"&%%s\", %s) failed: %s", ascii.get(), std::strerror(errno));
        return -1;
    }
    const DeliveryFile file(path);
    // A forward that is there already moves to the end; a file that is not there is made below.
    file.edit(line.get(), FILE_STRINGS_REMOVE);
    if (file.edit(line.get(), FILE_STRINGS_ADD) != 0) {
        messlog2(0, 0, "Unable to add string to %s file.", path);
        return -1;
    }
    return file.giveToMailUser();
}

int dotqmail_remove_forward(const char* path, const char* address) {
    const kavro::CString ascii = ascii_address(address);
    if (ascii == nullptr) {
        return -1;
    }
    const kavro::CString line = forward_line(ascii.get(), "\n");
    if (line == nullptr) {
        // Kept: without "failed"; callers match this text.
        messlog2(0, 0, "asprintf(\"&%%s\", %s): %s", ascii.get(), std::strerror(errno));
        return -1;
    }
    const DeliveryFile file(path);
    if (file.edit(line.get(), FILE_STRINGS_REMOVE) != 0) {
        messlog2(0, 0, "Unable to remove string from %s file.", path);
        return -1;
    }
    return file.giveToMailUser();
}

namespace kavro::mail {
namespace {

/// The plain functions have reported the cause.
void check(int result, const boost::filesystem::path& path) {
    if (result != 0) {
        throw SystemError("unable to modify " + path.string(), errno);
    }
}

}  // namespace

DotQMailManager::DotQMailManager(const boost::filesystem::path& mailnameHome) : path_(mailnameHome / ".qmail") {
}

void DotQMailManager::reset() {
    check(dotqmail_reset(path_.c_str()), path_);
}

void DotQMailManager::enableDelivery() {
    check(dotqmail_add_delivery(path_.c_str()), path_);
}

void DotQMailManager::disableDelivery() {
    check(dotqmail_remove_delivery(path_.c_str()), path_);
}

void DotQMailManager::addRedirect(const std::string& address, Position /*position*/) {
    check(dotqmail_add_forward(path_.c_str(), address.c_str()), path_);
}

void DotQMailManager::removeRedirect(const std::string& address) {
    check(dotqmail_remove_forward(path_.c_str(), address.c_str()), path_);
}

}  // namespace kavro::mail
