// Streams, processes, the host's name.
#include <fcntl.h>
#include <spawn.h>

#include <array>
#include <csignal>
#include <thread>

#include "util/c_file.h"
#include "util/c_memory.h"
#include "util/hostname.h"
#include "util/process_search.h"
#include "util/stream_reader.h"
#include "util/support.h"

namespace {

using System = ScratchTest;

TEST_F(System, StreamIsReadToItsEndInPiecesOfAnySize) {
    std::array<int, 2> ends{};
    ASSERT_EQ(::pipe(ends.data()), 0);
    // A descriptor that does not block has nothing to give most of the time.
    ::fcntl(ends[0], F_SETFL, O_NONBLOCK);
    std::string sent;
    std::thread writer([&] {
        for (std::size_t i = 0; i < 40; ++i) {
            const std::string piece = std::string(i * i * 5, static_cast<char>('a' + i % 26)) + '\0';
            sent += piece;
            EXPECT_EQ(::write(ends[1], piece.data(), piece.size()), static_cast<ssize_t>(piece.size()));
            ::usleep(500);
        }
        ::close(ends[1]);
    });
    const kavro::CFile stream(::fdopen(ends[0], "r"));
    std::size_t size = 0;
    const kavro::CString text(read_stream_contents(stream.get(), &size));
    writer.join();
    EXPECT_EQ(std::string(text.get(), size), sent);
    EXPECT_EQ(text.get()[size], '\0');
    const kavro::CFile directory(std::fopen("/tmp", "r"));
    EXPECT_EQ(read_stream_contents(directory.get(), nullptr), nullptr);
}

TEST_F(System, ProcessIsFoundByTheExactPathOfItsExecutable) {
    const std::string program = path("sleeper");
    std::filesystem::copy_file("/bin/sleep", program);
    EXPECT_EQ(findProcessByPath(program.c_str()), -1);
    pid_t child = 0;
    char* const arguments[] = {const_cast<char*>("sleeper"), const_cast<char*>("100"), nullptr};
    ASSERT_EQ(::posix_spawn(&child, program.c_str(), nullptr, nullptr, arguments, environ), 0);
    EXPECT_EQ(findProcessByPath(program.c_str()), child);
    EXPECT_EQ(findProcessByPath(program.substr(0, program.size() - 1).c_str()), -1);
    EXPECT_EQ(findProcessByPath((program + "s").c_str()), -1);
    ::kill(child, SIGKILL);
    ::waitpid(child, nullptr, 0);
}

TEST_F(System, HostNameMustFitAndHaveADomain) {
    std::array<char, 65> buffer{};
    const std::string name = "sandbox.mail.test";
    ASSERT_EQ(get_hostname_fqdn(buffer.data(), name.size() + 1), 0);
    EXPECT_EQ(buffer.data(), name);
    const LogCapture log;
    EXPECT_EQ(get_hostname_fqdn(buffer.data(), name.size()), -1);
    const std::string hosts = readFile("/etc/hosts");
    writeFile("/etc/hosts", "127.0.0.1 sandbox localhost\n");
    EXPECT_EQ(get_hostname_fqdn(buffer.data(), buffer.size()), -1);
    writeFile("/etc/hosts", hosts);
    EXPECT_EQ(LogCapture::messages.at(0), "3 Buffer size is not enough to hold hostname");
    EXPECT_EQ(LogCapture::messages.at(1), "3 Canonname is not correct fqdn");
}

}  // namespace
