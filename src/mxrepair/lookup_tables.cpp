// Making of empty hash maps.
#include "mxrepair/lookup_tables.h"

#include <sys/wait.h>

#include <ostream>
#include <stdexcept>
#include <string>

#include "mxrepair/files.h"
#include "postfix/tables.h"
#include "process/pipe.h"
#include "process/process_launch.h"

namespace mxrepair {

namespace {

using kavro::process::Parameters;
using kavro::process::Pipe;
using kavro::process::PipeProcessFlags;

/// The file of a hash map, by its full map name.
std::string mapFile(const std::string& table) {
    return table.substr(table.find(':') + 1) + ".db";
}

/// Adds nothing to the map. An addition opens a map without truncating it, and creates it when it is missing: a record
/// that another program adds at the same moment stays.
void addNothing(const char* table) {
    std::string diagnostics;
    Parameters<PipeProcessFlags> postmap(kavro::mail::postfix::kPostmap, "-i", table);
    postmap.stderrChannel.function = kavro::process::makeStringReceiver(diagnostics);
    Pipe pipe(postmap);
    pipe.flags().stdinChannel.fd = kavro::process::ProcessLaunch::DEV_NULL;
    pipe.run();
    const int status = pipe.statuses().front().status;
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        throw std::runtime_error(std::string("cannot make the table ") + table + ": " +
                                 (diagnostics.empty() ? "unknown error" : diagnostics));
    }
}

}  // namespace

void makeMissingLookupTables(std::ostream& report) {
    using namespace kavro::mail::postfix;
    for (const char* table : {kVirtualDomainsTable, kVmailboxTable, kVirtualTable, kAliasesTable}) {
        if (!fileExists(mapFile(table).c_str())) {
            addNothing(table);
            report << "created table " << table << '\n';
        }
    }
}

}  // namespace mxrepair
