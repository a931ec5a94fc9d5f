// Changes of records that are collected first: however many there are, each table is written by one run of postmap for
// what is added and one for what is removed.
#pragma once

#include <string_view>

#include "mxrepair/node_state.h"

namespace mxrepair {

/// Kept in the node's temporary database, as tables that statements may fill as well: added(map, key, value) and
/// removed(map, key).
class RecordChanges {
public:
    explicit RecordChanges(NodeState& node);

    void add(const char* map, std::string_view key, std::string_view value);
    void remove(const char* map, std::string_view key);
    /// Writes everything and forgets it: additions first, then removals. Throws PostfixError with postmap's own words.
    void apply();

private:
    NodeState& node_;
};

}  // namespace mxrepair
