// Measures two sequences of commands against each other in one run: A and B take turns, so that whatever else the
// machine does hits both. A sequence is a file with one command a line, words separated by blanks; "<FILE" and ">FILE"
// redirect, "NAME=VALUE" before the command sets its environment, "!" before it says that it ends with a failure; ''
// is an empty word.
// Commands of a sequence run one after another, started straight from this process: no shell is timed.
//   compare RUNS A-PREPARATION A-SEQUENCE B-PREPARATION B-SEQUENCE
//   compare memory PREPARATION SEQUENCE
// A preparation is a shell command run untimed before each measured run ("-": none). Prints medians in milliseconds and
// A / B; with "memory" the peak resident set, in KiB, of the sequence's first command alone, without its children. A
// command that ends otherwise than expected ends the measurement: half-done work must not look fast.
#include <fcntl.h>
#include <sys/ptrace.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

struct Command {
    std::vector<std::string> words;
    std::vector<std::string> environment;
    std::string input = "/dev/null";
    std::string output = "/dev/null";
    bool fails = false;
};

std::vector<Command> readSequence(const char* path) {
    std::ifstream in(path);
    if (!in) {
        throw std::runtime_error(std::string("cannot read ") + path);
    }
    std::vector<Command> sequence;
    for (std::string line; std::getline(in, line);) {
        Command command;
        std::istringstream words(line);
        for (std::string word; words >> word;) {
            if (word[0] == '<') {
                command.input = word.substr(1);
            } else if (word[0] == '>') {
                command.output = word.substr(1);
            } else if (word == "!") {
                command.fails = true;
            } else if (command.words.empty() && word.find('=') != std::string::npos) {
                command.environment.push_back(word);
            } else {
                command.words.push_back(word == "''" ? std::string() : word);
            }
        }
        if (!command.words.empty()) {
            sequence.push_back(std::move(command));
        }
    }
    return sequence;
}

[[noreturn]] void become(const Command& command, bool traced) {
    const int in = ::open(command.input.c_str(), O_RDONLY);
    const int out = ::open(command.output.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    if (in < 0 || out < 0 || ::dup2(in, 0) < 0 || ::dup2(out, 1) < 0) {
        ::_exit(126);
    }
    ::close(in);
    ::close(out);
    std::vector<char*> argv;
    for (const std::string& word : command.words) {
        argv.push_back(const_cast<char*>(word.c_str()));
    }
    argv.push_back(nullptr);
    for (const std::string& variable : command.environment) {
        ::putenv(const_cast<char*>(variable.c_str()));
    }
    if (traced) {
        ::ptrace(PTRACE_TRACEME, 0, nullptr, nullptr);
    }
    ::execvp(argv[0], argv.data());
    ::_exit(127);
}

void requireExpectedEnd(const Command& command, int status) {
    if (!WIFEXITED(status) || (WEXITSTATUS(status) != 0) != command.fails) {
        throw std::runtime_error("unexpected end: " + command.words[0] + " " +
                                 (command.words.size() > 1 ? command.words[1] : std::string()) + ", status " +
                                 std::to_string(status));
    }
}

void prepare(const char* preparation) {
    if (std::string(preparation) != "-" && std::system(preparation) != 0) {
        throw std::runtime_error(std::string("preparation failed: ") + preparation);
    }
}

double milliseconds(const std::vector<Command>& sequence) {
    const auto begin = std::chrono::steady_clock::now();
    for (const Command& command : sequence) {
        const pid_t child = ::fork();
        if (child == 0) {
            become(command, false);
        }
        int status = 0;
        ::waitpid(child, &status, 0);
        requireExpectedEnd(command, status);
    }
    return std::chrono::duration<double, std::milli>(std::chrono::steady_clock::now() - begin).count();
}

double median(std::vector<double> values) {
    std::sort(values.begin(), values.end());
    return values[values.size() / 2];
}

// The peak is read while the process stands still on its way out; its children are not looked at.
long peakKiB(const Command& command) {
    const pid_t child = ::fork();
    if (child == 0) {
        become(command, true);
    }
    int status = 0;
    long peak = 0;
    ::waitpid(child, &status, 0);
    ::ptrace(PTRACE_SETOPTIONS, child, nullptr, PTRACE_O_TRACEEXIT | PTRACE_O_EXITKILL);
    for (long signal = 0;;) {
        ::ptrace(PTRACE_CONT, child, nullptr, signal);
        ::waitpid(child, &status, 0);
        if (!WIFSTOPPED(status)) {
            break;
        }
        if (status >> 8 == (SIGTRAP | (PTRACE_EVENT_EXIT << 8))) {
            std::ifstream in("/proc/" + std::to_string(child) + "/status");
            for (std::string line; std::getline(in, line);) {
                if (line.compare(0, 6, "VmHWM:") == 0) {
                    peak = std::strtol(line.c_str() + 6, nullptr, 10);
                }
            }
            signal = 0;
        } else {
            signal = WSTOPSIG(status) == SIGTRAP ? 0 : WSTOPSIG(status);
        }
    }
    requireExpectedEnd(command, status);
    return peak;
}

int run(int argc, char** argv) {
    if (argc == 4 && std::string(argv[1]) == "memory") {
        prepare(argv[2]);
        std::printf("%ld\n", peakKiB(readSequence(argv[3]).at(0)));
        return 0;
    }
    if (argc != 6) {
        std::fputs("usage: compare RUNS A-PREPARATION A B-PREPARATION B\n", stderr);
        return 1;
    }
    const auto a = readSequence(argv[3]);
    const auto b = readSequence(argv[5]);
    std::vector<double> timesA;
    std::vector<double> timesB;
    const int runs = std::atoi(argv[1]);
    for (int i = -1; i < runs; ++i) {  // the first turn warms up
        prepare(argv[2]);
        const double timeA = milliseconds(a);
        prepare(argv[4]);
        const double timeB = milliseconds(b);
        if (i >= 0) {
            timesA.push_back(timeA);
            timesB.push_back(timeB);
        }
    }
    std::printf("%.3f %.3f %.3f\n", median(timesA), median(timesB), median(timesA) / median(timesB));
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "compare: %s\n", error.what());
        return 1;
    }
}
