// Spooling, and the loop guard.
#include "mxdeliver/message.h"

#include <strings.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <string_view>

#include "mxdeliver/delivery_error.h"
#include "process/retry.h"
#include "util/c_memory.h"

namespace mxdeliver {

namespace {

constexpr std::string_view kDeliveredTo = "Delivered-To:";

bool isPlainText(const std::string& address) {
    return std::none_of(address.begin(), address.end(), [](unsigned char byte) { return byte < ' ' || byte == 0x7f; });
}

std::string_view trimmed(std::string_view text) {
    const std::size_t first = text.find_first_not_of(" \t\r\n");
    if (first == std::string_view::npos) {
        return {};
    }
    return text.substr(first, text.find_last_not_of(" \t\r\n") - first + 1);
}

bool equalIgnoringCase(std::string_view left, std::string_view right) {
    return left.size() == right.size() && ::strncasecmp(left.data(), right.data(), left.size()) == 0;
}

/// Whether one of the header's Delivered-To fields names the address. Reads from the file's position to the first empty
/// line.
bool wasDeliveredTo(std::FILE* file, const std::string& address) {
    char* line = nullptr;
    std::size_t capacity = 0;
    bool found = false;
    for (ssize_t length; !found && (length = ::getline(&line, &capacity, file)) > 0;) {
        const std::string_view field(line, static_cast<std::size_t>(length));
        if (trimmed(field).empty()) {
            break;
        }
        found = equalIgnoringCase(field.substr(0, kDeliveredTo.size()), kDeliveredTo) &&
                equalIgnoringCase(trimmed(field.substr(kDeliveredTo.size())), address);
    }
    const kavro::CString owner(line);
    return found;
}

[[noreturn]] void fail(const char* step) {
    throw Trouble(std::string("cannot ") + step + " the message: " + std::strerror(errno));
}

}  // namespace

Envelope makeEnvelope(const std::string& sender, const std::string& recipient) {
    if (!isPlainText(sender) || !isPlainText(recipient)) {
        throw Trouble("control characters in an address");
    }
    const std::string::size_type at = recipient.rfind('@');
    if (at == std::string::npos || at == 0 || at + 1 == recipient.size()) {
        throw DeliveryError(EX_NOUSER, "5.1.3 the recipient is no mail address: " + recipient);
    }
    return {sender, recipient, recipient.substr(0, at), recipient.substr(at + 1)};
}

Message::Message(int input, const Envelope& envelope) : file_(std::tmpfile()) {
    if (file_ == nullptr) {
        fail("spool");
    }
    const std::string added =
        "Return-Path: <" + envelope.sender + ">\n" + std::string(kDeliveredTo) + ' ' + envelope.recipient + '\n';
    std::fwrite(added.data(), 1, added.size(), file_.get());
    std::array<char, 65536> piece;
    ssize_t length = 0;
    while ((length = kavro::retryInterrupted([&] { return ::read(input, piece.data(), piece.size()); })) > 0) {
        std::fwrite(piece.data(), 1, static_cast<std::size_t>(length), file_.get());
    }
    if (length == -1) {
        fail("read");
    }
    if (std::fflush(file_.get()) != 0 || std::ferror(file_.get()) != 0) {
        fail("spool");
    }
    size_ = static_cast<std::uint64_t>(::ftello(file_.get()));
    if (std::fseek(file_.get(), static_cast<long>(added.size()), SEEK_SET) != 0) {
        fail("read");
    }
    if (wasDeliveredTo(file_.get(), envelope.recipient)) {
        throw DeliveryError(EX_UNAVAILABLE,
                            "5.4.6 mail loop: this message was delivered to " + envelope.recipient + " before");
    }
}

int Message::rewound() const {
    const int fd = ::fileno(file_.get());
    if (::lseek(fd, 0, SEEK_SET) != 0) {
        fail("read");
    }
    return fd;
}

}  // namespace mxdeliver
