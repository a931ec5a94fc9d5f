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
using testing::HasSubstr;
using testing::StartsWith;

namespace {

const fs::path kDirectory = RENAME_PLUGINS_D;

// What it does is told by the old name: with "3", the third call in a row fails.
constexpr const char* kPlugin = R"(
#include <csignal>
#include <cstdio>
#include <fstream>
extern "C" int rename_domain(const char* from, const char* to) {
    std::ofstream calls("/tmp/calls", std::ios::app);
    calls << from << '>' << to << ' ';
    std::printf("plug-in ");
    if (*from == '3') return calls.tellp() == 3 * 4 ? 3 : 0;
    if (*from == 't') throw 1;
    return std::signal(SIGPIPE, SIG_DFL) == SIG_DFL ? 0 : 4;
})";

class RenamePlugins : public testing::Test {
protected:
    RenamePlugins() {
        std::ofstream("/tmp/plugin.cpp") << kPlugin;
        fs::remove_all(kDirectory);
        fs::create_directories(kDirectory);
    }
    /// Builds a library of the source and installs it under the names.
    static void install(const std::string& source, std::initializer_list<const char*> names) {
        ASSERT_EQ(std::system(("g++ -shared -fPIC -o /tmp/plugin.so -x c++ " + source).c_str()), 0);
        for (const char* name : names) {
            fs::copy_file("/tmp/plugin.so", kDirectory / name);
        }
    }
    /// The result, the calls, and what was written to standard output and to standard error.
    static std::string run(const char* old_domain) {
        fs::remove("/tmp/calls");
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        std::printf("before ");
        const std::string result = std::to_string(RenameDomainInServices(old_domain, "b")) + " ";
        std::ifstream file("/tmp/calls");
        const std::string calls(std::istreambuf_iterator<char>(file), {});
        const std::string printed = testing::internal::GetCapturedStdout();
        return result + calls + printed + testing::internal::GetCapturedStderr();
    }
};

}  // namespace

TEST_F(RenamePlugins, EveryPluginIsCalledUntilOneFailsAndItsOutputAppearsOnce) {
    install("/tmp/plugin.cpp", {"1", "2", "3", "4"});
    fs::create_directory(kDirectory / "directory");
    const auto former = std::signal(SIGPIPE, SIG_IGN);
    EXPECT_EQ(run("a"), "0 a>b a>b a>b a>b before plug-in plug-in plug-in plug-in ");
    std::signal(SIGPIPE, former);
    EXPECT_THAT(run("3"), StartsWith("1 3>b 3>b 3>b before plug-in plug-in plug-in plugin '"));
    EXPECT_THAT(run("throw"), HasSubstr("child killed by signal: 6\nplugin '/usr/lib/kavro-9.0/domain_rename/"));
}

TEST_F(RenamePlugins, WhatIsNoPluginSucceeds) {
    install("/dev/null", {"other"});
    EXPECT_EQ(run("a"), "0 before ");
    std::ofstream(kDirectory / "text") << "no library\n";
    EXPECT_THAT(run("a"), StartsWith("0 before cannop load '/usr/lib/kavro-9.0/domain_rename/text' plugin: "));
    fs::remove_all(kDirectory);
    fs::create_symlink(kDirectory, kDirectory);
    EXPECT_THAT(run("a"),
                StartsWith("1 before cannot examine plugins dir '/usr/lib/kavro-9.0/domain_rename': Too many"));
}
