// A node made to hold what session documents say.
#pragma once

#include "mxrepair/command_line.h"

namespace mxrepair {

/// --sync --wait-stdin: makes the roots, homes, quotas and records that the documents' domains lack, and removes the
/// records, logins and handlers that a renaming or removal left of them. Mail, homes and delivery files that stand are
/// not touched, nor is anything of other domains, nor what is right already. However many domains there are, each table
/// is written by one run of postmap for what is added and one for what is removed, and each database in one
/// transaction. Says on standard output what it did and which passwords are missing. Throws; nothing was changed unless
/// all documents could be read, and running it again finishes what was cut short.
int runSync(const Options& options);

}  // namespace mxrepair
