// An output file that does not outlive its writer: how a table's text source is written, which must exist only while
// postmap reads it.
#pragma once

#include <fstream>
#include <memory>
#include <string>

namespace kavro::mail::postfix {

/// A new file for writing; the destructor closes and unlinks it and keeps errno. Check the stream after construction.
class AutocleanOFStream : public std::ofstream {
public:
    /// What a crash, or somebody else, left under that name is unlinked first, so that no link is written through.
    explicit AutocleanOFStream(const std::string& path);
    AutocleanOFStream(const AutocleanOFStream&) = delete;
    AutocleanOFStream& operator=(const AutocleanOFStream&) = delete;
    ~AutocleanOFStream() override;

private:
    std::string path_;
    std::unique_ptr<char[]> buffer_;
};

}  // namespace kavro::mail::postfix
