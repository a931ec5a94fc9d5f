// Dispatch, and the top-level reports.
#include "frontend/dispatch.h"

#include <algorithm>
#include <cctype>
#include <chrono>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "auth/auth_paths.h"
#include "auth/env_password.h"
#include "auth/secret.h"
#include "frontend/command_table.h"
#include "frontend/output.h"
#include "frontend/usage.h"
#include "process/end_signals.h"
#include "process/report_exception.h"
#include "util/log.h"
#include "util/sqlite_connection.h"

namespace {

[[noreturn]] void printVersion() {
    std::cout << "mxadmin " MXADMIN_VERSION "\n";
    exitAfterOutput(kExitSuccess, std::cout);
}

/// One line of the system log for a command that changed something, or tried to: its word, the names that it was given,
/// its status and how long it took. Lists, texts and quotas are left out.
void recordCommand(int argc, char** argv, int status, std::chrono::steady_clock::time_point start) {
    std::string line = argc < 2 ? "" : argv[1];
    for (int i = 2; i < argc; ++i) {
        const std::string_view word = argv[i];
        const std::string_view option = word.substr(0, word.find('='));
        if (!option.starts_with("--") || (!option.ends_with("name") && option != "--alias")) {
            continue;
        }
        line.append(1, ' ').append(word);
        if (option == word && i + 1 < argc) {
            line.append(1, '=').append(argv[++i]);
        }
    }
    // A name that was refused may hold anything, and a line of the log is one line.
    std::replace_if(
        line.begin(), line.end(), [](unsigned char c) { return std::iscntrl(c) != 0; }, '?');
    const auto elapsed =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start);
    line += " status=" + std::to_string(status) + " ms=" + std::to_string(elapsed.count());
    kavro_log_to_system_only(KAVRO_LOG_INFO, line.c_str());
}

int reportingErrors(CommandHandler entry, int argc, char** argv) {
    try {
        return entry(argc, argv);
    } catch (const kavro::KavroUtilException& error) {
        std::cout << error.what() << std::endl;
        std::cerr << error.what() << std::endl;
        return kExitFailure;
    } catch (const std::exception& error) {
        kavro::reportException<std::exception>(error);
        return kExitFailure;
    } catch (...) {
        kavro::reportUntypedException();
        return kExitUntypedFailure;
    }
}

}  // namespace

int do_main(int argc, char** argv) {
    const kavro::auth::NoCoreDumps meanwhile;  // of the password that the environment brings
    const kavro::KeptConnections kept;         // wiped while no core is dumped
    if (argc < 2) {
        mxadmin_commands::wrongUsage("no command specified");
    }
    const std::string_view word = argv[1];
    if (word == "--version") {
        printVersion();
    }
    const Command* command = findCommand(argv[1]);
    if (command == nullptr) {
        mxadmin_commands::wrongUsage("invalid command " + std::string(word));
    }
    if (!command->takesPassword) {
        // Read and forgotten: no child of a command that has no use for a password shall inherit it.
        const PasswordAccessor unused;
    }
    mailAuthDBSelectStyle(kPostfixStyle);
    return command->handler(argc - 1, argv + 1);
}

int runGuarded(CommandHandler entry, int argc, char** argv) {
    const auto start = std::chrono::steady_clock::now();
    const int status = reportingErrors(entry, argc, argv);
    if (kavro::process::endSignalsDeferred()) {
        recordCommand(argc, argv, status, start);
    }
    kavro::process::actOnEndSignals();
    return status;
}
