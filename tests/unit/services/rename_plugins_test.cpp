// Rename plug-ins: a library built for the test, called through the real plug-in directory.
#include "services/rename_plugins.h"

#include <gmock/gmock.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace fs = std::filesystem;

namespace {

const fs::path kDirectory = RENAME_PLUGINS_D;

// What it does is told by the old name: with "third", the third call in a row fails.
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
    std::string printed, reported, calls;

    static void SetUpTestSuite() {
        std::ofstream("/tmp/plugin.cpp") << kPlugin;
        ASSERT_EQ(std::system("g++ -shared -fPIC -o /tmp/plugin.so /tmp/plugin.cpp && "
                              "g++ -shared -fPIC -o /tmp/other.so -x c++ /dev/null"),
                  0);
    }
    void SetUp() override {
        fs::remove("/tmp/calls");
        fs::remove_all(kDirectory);
        fs::create_directories(kDirectory);
    }
    static void install(std::initializer_list<const char*> names) {
        for (const char* name : names) {
            fs::copy_file("/tmp/plugin.so", kDirectory / name);
        }
    }
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
};

}  // namespace

TEST_F(RenamePlugins, EveryPluginIsCalledAndItsOutputAppearsOnce) {
    static const pid_t parent = getpid();
    std::atexit([] {
        if (getpid() != parent) {
            std::ofstream("/tmp/calls", std::ios::app) << "exit handler\n";
        }
    });
    install({"one", "two"});
    fs::create_directory(kDirectory / "directory");
    const auto former = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run("a"), 0);
    std::signal(SIGPIPE, former);
    EXPECT_EQ(calls + printed + reported, "a>b\na>b\nbefore plug-in\nplug-in\n");
}

TEST_F(RenamePlugins, TheFirstFailureEndsTheRun) {
    install({"1", "2", "3", "4", "5"});
    EXPECT_EQ(run("third"), 1);
    EXPECT_EQ(calls, "third>b\nthird>b\nthird>b\n");
    EXPECT_THAT(reported, testing::MatchesRegex("plugin '.*/domain_rename/.' failed with status '1'\n"));
    EXPECT_EQ(run("throw"), 1);
    EXPECT_THAT(reported, testing::StartsWith("terminate called"));
    EXPECT_THAT(reported, testing::HasSubstr("child killed by signal: 6\nplugin '/usr/lib/kavro-9.0/domain_rename/"));
}

TEST_F(RenamePlugins, WhatIsNoPluginSucceedsAndAMissingDirectoryFails) {
    EXPECT_EQ(run("a"), 0);
    fs::copy_file("/tmp/other.so", kDirectory / "other");
    EXPECT_EQ(run("a"), 0);
    EXPECT_EQ(reported, "");
    std::ofstream(kDirectory / "text") << "no library\n";
    EXPECT_EQ(run("a"), 0);
    EXPECT_THAT(reported, testing::StartsWith("cannop load '/usr/lib/kavro-9.0/domain_rename/text' plugin: "));
    fs::remove_all(kDirectory);
    EXPECT_EQ(run("a"), 1);
    EXPECT_EQ(reported, "plugin directory '/usr/lib/kavro-9.0/domain_rename' not exists or not directory");
}
