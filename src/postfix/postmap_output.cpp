// Judgement of postmap's diagnostics, by the shape that all Postfix tools give them: "program: severity: message".
#include <algorithm>
#include <string_view>

#include "postfix/database_helper.h"

namespace kavro::mail::postfix {

namespace {

/// The text from the severity word on; empty for a line of another shape.
std::string_view severityOf(std::string_view line) {
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos) {
        return {};
    }
    const std::size_t word = line.find_first_not_of(' ', colon + 1);
    if (word == std::string_view::npos || word + 1 == line.size() ||
        line.find(':', word + 1) == std::string_view::npos) {
        return {};
    }
    return line.substr(word);
}

bool isError(std::string_view line, bool strict) {
    const std::string_view severity = severityOf(line);
    if (severity.empty()) {
        return false;
    }
    if (severity.starts_with("panic:") || severity.starts_with("fatal:") || severity.starts_with("error:")) {
        return true;
    }
    return strict && !severity.starts_with("warning:");
}

}  // namespace

bool DatabaseHelper::checkOutput(const std::string& text, bool strict) {
    std::string_view rest = text;
    while (!rest.empty()) {
        const std::size_t length = std::min(rest.find('\n'), rest.size());
        if (isError(rest.substr(0, length), strict)) {
            return false;
        }
        rest.remove_prefix(std::min(length + 1, rest.size()));
    }
    return true;
}

}  // namespace kavro::mail::postfix
