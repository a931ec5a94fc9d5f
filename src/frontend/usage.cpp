// The help texts. Kept byte for byte: callers match them.
#include "frontend/usage.h"

#include <algorithm>
#include <cstring>
#include <iomanip>
#include <iostream>

#include "frontend/command_table.h"
#include "frontend/output.h"

namespace mxadmin_commands {

namespace {

/// Blanks between the longest command and its description.
constexpr std::size_t kColumnGap = 2;

constexpr const char* kShortUsage =
    "Usage: mxadmin <COMMAND> <COMMAND OPTIONS...>\n"
    "\t for a complete list of commands use ``mxadmin --help-commands''\n"
    "\t for help on syntax for a particular command use ``mxadmin <COMMAND> --help''\n"
    "\t for legacy complete help use ``mxadmin --help-legacy''\n";

// The list "maillists" is required but not shown. Kept: callers match this text.
constexpr const char* kStdinUsage =
    "Usage: mxadmin <COMMAND> <COMMAND OPTIONS...>[--wait-stdin]\n"
    "\t [--domain-aliases=<alias1,alias2,...>]\n"
    "\t [--mail-addresses=<mail_name1,alias11,alias12,...;mail_name2,alias21,...;...>]\n"
    "\t [--default-domain-quota=<quota>]\n"
    "\n"
    "Some commands will accept additional mail data passed via STDIN. Such commands\n"
    "usually have --wait-stdin option, as well as one or more additional\n"
    "options for passing similar data via command line, such as --domain-aliases, \n"
    "--mail-addresses and --default-domain-quota.\n"
    "\n"
    "Data passed via STDIN should be a valid JSON document with following structure:\n"
    "{\n"
    "\t\"domain\": {\n"
    "\t\t\"name\": \"string\",\n"
    "\t\t\"mbox_quota\": \"int64 default=-1\",\n"
    "\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    "\t\t\"dom_aliases\": [ \"string\" ],\n"
    "\t\t\"mails\": [\n"
    "\t\t\t{\n"
    "\t\t\t\t\"name\": \"string\",\n"
    "\t\t\t\t\"mbox_quota\": \"int64 default=-1\",\n"
    "\t\t\t\t\"mbox_quota_unit\": \"string default='B' enum='B|KB|MB|GB|TB'\",\n"
    "\t\t\t\t\"aliases\": [ \"string\" ]\n"
    "\t\t\t}\n"
    "\t\t]\n"
    "\t}\n"
    "}\n";

std::size_t longestCommand() {
    std::size_t longest = 0;
    for (const Command& row : kCommands) {
        longest = std::max(longest, std::strlen(row.words));
    }
    return longest;
}

}  // namespace

void wrongUsage(const std::string& message) {
    if (!message.empty()) {
        std::cerr << "Error: " << message << std::endl;
    }
    usageShort(kExitFailure, std::cerr);
}

void usageShort(int status, std::ostream& stream) {
    stream << kShortUsage;
    exitAfterOutput(status, stream);
}

void usageCommands(int status, std::ostream& stream) {
    const int width = static_cast<int>(longestCommand() + kColumnGap);
    stream << "Mxadmin commands:\n" << std::left;
    for (const Command& row : kCommands) {
        stream << std::setw(width) << row.words << row.description << '\n';
    }
    exitAfterOutput(status, stream);
}

void usageLegacy(int status, std::ostream& stream) {
    stream << "Usage: mxadmin [OPTIONS]... \n";
    for (const Command& row : kCommands) {
        stream << "  " << row.words << ' ' << row.synopsis << '\n' << "        " << row.description << '\n';
    }
    exitAfterOutput(status, stream);
}

void usageStdin(int status, std::ostream& stream) {
    stream << kStdinUsage;
    exitAfterOutput(status, stream);
}

}  // namespace mxadmin_commands

int usageShortCmd(int /*argc*/, char** /*argv*/) {
    mxadmin_commands::usageShort(kExitSuccess, std::cout);
}
int usageCommandsCmd(int /*argc*/, char** /*argv*/) {
    mxadmin_commands::usageCommands(kExitSuccess, std::cout);
}
int usageLegacyCmd(int /*argc*/, char** /*argv*/) {
    mxadmin_commands::usageLegacy(kExitSuccess, std::cout);
}
int usageStdinCmd(int /*argc*/, char** /*argv*/) {
    mxadmin_commands::usageStdin(kExitSuccess, std::cout);
}
