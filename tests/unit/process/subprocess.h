// Runs a piece of a test in a child, where it may change descriptors, signals and the working directory.
#pragma once

#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <iostream>
#include <string>

namespace kavro::test {

struct Captured {
    std::string out;
    std::string err;
    int status = -1;  ///< raw wait status
};

/// Reads a file whole and closes it.
inline std::string contentsOf(int fd) {
    std::string text(static_cast<std::size_t>(::lseek(fd, 0, SEEK_END)), '\0');
    text.resize(static_cast<std::size_t>(::pread(fd, text.data(), text.size(), 0)));
    ::close(fd);
    return text;
}

/// What `function` writes to its standard streams, and how it ends: with status 0, or by a signal for an exception.
template <typename Function>
Captured inSubprocess(Function function) {
    const int out = ::memfd_create("out", MFD_CLOEXEC);
    const int err = ::memfd_create("err", MFD_CLOEXEC);
    std::cout.flush();
    std::fflush(nullptr);
    const pid_t pid = ::fork();
    if (pid == 0) {
        ::dup2(out, STDOUT_FILENO);
        ::dup2(err, STDERR_FILENO);
        function();
        std::exit(0);
    }
    int status = -1;
    ::waitpid(pid, &status, 0);
    return {contentsOf(out), contentsOf(err), status};
}

/// Ends the subprocess when a condition does not hold, and says which.
inline void require(bool holds, const char* what) {
    if (!holds) {
        std::cerr << "not so: " << what;
        ::_exit(98);
    }
}

/// The text of what `function` throws, or "nothing thrown".
template <typename Exception, typename Function>
std::string textOf(Function function) {
    try {
        function();
    } catch (const Exception& error) {
        return error.what();
    }
    return "nothing thrown";
}

}  // namespace kavro::test
