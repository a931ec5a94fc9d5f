// Entry of mxrepair. Its log goes to standard error, where the operator reads it.
#include <syslog.h>

#include <exception>
#include <iostream>

#include "mxrepair/command_line.h"
#include "process/start_state.h"
#include "util/log.h"

int main(int argc, char** argv) {
    try {
        kavro::process::normalizeStartState();
    } catch (const std::exception& error) {
        std::cerr << "mxrepair: " << error.what() << std::endl;
        return 1;
    }
    kavro_log_init("stderr", KAVRO_LOG_INFO, LOG_MAIL, 0, "mxrepair");
    return mxrepair::run(argc, argv);
}
