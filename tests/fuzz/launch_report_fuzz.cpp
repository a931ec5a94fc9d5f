// Any bytes on a child's control pipe: nothing, or an exception with a text.
#include <iostream>
#include <typeinfo>

#include "fuzz.h"
#include "process/launch_protocol.h"

void check(std::string& report) {
    std::clog.setstate(std::ios::failbit);
    bool thrown = false;
    try {
        kavro::process::throwReportedFailure(report);
    } catch (const std::exception& failure) {
        thrown = failure.what() != nullptr;
    }
    const bool tagged = report.rfind("EC: ", 0) == 0 || report.find("\0EC: ", 0, 5) != std::string::npos;
    const bool typed = report.rfind("ET: ", 0) == 0 || report.find("\0ET: ", 0, 5) != std::string::npos;
    require(!thrown || tagged || typed);
}
