// Owners of C streams and directory streams.
#pragma once

#include <dirent.h>

#include <cstdio>
#include <memory>

namespace kavro {

/// Closes with fclose(3), whose answer is lost: a stream that was written is released and closed by hand.
struct FileCloser {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};
using CFile = std::unique_ptr<std::FILE, FileCloser>;

/// Closes with closedir(3), and the descriptor of the directory with it.
struct DirectoryCloser {
    void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};
using CDirectory = std::unique_ptr<DIR, DirectoryCloser>;

}  // namespace kavro
