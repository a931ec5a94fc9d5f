// Command lines for parsers under test.
#pragma once

#include <string>
#include <vector>

#include "frontend/program_options_helper.h"

/// Parses these arguments behind a command word.
inline void parseArguments(ProgramOptionsHelper& helper, std::vector<std::string> texts) {
    std::vector<char*> arguments{const_cast<char*>("--command")};
    for (std::string& text : texts) {
        arguments.push_back(text.data());
    }
    arguments.push_back(nullptr);
    helper.parse(static_cast<int>(texts.size()) + 1, arguments.data());
}
