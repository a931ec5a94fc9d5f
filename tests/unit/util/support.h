// What the tests of this floor share: a scratch directory, a run in a child process, what the logging hook was given.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

#include "util/log.h"

inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline void writeFile(const std::string& path, const std::string& text) {
    std::ofstream(path, std::ios::binary) << text;
}

/// Permission bits, owner and group.
inline std::string accessOf(const std::string& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    char text[64];
    std::snprintf(text, sizeof text, "%04o %u:%u", status.st_mode & 07777U, status.st_uid, status.st_gid);
    return text;
}

/// A fresh directory for each test.
class ScratchTest : public ::testing::Test {
protected:
    ScratchTest() {
        char name[] = "/tmp/util-test-XXXXXX";
        directory_ = ::mkdtemp(name);
    }
    ~ScratchTest() override { std::filesystem::remove_all(directory_); }

    std::string path(const std::string& name) const { return directory_ + "/" + name; }
    std::ptrdiff_t entryCount() const {
        using Iterator = std::filesystem::directory_iterator;
        return std::distance(Iterator(directory_), Iterator());
    }

private:
    std::string directory_;
};

struct ChildResult {
    int status;  ///< exit status; -1 for a death by signal
    std::string out;
    std::string err;
};

/// Runs `body` in a child process; its answer is the exit status unless it exits by itself.
inline ChildResult runInChild(const std::function<int()>& body) {
    char out[] = "/tmp/out-XXXXXX";
    char err[] = "/tmp/err-XXXXXX";
    const int outFd = ::mkstemp(out);
    const int errFd = ::mkstemp(err);
    std::fflush(nullptr);
    const pid_t child = ::fork();
    if (child == 0) {
        ::dup2(outFd, STDOUT_FILENO);
        ::dup2(errFd, STDERR_FILENO);
        ::_exit(body());
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    ChildResult result{WIFEXITED(status) ? WEXITSTATUS(status) : -1, readFile(out), readFile(err)};
    for (const int fd : {outFd, errFd}) {
        ::close(fd);
    }
    std::filesystem::remove(out);
    std::filesystem::remove(err);
    return result;
}

/// Collects "priority text" of each logged message while it lives.
class LogCapture {
public:
    LogCapture() : before_(kavro_log) {
        messages.clear();
        kavro_log = record;
    }
    ~LogCapture() { kavro_log = before_; }

    inline static std::vector<std::string> messages;

private:
    static void record(int priority, const char* format, ...) {
        char text[2048];
        va_list args;
        va_start(args, format);
        std::vsnprintf(text, sizeof text, format, args);
        va_end(args);
        messages.push_back(std::to_string(priority) + " " + text);
    }

    void (*before_)(int, const char*, ...);
};
