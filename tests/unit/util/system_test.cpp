// Streams, processes, the host's name.
#include <spawn.h>

#include <array>
#include <csignal>

#include "util/c_memory.h"
#include "util/file_io.h"
#include "util/hostname.h"
#include "util/process_search.h"
#include "util/support.h"

namespace {

using System = ScratchTest;

TEST_F(System, StreamIsReadToItsEnd) {
    std::string contents(300000, 'x');
    contents[70000] = '\0';
    writeFile(path("file"), contents);
    const kavro::CFile stream(std::fopen(path("file").c_str(), "r"));
    std::size_t size = 0;
    const kavro::CString text(read_stream_contents(stream.get(), &size));
    EXPECT_TRUE(std::string(text.get(), size) == contents) << size;
    EXPECT_EQ(text.get()[size], '\0');
    const kavro::CFile folder(std::fopen("/tmp", "r"));
    EXPECT_EQ(read_stream_contents(folder.get(), nullptr), nullptr);
    char** array = string_to_mas(string_to_mas(nullptr, "a"), "b");
    EXPECT_EQ(std::string(array[0]) + array[1] + (array[2] == nullptr ? "." : array[2]), "ab.");
    free_array(array);
}

TEST_F(System, ProcessIsFoundByTheExactPathOfItsExecutable) {
    const std::string program = path("sleeper");
    std::filesystem::copy_file("/bin/sleep", program);
    pid_t child = 0;
    char* const arguments[] = {const_cast<char*>("sleeper"), const_cast<char*>("100"), nullptr};
    ASSERT_EQ(::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ), 0);
    EXPECT_EQ(findProcessByPath(program.c_str()), child);
    EXPECT_EQ(findProcessByPath(program.substr(0, program.size() - 1).c_str()), -1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(System, HostNameMustFit) {
    std::array<char, 65> buffer{};
    const std::string name = "sandbox.mail.test";
    ASSERT_EQ(get_hostname_fqdn(buffer.data(), name.size() + 1), 0);
    EXPECT_EQ(buffer.data(), name);
    const LogCapture log;
    EXPECT_EQ(get_hostname_fqdn(buffer.data(), name.size()), -1);
    EXPECT_EQ(LogCapture::messages.at(0), "3 Buffer size is not enough to hold hostname");
}

}  // namespace
