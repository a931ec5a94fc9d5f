// Entry of mxcheckpassword. It logs to the system log alone: standard error and output belong to the server.
#include <fcntl.h>
#include <syslog.h>

#include <cerrno>
#include <exception>
#include <iostream>

#include "auth/secret.h"
#include "mxcheckpassword/command_line.h"
#include "mxcheckpassword/protocols.h"
#include "process/start_state.h"
#include "util/log.h"

int main(int argc, char** argv) {
    try {
        kavro::process::normalizeStartState();
    } catch (const std::exception& error) {
        std::cerr << "mxcheckpassword: " << error.what() << std::endl;
        return mxcheckpassword::kExitTemporary;
    }
    kavro_log_init(nullptr, KAVRO_LOG_INFO, LOG_MAIL, LOG_PID, "mxcheckpassword");
    const kavro::auth::NoCoreDumps meanwhile;  // a login's password is in memory
    return mxcheckpassword::run(argc, argv);
}
