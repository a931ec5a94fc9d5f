// --check against session documents.
#pragma once

#include "mxrepair/check.h"
#include "mxrepair/documents.h"

namespace mxrepair {

/// Findings of the documents' domains. The node must be loaded and settled.
void checkDocuments(CheckContext& context);

/// The quota limit that a home's quota file should show, attachments taken off, and the one it shows (-1: unusable).
long expectedLimit(const std::string& domain, const std::string& name, long quota);
long shownLimit(const std::string& domain, const std::string& name);
/// Whether the home's delivery file delivers into the mailbox.
bool delivers(const std::string& domain, const std::string& name);

}  // namespace mxrepair
