// Editing of line files: the new text is written beside the file and renamed over it. The files lie in homes that the
// mail user can write, so neither the file nor the copy may be a link that leads somewhere else.
#include "util/line_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <string_view>

#include "process/descriptors.h"
#include "process/retry.h"
#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/lock_file.h"
#include "util/log.h"

namespace {

using kavro::retryInterrupted;

constexpr mode_t kNewFileMode = 0600;
constexpr mode_t kPermissionBits = 07777;
constexpr std::size_t kBufferSize = 4096;

/// The text of a line without its newline.
std::string_view without_newline(std::string_view line) {
    if (!line.empty() && line.back() == '\n') {
        line.remove_suffix(1);
    }
    return line;
}

bool is_one_of(std::string_view line, const char* const* lines) {
    for (; *lines != nullptr; ++lines) {
        if (without_newline(*lines) == line) {
            return true;
        }
    }
    return false;
}

/// Reports and answers -1, with errno as it was.
int failed(const char* format, const char* path) {
    messlog2(0, 0, format, path, std::strerror(errno));
    return -1;
}

/// One edit: the file, its copy on the way, and what is to be done.
class LineFileEdit {
public:
    LineFileEdit(int directory, const char* path, const char* const* lines, int action)
        : directory_(directory),
          path_(path),
          name_(directory == AT_FDCWD ? path_ : path_.substr(path_.rfind('/') + 1)),
          lines_(lines),
          removing_(action == FILE_STRINGS_REMOVE),
          copyPath_(path_ + ".tmp"),
          copyName_(name_ + ".tmp") {}

    /// 0, or -1, reported; then the file is as it was and no copy is left.
    int run() {
        if (openOriginal() == -1) {
            return -1;
        }
        if (openCopy() == -1 || writeCopy() == -1 || applyOwnerAndMode() == -1 || closeCopy() == -1 ||
            replaceOriginal() == -1) {
            const kavro::ErrnoKeeper keeper;
            removeCopy();
            return -1;
        }
        return 0;
    }

private:
    /// A missing file is no failure when lines are added.
    int openOriginal() {
        kavro::QuietFdOwner fd(retryInterrupted([this] {
            return ::openat(directory_, name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        }));
        if (fd.empty()) {
            if (errno != ENOENT) {
                return failed("Unable to open file %s: %s\n", path_.c_str());
            }
            return removing_ ? failed("file_str: Unable to stat file %s: %s\n", path_.c_str()) : 0;
        }
        if (retryInterrupted([&] { return ::fstat(fd.get(), &status_); }) == -1) {
            return failed("file_str: Unable to stat file %s: %s\n", path_.c_str());
        }
        if (!S_ISREG(status_.st_mode)) {
            errno = S_ISDIR(status_.st_mode) ? EISDIR : EINVAL;
            return failed("Unable to open file %s: %s\n", path_.c_str());
        }
        original_ = kavro::readingStream(fd);
        return original_ == nullptr ? failed("Unable to open file %s: %s\n", path_.c_str()) : 0;
    }

    int openCopy() {
        // What an interrupted edit left, or somebody planted, is never written through.
        removeCopy();
        copy_ = kavro::QuietFdOwner(retryInterrupted([this] {
            return ::openat(directory_, copyName_.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC,
                            kNewFileMode);
        }));
        return copy_.empty() ? failed("Unable to open file %s: %s\n", copyPath_.c_str()) : 0;
    }

    /// Not by a stream of the C library, which drops what it was writing when a signal comes. False with errno.
    bool put(std::string_view text) {
        text_ += text;
        return text_.size() < kBufferSize || flush();
    }

    bool flush() {
        const bool written = kavro::writeAll(copy_.get(), text_.data(), text_.size()) == text_.size();
        text_.clear();
        return written;
    }

    int writeCopy() {
        if (original_ != nullptr && copyLines() == -1) {
            return -1;
        }
        for (const char* const* line = lines_; !removing_ && *line != nullptr; ++line) {
            if (!put(without_newline(*line)) || !put("\n")) {
                messlog2(0, 0, "cannot write a line to %s.tmp", path_.c_str());
                return -1;
            }
        }
        return 0;
    }

    /// Copies the lines that stay. A last line without a newline gets one where another line will follow it.
    int copyLines() {
        char* buffer = nullptr;
        std::size_t size = 0;
        int result = 0;
        bool complete = true;
        for (ssize_t length = 0; result == 0 && (length = ::getline(&buffer, &size, original_.get())) != -1;) {
            const std::string_view line(buffer, static_cast<std::size_t>(length));
            if (removing_ && is_one_of(without_newline(line), lines_)) {
                continue;
            }
            complete = line.back() == '\n';
            if (!put(line)) {
                result = failed("Unable to fputs to file %s: %s\n", copyPath_.c_str());
            }
        }
        const kavro::CString owner(buffer);
        if (result == 0 && std::feof(original_.get()) == 0) {
            return failed("Unable to open file %s: %s\n", path_.c_str());
        }
        if (result == 0 && !removing_ && !complete && !put("\n")) {
            return failed("Unable to fputs to file %s: %s\n", copyPath_.c_str());
        }
        return result;
    }

    /// Before the copy has the file's name.
    int applyOwnerAndMode() {
        if (original_ == nullptr) {
            return 0;
        }
        if (retryInterrupted([&] { return ::fchown(copy_.get(), status_.st_uid, status_.st_gid); }) == -1) {
            return failed("file_str: ERROR: Unable to chown file %s: %s", copyPath_.c_str());
        }
        if (retryInterrupted([&] { return ::fchmod(copy_.get(), status_.st_mode & kPermissionBits); }) == -1) {
            return failed("file_str: ERROR: Unable to chmod file %s: %s", copyPath_.c_str());
        }
        return 0;
    }

    /// Writes that were kept in the buffer fail here at the latest. The copy reaches the disk before its name does: a
    /// system that stops meanwhile has the old text or the new one.
    int closeCopy() {
        if (flush() && retryInterrupted([this] { return ::fsync(copy_.get()); }) == 0 && copy_.close_nothrow() == 0) {
            return 0;
        }
        return failed("Unable to close file %s: %s\n", copyPath_.c_str());
    }

    int replaceOriginal() {
        if (retryInterrupted([this] { return ::renameat(directory_, copyName_.c_str(), directory_, name_.c_str()); }) ==
            0) {
            return 0;
        }
        return failed(removing_ ? "Error while rename file %s: %s\n" : "Unable to rename file %s: %s\n",
                      copyPath_.c_str());
    }

    void removeCopy() const {
        retryInterrupted([this] { return ::unlinkat(directory_, copyName_.c_str(), 0); });
    }

    int directory_;
    std::string path_;
    std::string name_;  ///< of the file in its directory
    const char* const* lines_;
    bool removing_;
    std::string copyPath_;
    std::string copyName_;
    struct stat status_ {};
    kavro::CFile original_;
    kavro::QuietFdOwner copy_;
    std::string text_;  ///< of the copy, not yet written
};

}  // namespace

int file_strings(const char* path, const char* const* lines, int action, int place) {
    return file_strings_at(AT_FDCWD, path, lines, action, place);
}

int file_strings_at(int directory, const char* path, const char* const* lines, int action, int /*place*/) {
    mk_lock_t* lock = mk_lock(path, 1);
    if (is_locked(lock) == 0) {
        messlog2(0, 0, "Error occurred while locking the file %s: %s\n", path, std::strerror(errno));
        rm_lock(lock);
        return 1;
    }
    const int result = LineFileEdit(directory, path, lines, action).run();
    const kavro::ErrnoKeeper keeper;
    // A lock that cannot be closed in order is gone nevertheless; what was done to the file stands.
    if (rm_lock(lock) == -1) {
        messlog2(0, 0, "Error occurred while unlocking the file %s: %s\n", path, std::strerror(errno));
    }
    return result;
}
