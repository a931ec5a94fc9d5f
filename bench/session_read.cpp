// How long, and with how much memory, a session document is read: by the program's own reader, or by RapidJSON in situ
// with a handler that keeps nothing. The two are run as processes of their own, so that each has its own peak.
//   session_read ours|rapidjson FILE [REPEATS]
// Prints "seconds kibibytes": the fastest of the repeats, reading of the file included, and the process's peak.
#include <rapidjson/reader.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <syslog.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include "session/session_mail_data.h"
#include "util/log.h"

namespace {

using File = std::unique_ptr<std::FILE, decltype(&std::fclose)>;

bool read_ours(std::FILE* file) {
    const bool done = read_session_mail_db_info(file, 0) == 0;
    return done && session_mail_db_info->mails_count != 0;
}

using Text = std::unique_ptr<char, decltype(&std::free)>;

bool read_with_rapidjson(std::FILE* file, Text& text) {
    struct stat status {};
    if (::fstat(fileno(file), &status) == -1) {
        return false;
    }
    const auto size = static_cast<std::size_t>(status.st_size);
    text.reset(static_cast<char*>(std::malloc(size + 1)));
    if (text == nullptr || std::fread(text.get(), 1, size, file) != size) {
        return false;
    }
    text.get()[size] = '\0';
    rapidjson::InsituStringStream stream(text.get());
    rapidjson::BaseReaderHandler<> nothing;
    rapidjson::Reader reader;
    return !reader.Parse<rapidjson::kParseInsituFlag>(stream, nothing).IsError();
}

int usage() {
    std::fputs("Usage: session_read ours|rapidjson FILE [REPEATS]\n", stderr);
    return 2;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3 || argc > 4) {
        return usage();
    }
    const std::string reader = argv[1];
    if (reader != "ours" && reader != "rapidjson") {
        return usage();
    }
    kavro_log_init("stderr", KAVRO_LOG_ERROR, LOG_MAIL >> 3, 0, "session_read");
    const int repeats = argc == 4 ? std::atoi(argv[3]) : 1;
    double fastest = 0;
    for (int repeat = 0; repeat < repeats; ++repeat) {
        const File file(std::fopen(argv[2], "re"), &std::fclose);
        if (file == nullptr) {
            std::perror(argv[2]);
            return 1;
        }
        Text text(nullptr, &std::free);
        const auto start = std::chrono::steady_clock::now();
        const bool done = reader == "ours" ? read_ours(file.get()) : read_with_rapidjson(file.get(), text);
        const std::chrono::duration<double> taken = std::chrono::steady_clock::now() - start;
        free_session_mail_db_info();
        if (!done) {
            std::fprintf(stderr, "session_read: %s was not read\n", argv[2]);
            return 1;
        }
        if (repeat == 0 || taken.count() < fastest) {
            fastest = taken.count();
        }
    }
    rusage usage_of_process{};
    ::getrusage(RUSAGE_SELF, &usage_of_process);
    std::printf("%.6f %ld\n", fastest, usage_of_process.ru_maxrss);
    return 0;
}
