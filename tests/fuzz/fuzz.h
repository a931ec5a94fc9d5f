// What the fuzz targets share: the input as texts or as a file, quiet logs, and the end of a run that found a fault.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "util/log.h"

inline void ignore_line(int /*priority*/, const char* /*format*/, ...) {
}
inline const bool quiet = (kavro_log = ignore_line) != nullptr;

/// Takes the first line away from the input.
inline std::string take_line(std::string& input) {
    const std::size_t end = std::min(input.find('\n'), input.size());
    std::string line = input.substr(0, end);
    input.erase(0, end + 1);
    return line;
}

/// What a target does with an input; it may change its copy.
void check(std::string& input);

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    std::string input(reinterpret_cast<const char*>(data), size);
    check(input);
    return 0;
}

inline void write_file(const char* path, const std::string& text) {
    std::FILE* file = std::fopen(path, "w");
    std::fwrite(text.data(), 1, text.size(), file);
    std::fclose(file);
}

inline std::string read_file(const char* path) {
    std::string text(1UL << 20, '\0');
    std::FILE* file = std::fopen(path, "r");
    text.resize(std::fread(text.data(), 1, text.size(), file));
    std::fclose(file);
    return text;
}

/// What the target promises.
inline void require(bool holds) {
    if (!holds) {
        std::abort();
    }
}
