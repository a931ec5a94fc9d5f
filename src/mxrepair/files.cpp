// Small questions about files.
#include "mxrepair/files.h"

#include <sys/stat.h>

#include <cerrno>
#include <string>

#include "process/system_error.h"

namespace mxrepair {

bool fileExists(const char* path) {
    struct stat found {};
    if (::lstat(path, &found) == 0) {
        return true;
    }
    if (errno != ENOENT) {
        kavro::throwSystemError(std::string("cannot examine ") + path, errno);
    }
    return false;
}

}  // namespace mxrepair
