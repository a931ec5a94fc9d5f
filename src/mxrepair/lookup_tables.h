// The panel's lookup tables of the mail server.
#pragma once

#include <iosfwd>

namespace mxrepair {

/// Makes each missing hash map, empty; reports each. Throws std::runtime_error with postmap's own words.
void makeMissingLookupTables(std::ostream& report);

}  // namespace mxrepair
