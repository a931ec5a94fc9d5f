// Rename plug-ins: a library built for the test, called through the real plug-in directory.
#include "services/rename_plugins.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

// What it does is told by the old name; "third" fails at the third call in a row.
constexpr const char* kPlugin = R"(
#include <csignal>
#include <cstdio>
#include <cstring>
extern "C" int rename_domain(const char* from, const char* to) {
    std::FILE* calls = std::fopen("/tmp/calls", "a");
    std::fprintf(calls, "%s>%s\n", from, to);
    const long length = std::ftell(calls);
    std::fclose(calls);
    std::printf("plug-in\n");
    if (std::strcmp(from, "third") == 0) return length == 3 * 8 ? 3 : 0;
    if (std::strcmp(from, "throw") == 0) throw 1;
    return std::signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 4;
})";

class RenamePlugins : public testing::Test {
protected:
    static void SetUpTestSuite() {
        std::ofstream("/tmp/plugin.cpp") << kPlugin;
        ASSERT_EQ(std::system("g++ -shared -fPIC -o /tmp/plugin.so /tmp/plugin.cpp && "
                              "echo 'int other;' >/tmp/other.c && gcc -shared -fPIC -o /tmp/other.so /tmp/other.c"),
                  0);
    }
    void SetUp() override {
        fs::remove("/tmp/calls");
        fs::remove_all(RENAME_PLUGINS_D);
        fs::create_directories(RENAME_PLUGINS_D);
    }
    static void install(const char* library, const char* name) {
        fs::copy_file(library, fs::path(RENAME_PLUGINS_D) / name);
    }
    /// The answer; `printed` and `reported` get what went to the two streams.
    int run(const char* old_domain) {
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::printf("before ");
        const int result = RenameDomainInServices(old_domain, "b");
        reported = testing::internal::GetCapturedStderr();
        printed = testing::internal::GetCapturedStdout();
        std::ifstream file("/tmp/calls");
        calls.assign(std::istreambuf_iterator<char>(file), {});
        return result;
    }
    std::string printed, reported, calls;
};

}  // namespace

TEST_F(RenamePlugins, EveryPluginIsCalledAndItsOutputAppearsOnce) {
    static const pid_t parent = getpid();
    std::atexit([] {
        if (getpid() != parent) {
            std::ofstream("/tmp/calls", std::ios::app) << "exit handler\n";
        }
    });
    EXPECT_EQ(run("a"), 0);
    install("/tmp/plugin.so", "one");
    install("/tmp/plugin.so", "two");
    fs::create_directory(fs::path(RENAME_PLUGINS_D) / "directory");
    const auto former = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run("a"), 0);
    std::signal(SIGPIPE, former);
    EXPECT_EQ(calls, "a>b\na>b\n");
    EXPECT_EQ(printed, "before plug-in\nplug-in\n");
    EXPECT_EQ(reported, "");
}

TEST_F(RenamePlugins, TheFirstFailureEndsTheRun) {
    for (const char* name : {"1", "2", "3", "4", "5"}) {
        install("/tmp/plugin.so", name);
    }
    EXPECT_EQ(run("third"), 1);
    EXPECT_EQ(calls, "third>b\nthird>b\nthird>b\n");
    EXPECT_THAT(reported,
                testing::MatchesRegex("plugin '/usr/lib/kavro-9.0/domain_rename/.' failed with status '1'\n"));
}

TEST_F(RenamePlugins, AnExceptionOrCrashStaysInTheChild) {
    install("/tmp/plugin.so", "one");
    EXPECT_EQ(run("throw"), 1);
    EXPECT_THAT(reported, HasSubstr("child killed by signal: 6\nplugin '/usr/lib/kavro-9.0/domain_rename/one' failed"));
    EXPECT_EQ(RenameDomain("/tmp/plugin.so", "third", "b"), 0);
}

TEST_F(RenamePlugins, WhatIsNoPluginSucceedsAndAMissingDirectoryFails) {
    std::ofstream(fs::path(RENAME_PLUGINS_D) / "text") << "no library\n";
    EXPECT_EQ(run("a"), 0);
    EXPECT_THAT(reported, testing::StartsWith("cannop load '/usr/lib/kavro-9.0/domain_rename/text' plugin: "));
    fs::remove(fs::path(RENAME_PLUGINS_D) / "text");
    install("/tmp/other.so", "other");
    EXPECT_EQ(run("a"), 0);
    EXPECT_EQ(reported, "");
    fs::remove_all(RENAME_PLUGINS_D);
    for (int kind = 0; kind < 2; ++kind) {
        EXPECT_EQ(run("a"), 1);
        EXPECT_EQ(reported, "plugin directory '/usr/lib/kavro-9.0/domain_rename' not exists or not directory");
        std::ofstream{RENAME_PLUGINS_D};
    }
    fs::remove(RENAME_PLUGINS_D);
}
