// What the storage tests share: an empty mail root with one mailname, a record of the log, and looks at trees and
// files.
#pragma once

#include <gmock/gmock.h>
#include <pwd.h>

#include <sstream>

#include "storage/maildir_manager.h"
#include "util/support.h"

using kavro::test::textOf;

inline std::string logged;

inline void recordLog(int priority, const char* format, ...) {
    va_list args;
    va_start(args, format);
    const kavro::CString text(vasprintf_safe(format, args));
    va_end(args);
    // There is no configuration file here, which is said at every look-up of the mail root.
    if (priority != KAVRO_LOG_USER_WARNING) {
        logged += std::to_string(priority) + " " + text.get() + "\n";
    }
}

inline std::string describe(const std::filesystem::path& path) {
    struct stat status {};
    EXPECT_EQ(::lstat(path.c_str(), &status), 0) << path;
    const passwd* owner = ::getpwuid(status.st_uid);
    std::ostringstream text;
    text << std::oct << status.st_mode << ' ' << owner->pw_name
         << (status.st_gid == owner->pw_gid ? "" : " wrong group");
    return text.str();
}

/// "name: type-and-mode owner" of a directory and everything below it, in no order.
inline std::vector<std::string> describeTree(const std::filesystem::path& top) {
    std::vector<std::string> lines{": " + describe(top)};
    for (const auto& entry : std::filesystem::recursive_directory_iterator(top)) {
        lines.push_back(entry.path().lexically_relative(top).string() + ": " + describe(entry.path()));
    }
    return lines;
}

/// For commands of the system.
inline void run(const std::string& command) {
    EXPECT_EQ(std::system(command.c_str()), 0) << command;
}

class StorageTest : public ::testing::Test {
protected:
    void SetUp() override {
        run("rm -rf /var/qmail/mailnames /etc/zcp/zcp.conf; mkdir -p /var/qmail/mailnames /var/lock/files /etc/zcp");
        std::filesystem::current_path("/");
        ::umask(022);
        logged.clear();
        kavro_log = recordLog;
        manager.init();
        manager.createDomainRoot("example.com");
        manager.createMailnameHome("example.com", "info");
    }

    const std::filesystem::path root = "/var/qmail/mailnames";
    const std::filesystem::path home = root / "example.com/info";
    const std::filesystem::path maildir = home / "Maildir";
    kavro::mail::MaildirPPManager& manager = kavro::mail::MaildirPPManager::getInstance();
};

/// What `body` reports on standard error.
template <typename Body>
std::string reportOf(Body body) {
    testing::internal::CaptureStderr();
    body();
    return testing::internal::GetCapturedStderr();
}
