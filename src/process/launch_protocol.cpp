// Both sides of the launch report.
#include "process/launch_protocol.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <exception>
#include <iostream>
#include <stdexcept>
#include <string>
#include <system_error>

#include "process/retry.h"

namespace kavro::process {

namespace {

constexpr std::string_view kTypeTag = "ET: ";
constexpr std::string_view kMessageTag = "EM: ";
constexpr std::string_view kCodeTag = "EC: ";

int toCode(std::string_view text) {
    int code = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), code);
    return error == std::errc() && end == text.data() + text.size() ? code : EINVAL;
}

/// The failure as the records name it.
struct Failure {
    std::string type;
    std::string message;
    int code = 0;

    void add(std::string_view record) {
        const std::string_view text = record.substr(std::min(record.size(), kTypeTag.size()));
        if (record.starts_with(kTypeTag)) {
            type = text;
        } else if (record.starts_with(kMessageTag)) {
            message = text;
        } else if (record.starts_with(kCodeTag)) {
            code = toCode(text);
        } else {
            std::clog << "child output: " << record << std::endl;
        }
    }
};

}  // namespace

void writeException(int fd, const char* type, const char* message) {
    if (fd < 0) {
        return;
    }
    writeAll(fd, kTypeTag.data(), kTypeTag.size());
    writeAll(fd, type, std::strlen(type) + 1);
    writeAll(fd, kMessageTag.data(), kMessageTag.size());
    writeAll(fd, message, std::strlen(message) + 1);
}

void writeErrorCode(int fd, int code) {
    std::array<char, 47> record{};
    const int length = std::snprintf(record.data(), record.size(), "EC: %d", code);
    if (fd >= 0 && length > 0) {
        writeAll(fd, record.data(), static_cast<std::size_t>(length) + 1);
    }
}

void throwReportedFailure(std::string_view report) {
    Failure failure;
    while (!report.empty()) {
        const auto end = report.find('\0');
        failure.add(report.substr(0, end));
        report.remove_prefix(end == std::string_view::npos ? report.size() : end + 1);
    }
    if (failure.type.empty()) {
        return;
    }
    if (failure.message.empty()) {
        failure.message = "an error in child process";
    }
    if (failure.type == "SystemError") {
        throw SystemError(failure.message, failure.code);
    }
    if (failure.type == "std::runtime_error") {
        throw std::runtime_error(failure.message);
    }
    if (failure.type == "std::exception") {
        throw std::exception();
    }
    throw std::bad_exception();
}

}  // namespace kavro::process
