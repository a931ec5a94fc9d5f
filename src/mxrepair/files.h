// Small questions about files.
#pragma once

namespace mxrepair {

/// Something has that name, be it a dangling link. Throws SystemError when that cannot be told.
bool fileExists(const char* path);

}  // namespace mxrepair
