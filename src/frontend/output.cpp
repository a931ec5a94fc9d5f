// The check that printed text arrived.
#include "frontend/output.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <iostream>

bool finishOutput(std::ostream& stream) {
    errno = 0;
    stream.flush();
    if (stream) {
        return true;
    }
    std::cerr << "Unable to write the output: " << (errno != 0 ? std::strerror(errno) : "the stream has failed")
              << std::endl;
    return false;
}

void exitAfterOutput(int status, std::ostream& stream) {
    const bool complete = finishOutput(stream);
    std::exit(complete || status != kExitSuccess ? status : kExitFailure);
}
