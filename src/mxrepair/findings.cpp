// Lines and JSON objects of findings, and the progress line.
#include "mxrepair/findings.h"

#include <unistd.h>

#include <cstdio>
#include <exception>
#include <iostream>

namespace mxrepair {

namespace {

constexpr unsigned long kProgressInterval = 500;
constexpr unsigned char kFirstPrintable = 0x20;
constexpr unsigned char kDelete = 0x7F;

bool progressShown = false;

/// Names of files may hold anything; a line stays one line, and a terminal is sent no commands.
std::string printable(const std::string& text) {
    std::string result;
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        if (byte < kFirstPrintable || byte == kDelete) {
            char escaped[sizeof "\\x00"];
            std::snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned>(byte));
            result += escaped;
        } else {
            result += c;
        }
    }
    return result;
}

}  // namespace

void Findings::begin() {
    if (json_) {
        writer_.beginArray();
    }
}

void Findings::end() {
    if (json_) {
        writer_.endArray();
        writer_.finish();
    }
}

void Findings::add(const Finding& finding) {
    if (belongs_ && !belongs_(finding.domain)) {
        return;
    }
    const bool mendable = static_cast<bool>(finding.mend);
    std::string failure;
    bool mended = false;
    if (fixing_ && mendable) {
        try {
            finding.mend();
            mended = true;
        } catch (const std::exception& error) {
            failure = error.what();
        }
    }
    any_ = true;
    anyLeft_ = anyLeft_ || !mended;
    Progress::clear();
    if (json_) {
        writer_.beginObject();
        writer_.member("store", finding.store);
        writer_.member("object", finding.object);
        writer_.member("domain", finding.domain);
        writer_.member("problem", finding.problem);
        writer_.member(mendable ? "fix" : "advice", finding.remedy);
        if (fixing_) {
            writer_.key("mended");
            writer_.boolean(mended);
        }
        if (!failure.empty()) {
            writer_.member("failure", failure);
        }
        writer_.endObject();
        return;
    }
    out_ << finding.store << ": " << printable(finding.object) << ": " << finding.problem;
    if (!failure.empty()) {
        out_ << "; not mended: " << printable(failure);
    } else if (!mendable) {
        out_ << "; left as it is: " << printable(finding.remedy);
    } else {
        out_ << (mended ? "; mended: " : "; --fix: ") << finding.remedy;
    }
    out_ << '\n';
}

Progress::Progress(std::string what) : what_(std::move(what)) {
}

Progress::~Progress() {
    clear();
}

void Progress::step() {
    if (++done_ % kProgressInterval == 0 && ::isatty(STDERR_FILENO) == 1) {
        std::cerr << '\r' << what_ << ": " << done_ << std::flush;
        progressShown = true;
    }
}

void Progress::clear() {
    if (progressShown) {
        std::cout.flush();
        std::cerr << "\r\x1b[K" << std::flush;
        progressShown = false;
    }
}

}  // namespace mxrepair
