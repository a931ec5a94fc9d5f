// The order of things, and the programs that are run.
#include "mxdeliver/delivery.h"

#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iterator>
#include <utility>
#include <vector>

#include "mxdeliver/delivery_error.h"
#include "mxdeliver/delivery_file.h"
#include "mxdeliver/maildir.h"
#include "mxdeliver/message.h"
#include "process/process_launch.h"
#include "util/accounts.h"
#include "util/c_memory.h"

namespace mxdeliver {

namespace {

constexpr const char* kShell = "/bin/sh";
constexpr const char* kSendmail = "/usr/sbin/sendmail";
constexpr const char* kPath = "/usr/local/bin:/usr/bin:/bin";

/// Of the convention that programs in .qmail files follow.
constexpr int kStopHere = 99;

/// Statuses after which trying again would not help: the convention's own, and those of sysexits.h that speak of the
/// message or the mailbox. Delivery agents end with EX_NOPERM when a mailbox is full.
constexpr int kRefusals[] = {100, 112, EX_DATAERR, EX_NOUSER, EX_NOPERM};

void requireMailUser() {
    uid_t mailUser = 0;
    if (::geteuid() == 0 || ::getuid() == 0) {
        throw Trouble("never run as root");
    }
    if (kavro_getpw(kMailUser, &mailUser, nullptr, nullptr) != 0 || ::geteuid() != mailUser) {
        throw Trouble(std::string("run by another user than ") + kMailUser);
    }
}

void enter(const kavro::FdOwner& home) {
    if (::fchdir(home.get()) != 0) {
        throw Trouble(std::string("cannot enter the mailname's home: ") + std::strerror(errno));
    }
    ::umask(S_IRWXG | S_IRWXO);
}

void setEnvironment(const Envelope& envelope) {
    const std::string path = kavro::CString(::getcwd(nullptr, 0)).get();
    const std::pair<const char*, const std::string&> variables[] = {
        {"SENDER", envelope.sender},
        {"RECIPIENT", envelope.recipient},
        {"DELIVERED_TO", envelope.recipient},
        {"LOCAL", envelope.localPart},
        {"USER", envelope.localPart},
        {"HOST", envelope.domain},
        {"HOME", path},
    };
    for (const auto& [name, value] : variables) {
        ::setenv(name, value.c_str(), 1);
    }
    ::setenv("PATH", kPath, 0);
}

/// The exit code of the program; throws Trouble when it has none.
int run(const std::vector<std::string>& arguments, const Message& message) {
    std::vector<const char*> argv;
    argv.reserve(arguments.size() + 1);
    for (const std::string& argument : arguments) {
        argv.push_back(argument.c_str());
    }
    argv.push_back(nullptr);
    using kavro::process::ProcessLaunch;
    ProcessLaunch launch(argv.data(), argv.front(), nullptr, nullptr, true, false, false, {}, message.rewound(),
                         ProcessLaunch::INHERIT, ProcessLaunch::INHERIT);
    launch.waitExec();
    const int status = launch.waitExit();
    if (!WIFEXITED(status)) {
        throw Trouble(arguments.back() + " was ended by signal " + std::to_string(WTERMSIG(status)));
    }
    return WEXITSTATUS(status);
}

/// Answers whether the lines after it count.
bool runProgram(const std::string& command, const Message& message) {
    const int status = run({kShell, "-c", command}, message);
    if (std::find(std::begin(kRefusals), std::end(kRefusals), status) != std::end(kRefusals)) {
        throw DeliveryError(status == EX_NOUSER ? EX_NOUSER : EX_UNAVAILABLE,
                            "5.2.0 refused by" + command + " with status " + std::to_string(status));
    }
    if (status != 0 && status != kStopHere) {
        throw Trouble(command.substr(command.find_first_not_of(' ')) + " ended with status " + std::to_string(status));
    }
    return status == 0;
}

void forward(const Envelope& envelope, const std::vector<std::string>& addresses, const Message& message) {
    std::vector<std::string> arguments{kSendmail, "-i", "-f", envelope.sender.empty() ? "<>" : envelope.sender, "--"};
    arguments.insert(arguments.end(), addresses.begin(), addresses.end());
    if (const int status = run(arguments, message); status != 0) {
        throw Trouble("sendmail ended with status " + std::to_string(status));
    }
}

}  // namespace

void deliver(const std::string& sender, const std::string& recipient) {
    requireMailUser();
    const Envelope envelope = makeEnvelope(sender, recipient);
    const kavro::FdOwner home = openHome(envelope);
    const std::vector<Instruction> instructions = readDeliveryFile(home);
    const Message message(STDIN_FILENO, envelope);
    enter(home);
    setEnvironment(envelope);
    for (const Instruction& instruction : instructions) {
        if (instruction.kind == Instruction::Maildir) {
            checkMaildir(instruction.text, message);
        }
    }
    std::vector<std::string> addresses;
    for (const Instruction& instruction : instructions) {
        if (instruction.kind == Instruction::Forward) {
            addresses.push_back(instruction.text);
        } else if (instruction.kind == Instruction::Maildir) {
            deliverToMaildir(instruction.text, message);
        } else if (!runProgram(instruction.text, message)) {
            break;
        }
    }
    if (!addresses.empty()) {
        forward(envelope, addresses, message);
    }
}

}  // namespace mxdeliver
