// The command table, dispatch, and the top-level reports.
#include "frontend/dispatch.h"

#include <sys/prctl.h>

#include <algorithm>
#include <exception>
#include <iostream>
#include <iterator>
#include <string>
#include <string_view>

#include "auth/auth_paths.h"
#include "auth/env_password.h"
#include "frontend/command_handlers.h"
#include "frontend/exit_status.h"
#include "frontend/output.h"
#include "frontend/usage.h"
#include "process/end_signals.h"
#include "process/report_exception.h"
#include "util/kavro_util_exception.h"

namespace {

/// One row of the command table. Words are compared byte by byte.
struct Command {
    const char* word;
    CommandHandler handler;
    bool takesPassword = false;  ///< reads the password from the environment itself
};

int printVersion(int /*argc*/, char** /*argv*/) {
    std::cout << "mxadmin " MXADMIN_VERSION "\n";
    exitAfterOutput(kExitSuccess, std::cout);
}

// The command that removes a domain alias is named unlike the others. Kept: callers know it by that name.
constexpr Command kCommands[] = {
    {"--add-mailname", mxadmin_commands::addMailname},
    {"--remove-mailname", mxadmin_commands::removeMailname},
    {"--rename-mailname", mxadmin_commands::renameMailname, true},
    {"--add-mailbox", mxadmin_commands::addMailbox, true},
    {"--remove-mailbox", mxadmin_commands::removeMailbox},
    {"--set-password", mxadmin_commands::setPassword, true},
    {"--add-alias", mxadmin_commands::addAlias},
    {"--remove-alias", mxadmin_commands::removeAlias},
    {"--add-domain", mxadmin_commands::addDomain},
    {"--remove-domain", mxadmin_commands::removeDomain},
    {"--rename-domain", mxadmin_commands::renameDomain},
    {"--turn-on-domain", mxadmin_commands::enableDomain},
    {"--turn-off-domain", mxadmin_commands::disableDomain},
    {"--add-domain-alias", mxadmin_commands::addDomainAlias},
    {"--del-domain-alias", mxadmin_commands::removeDomainAlias},
    {"--rename-domain-alias", mxadmin_commands::renameDomainAlias},
    {"--get-mailbox-size", mxadmin_commands::getMailboxSize},
    {"--set-mailbox-disk-quota", mxadmin_commands::setMailboxDiskQuota},
    {"--set-domain-disk-quota", mxadmin_commands::setDomainDiskQuota},
    {"-h", usageShortCmd},
    {"--help", usageShortCmd},
    {"--help-commands", usageCommandsCmd},
    {"--help-legacy", usageLegacyCmd},
    {"--help-stdin", usageStdinCmd},
    {"--version", printVersion},
};

/// No core is dumped meanwhile: it would hold the password that the environment brought. Programs that are run are not
/// concerned.
class NoCoreDumps {
public:
    NoCoreDumps() noexcept { ::prctl(PR_SET_DUMPABLE, 0); }
    NoCoreDumps(const NoCoreDumps&) = delete;
    NoCoreDumps& operator=(const NoCoreDumps&) = delete;
    ~NoCoreDumps() { ::prctl(PR_SET_DUMPABLE, former_); }

private:
    const int former_ = ::prctl(PR_GET_DUMPABLE);
};

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
    const NoCoreDumps meanwhile;
    if (argc < 2) {
        mxadmin_commands::wrongUsage("no command specified");
    }
    const std::string_view word = argv[1];
    const Command* command =
        std::find_if(std::begin(kCommands), std::end(kCommands), [&](const Command& row) { return word == row.word; });
    if (command == std::end(kCommands)) {
        mxadmin_commands::wrongUsage("invalid command " + std::string(word));
    }
    if (!command->takesPassword) {
        // Read and forgotten: no child of a command that has no use for a password shall inherit it.
        const PasswordAccessor unused;
    }
    mailAuthDBSelectStyle(MAIL_AUTH_POSTFIX_STYLE);
    return command->handler(argc - 1, argv + 1);
}

int runGuarded(CommandHandler entry, int argc, char** argv) {
    const int status = reportingErrors(entry, argc, argv);
    kavro::process::actOnEndSignals();
    return status;
}
