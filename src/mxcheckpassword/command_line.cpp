// Arguments and usage; the report of stores that cannot be read.
#include "mxcheckpassword/command_line.h"

#include <algorithm>
#include <exception>
#include <iostream>
#include <string_view>

#include "auth/auth_paths.h"
#include "mxcheckpassword/protocols.h"
#include "util/log.h"

namespace mxcheckpassword {

namespace {

constexpr const char* kUsage =
    "Usage: mxcheckpassword PROGRAM [ARGUMENT...]\n"
    "       mxcheckpassword --authpipe\n"
    "       mxcheckpassword --pam [--no-aliases]\n"
    "       mxcheckpassword --help | --version\n"
    "\n"
    "  PROGRAM       checkpassword for Dovecot: reads login and password from descriptor 3\n"
    "                and runs the program when they are right\n"
    "  --authpipe    answers the requests of Courier's authentication daemon\n"
    "  --pam         called by pam_exec(8) with expose_authtok\n"
    "  --no-aliases  accepts a mailname's own address only\n"
    "  --help        displays this help message\n"
    "  --version     displays the version\n";

int dispatch(int argc, char** argv) {
    const std::string_view option = argc > 1 ? argv[1] : "";
    const std::string_view second = argc > 2 ? argv[2] : "";
    if (!option.empty() && option.front() != '-') {
        return serveCheckpassword(argv + 1);
    }
    if (option == "--authpipe" && argc == 2) {
        return serveAuthpipe();
    }
    if (option == "--pam" && (argc == 2 || (argc == 3 && second == "--no-aliases"))) {
        return servePam(argc == 3);
    }
    if ((option == "--help" || option == "-h") && argc == 2) {
        std::cout << kUsage;
    } else if (option == "--version" && argc == 2) {
        std::cout << "mxcheckpassword " MXADMIN_VERSION "\n";
    } else {
        std::cerr << "Error: wrong options\n" << kUsage;
        return kExitMisused;
    }
    return std::cout.flush() ? kExitAccepted : kExitRefused;
}

}  // namespace

int run(int argc, char** argv) {
    mailAuthDBSelectStyle(kPostfixStyle);
    try {
        return dispatch(argc, argv);
    } catch (const std::exception& error) {
        std::string_view text = error.what();
        text = text.substr(0, std::min(text.size(), text.find_last_not_of('\n') + 1));
        kavro_log(KAVRO_LOG_ERROR, "login not decided: %.*s", static_cast<int>(text.size()), text.data());
        return kExitTemporary;
    }
}

}  // namespace mxcheckpassword
