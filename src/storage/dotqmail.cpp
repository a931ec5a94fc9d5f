// Editing of .qmail delivery files.
#include "storage/dotqmail.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "process/retry.h"
#include "storage/imap_server.h"
#include "util/accounts.h"
#include "util/c_file.h"
#include "util/c_memory.h"
#include "util/errno_keeper.h"
#include "util/idn.h"
#include "util/line_file.h"
#include "util/log.h"

namespace {

constexpr mode_t DOTQMAIL_MODE = 0600;
constexpr const char* NO_DELIVERY_LINE = "| true\n";

int giveToMailUser(const char* path) {
    return file_set_user_mode(path, MAIL_USER, DOTQMAIL_MODE);
}

/// Opens for writing and empties it. Null with errno; a link or anything but a file is refused, because whatever runs
/// as the mail user could have put it there.
kavro::CFile openEmptied(const char* path) {
    const int fd = kavro::retryInterrupted(
        [path] { return ::open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, DOTQMAIL_MODE); });
    if (fd == -1) {
        return nullptr;
    }
    struct stat status;
    const bool known = ::fstat(fd, &status) == 0;
    if (known && !S_ISREG(status.st_mode)) {
        errno = EINVAL;
    } else if (known && ::ftruncate(fd, 0) == 0) {
        if (std::FILE* stream = ::fdopen(fd, "wt")) {
            return kavro::CFile(stream);
        }
    }
    const kavro::ErrnoKeeper keeper;
    ::close(fd);
    return nullptr;
}

/// The address with its domain in ASCII form; null, reported, when it has none.
kavro::CString asciiAddress(const char* address) {
    errno = 0;
    kavro::CString ascii(idn_email_toascii(address));
    if (ascii == nullptr) {
        messlog2(0, 0, "idn_email_toascii(%s) failed: %s", address, idn_strerror(idn_errno));
    }
    return ascii;
}

/// "&", the address and `ending`; null with errno when there is no memory.
kavro::CString forwardLine(const char* asciiAddress, const char* ending) {
    char* line = nullptr;
    return kavro::CString(::asprintf(&line, "&%s%s", asciiAddress, ending) == -1 ? nullptr : line);
}

}  // namespace

int dotqmail_reset(const char* path) {
    kavro::CFile file = openEmptied(path);
    if (file == nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to open '%s': %s", path, std::strerror(errno));
        return -1;
    }
    const bool written = std::fputs(NO_DELIVERY_LINE, file.get()) >= 0 && std::fflush(file.get()) == 0;
    const int writeError = errno;
    if (std::fclose(file.release()) != 0 || !written) {
        if (!written) {
            errno = writeError;
        }
        const kavro::ErrnoKeeper keeper;
        ::unlink(path);
        kavro_log(KAVRO_LOG_ERROR, "Unable to write to '%s': %s", path, std::strerror(keeper.saved()));
        return -1;
    }
    return giveToMailUser(path);
}

int dotqmail_remove_delivery_strings(const char* path) {
    // The first is what earlier versions wrote.
    const char* const deliveries[] = {"./Maildir/", kavro::mail::imapServer(0)->deliveryLine,
                                      kavro::mail::imapServer(1)->deliveryLine, nullptr};
    if (file_strings(path, deliveries, FILE_STRINGS_REMOVE, FILE_STRINGS_AT_END) != 0) {
        kavro_log(KAVRO_LOG_WARNING, "Unable to remove old delivery strings from '%s'", path);
        return -1;
    }
    return 0;
}

int dotqmail_add_delivery(const char* path) {
    const kavro::mail::ImapServer* server = kavro::mail::imapServer(detectImapPop3Server());
    if (server == nullptr || dotqmail_remove_delivery_strings(path) != 0) {
        return -1;
    }
    if (file_str(path, server->deliveryLine, FILE_STRINGS_ADD, FILE_STRINGS_AT_END) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to add delivery string to '%s'", path);
        return -1;
    }
    return giveToMailUser(path);
}

int dotqmail_remove_delivery(const char* path) {
    return dotqmail_remove_delivery_strings(path) != 0 ? -1 : giveToMailUser(path);
}

int dotqmail_add_forward(const char* path, const char* address) {
    const kavro::CString ascii = asciiAddress(address);
    if (ascii == nullptr) {
        return -1;
    }
    const kavro::CString line = forwardLine(ascii.get(), "");
    if (line == nullptr) {
        messlog2(0, 0, "asprintf(\"&%%s\", %s) failed: %s", ascii.get(), std::strerror(errno));
        return -1;
    }
    // A forward that is there already moves to the end; a file that is not there is made below.
    file_str(path, line.get(), FILE_STRINGS_REMOVE, FILE_STRINGS_AT_END);
    if (file_str(path, line.get(), FILE_STRINGS_ADD, FILE_STRINGS_AT_END) != 0) {
        messlog2(0, 0, "Unable to add string to %s file.", path);
        return -1;
    }
    return giveToMailUser(path);
}

int dotqmail_remove_forward(const char* path, const char* address) {
    const kavro::CString ascii = asciiAddress(address);
    if (ascii == nullptr) {
        return -1;
    }
    const kavro::CString line = forwardLine(ascii.get(), "\n");
    if (line == nullptr) {
        // Kept: without "failed"; callers match this text.
        messlog2(0, 0, "asprintf(\"&%%s\", %s): %s", ascii.get(), std::strerror(errno));
        return -1;
    }
    if (file_str(path, line.get(), FILE_STRINGS_REMOVE, FILE_STRINGS_AT_END) != 0) {
        messlog2(0, 0, "Unable to remove string from %s file.", path);
        return -1;
    }
    return giveToMailUser(path);
}
