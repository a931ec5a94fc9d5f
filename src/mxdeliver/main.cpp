// Entry of mxdeliver: its arguments, and the exit status and text that the mail server gets.
#include <syslog.h>

#include <cstdio>
#include <exception>
#include <iostream>
#include <string>
#include <string_view>

#include "mxdeliver/delivery.h"
#include "mxdeliver/delivery_error.h"
#include "process/start_state.h"
#include "util/log.h"

namespace {

constexpr const char* kUsage =
    "Usage: mxdeliver --sender=<address> --recipient=<address>\n"
    "       mxdeliver --help\n"
    "       mxdeliver --version\n"
    "\n"
    "Delivers the message on standard input as the .qmail file of the recipient's mailname tells.\n"
    "Postfix's pipe(8) runs it as popuser; mxdeliver(8) has the settings.\n";

/// The value behind the option, when the argument is that option.
bool takeValue(std::string_view argument, std::string_view option, std::string& value) {
    if (!argument.starts_with(option)) {
        return false;
    }
    value = argument.substr(option.size());
    return true;
}

int run(int argc, char** argv) {
    kavro::process::normalizeStartState();
    kavro_log_init("stderr", KAVRO_LOG_WARNING, LOG_MAIL, 0, "mxdeliver");
    std::string sender;
    std::string recipient;
    bool senderGiven = false;
    for (int index = 1; index < argc; ++index) {
        const std::string_view argument = argv[index];
        if (argument == "--help" || argument == "-h" || argument == "--version") {
            std::cout << (argument == "--version" ? "mxdeliver " MXADMIN_VERSION "\n" : kUsage);
            return std::cout.flush() ? EX_OK : EX_IOERR;
        }
        if (takeValue(argument, "--sender=", sender)) {
            senderGiven = true;
        } else if (!takeValue(argument, "--recipient=", recipient)) {
            throw mxdeliver::Trouble("unknown option " + std::string(argument));
        }
    }
    if (!senderGiven || recipient.empty()) {
        throw mxdeliver::Trouble("--sender and --recipient are needed");
    }
    mxdeliver::deliver(sender, recipient);
    return EX_OK;
}

}  // namespace

int main(int argc, char** argv) {
    try {
        return run(argc, argv);
    } catch (const mxdeliver::DeliveryError& error) {
        std::fprintf(stderr, "%s\n", error.what());
        return error.status();
    } catch (const std::exception& error) {
        std::fprintf(stderr, "4.3.0 %s\n", error.what());
        return EX_TEMPFAIL;
    }
}
