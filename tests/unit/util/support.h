// What the tests of this floor share: a scratch directory, a run in a child process, rows of a
// database, what the logging hook was given.
#pragma once

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <sys/stat.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <functional>
#include <vector>

#include "process/subprocess.h"
#include "util/c_memory.h"
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
    const kavro::CString text(asprintf_safe("%04o %u:%u", status.st_mode & 07777U, status.st_uid, status.st_gid));
    return text.get();
}

/// A fresh directory for each test.
class ScratchTest : public ::testing::Test {
protected:
    ScratchTest() {
        char name[] = "/tmp/util-test-XXXXXX";
        directory = ::mkdtemp(name);
    }
    ~ScratchTest() override { std::filesystem::remove_all(directory); }

    std::string path(const std::string& name) const { return directory + "/" + name; }
    std::ptrdiff_t entryCount() const { return std::distance(std::filesystem::directory_iterator(directory), {}); }

    std::string directory;
};

/// All rows that the statement gives, columns joined by "|", rows by a blank; the error's text when it fails.
inline std::string rowsOf(const char* path, const std::string& statement) {
    sqlite3* database = nullptr;
    sqlite3_open(path, &database);
    std::string rows;
    const auto append = [](void* target, int count, char** values, char**) {
        std::string& all = *static_cast<std::string*>(target);
        for (int i = 0; i < count; ++i) {
            all += (i > 0 ? "|" : all.empty() ? "" : " ") + std::string(values[i] != nullptr ? values[i] : "NULL");
        }
        return 0;
    };
    if (sqlite3_exec(database, statement.c_str(), append, &rows, nullptr) != SQLITE_OK) {
        rows = sqlite3_errmsg(database);
    }
    sqlite3_close(database);
    return rows;
}

using ChildResult = kavro::test::Captured;

/// Runs `body` in a child process; its answer is the exit status unless it exits by itself (-1 for a death by signal).
inline ChildResult runInChild(const std::function<int()>& body) {
    ChildResult run = kavro::test::inSubprocess([&body] { ::_exit(body()); });
    run.status = WIFEXITED(run.status) ? WEXITSTATUS(run.status) : -1;
    return run;
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
        va_list args;
        va_start(args, format);
        const kavro::CString text(vasprintf_safe(format, args));
        va_end(args);
        messages.push_back(std::to_string(priority) + " " + text.get());
    }

    void (*before_)(int, const char*, ...);
};
