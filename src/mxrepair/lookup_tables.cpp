// Making of empty hash maps.
#include "mxrepair/lookup_tables.h"

#include <ostream>
#include <stdexcept>
#include <string>

#include "mxrepair/files.h"
#include "postfix/postmap.h"
#include "postfix/tables.h"

namespace mxrepair {

namespace {

/// The file of a hash map, by its full map name.
std::string mapFile(const std::string& table) {
    return table.substr(table.find(':') + 1) + ".db";
}

/// Adds nothing to the map. An addition opens a map without truncating it, and creates it when it is missing: a record
/// that another program adds at the same moment stays.
void addNothing(const char* table) {
    const kavro::mail::postfix::PostmapResult result = kavro::mail::postfix::runPostmap({"-i", table}, {}, {});
    if (!result.succeeded()) {
        throw std::runtime_error(std::string("cannot make the table ") + table + ": " + result.reason());
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
