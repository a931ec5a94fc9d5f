// Arguments, usage and the report of failures.
#include "mxrepair/command_line.h"

#include <unistd.h>

#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <string_view>

#include "mxrepair/init.h"

namespace mxrepair {

namespace {

constexpr const char* kUsage =
    "Usage: mxrepair --init\n"
    "       mxrepair --help\n"
    "\n"
    "  --init  makes the directories, lookup tables and databases of mxadmin that are missing,\n"
    "          and says what it made. Nothing that exists is changed.\n"
    "  --help  displays this help message\n";

int wrongUsage(const std::string& message) {
    std::cerr << "Error: " << message << '\n' << kUsage << std::flush;
    return 1;
}

void checkOutput(std::ostream& stream) {
    stream.flush();
    if (!stream) {
        throw std::runtime_error("cannot write to standard output");
    }
}

int dispatch(std::string_view option) {
    if (option == "--help" || option == "-h") {
        std::cout << kUsage;
    } else if (option == "--init") {
        if (::geteuid() != 0) {
            throw std::runtime_error("only root may do this");
        }
        makeMissingStores(std::cout);
    } else {
        return wrongUsage("unknown option " + std::string(option));
    }
    checkOutput(std::cout);
    return 0;
}

}  // namespace

int run(int argc, char** argv) {
    if (argc < 2) {
        return wrongUsage("no option specified");
    }
    if (argc > 2) {
        return wrongUsage("more than one option specified");
    }
    try {
        return dispatch(argv[1]);
    } catch (const std::exception& error) {
        std::cout.flush();
        std::cerr << "mxrepair: " << error.what() << std::endl;
        return 1;
    }
}

}  // namespace mxrepair
