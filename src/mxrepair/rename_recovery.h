// A --rename-domain or --rename-mailname that was killed between its steps: finished, or, of a domain, taken back.
#pragma once

#include <string>

namespace mxrepair {

/// Does what is left of the rename of a domain, or of a mailname where the names are addresses. Throws
/// std::runtime_error when the storage of both names, or of neither, is there: then these are two, or none.
void finishRename(const std::string& oldName, const std::string& newName);

/// Takes back what was done of it. Records under the new name are the old domain's when they belong to its mailnames,
/// to an alias of one, to its standard addresses or to unknown recipients; others stay, and are told. Throws as
/// finishRename does, and what fails after the first table is taken back again.
void undoRename(const std::string& oldDomain, const std::string& newDomain);

}  // namespace mxrepair
