// Entries of a directory, read in large pieces straight from the system: mailboxes hold hundreds of thousands of
// messages, and counting them is mostly reading their names.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace kavro::mail {

/// One pass over a directory, without "." and "..".
class DirectoryListing {
public:
    struct Entry {
        std::string_view name;  ///< followed by a NUL byte; valid until the next call of next()
        unsigned char type;     ///< DT_DIR and its kin of readdir(3); DT_UNKNOWN where the file system does not tell
    };
    enum class Step { Entry, End, Failed };

    /// Opens a directory named relative to another, links on the way not followed; isOpen() tells whether that worked,
    /// errno why not.
    DirectoryListing(int parent, const char* name);
    ~DirectoryListing();
    DirectoryListing(const DirectoryListing&) = delete;
    DirectoryListing& operator=(const DirectoryListing&) = delete;

    bool isOpen() const noexcept { return fd_ != -1; }
    /// For calls relative to this directory.
    int fd() const noexcept { return fd_; }
    /// Failed: with errno.
    Step next(Entry& entry);

private:
    int fd_;
    std::unique_ptr<char[]> buffer_;
    std::size_t filled_ = 0;
    std::size_t position_ = 0;
};

}  // namespace kavro::mail
