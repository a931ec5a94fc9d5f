// Owner of a C stream.
#pragma once

#include <cstdio>
#include <memory>

namespace kavro {

/// Closes with fclose(3), whose answer is lost: a stream that was written is released and closed by hand.
struct FileCloser {
    void operator()(std::FILE* stream) const noexcept { std::fclose(stream); }
};

using CFile = std::unique_ptr<std::FILE, FileCloser>;

}  // namespace kavro
