// Entry of mxadmin: puts the start state right, opens the mail log, runs the command.
#include <syslog.h>

#include "frontend/dispatch.h"
#include "process/start_state.h"
#include "util/log.h"

namespace {

int startAndDispatch(int argc, char** argv) {
    kavro::process::normalizeStartState();
    kavro_log_init(nullptr, KAVRO_LOG_INFO, LOG_MAIL, LOG_PERROR | LOG_PID, "mxadmin");
    return do_main(argc, argv);
}

}  // namespace

int main(int argc, char** argv) {
    return runGuarded(startAndDispatch, argc, argv);
}
