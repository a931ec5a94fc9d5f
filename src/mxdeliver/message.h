// The message as it is delivered: spooled whole before anything is done with it.
#pragma once

#include <cstdint>
#include <string>

#include "util/file_io.h"

namespace mxdeliver {

/// Whom the message is for and from, as the mail server tells.
struct Envelope {
    std::string sender;     ///< empty: the null sender, whose messages must not be answered
    std::string recipient;  ///< the mailname's own address
    std::string localPart;  ///< of the recipient
    std::string domain;     ///< of the recipient
};

/// Takes an address apart. Throws DeliveryError for a recipient without both parts, Trouble for control characters.
Envelope makeEnvelope(const std::string& sender, const std::string& recipient);

/// A copy in a temporary file that has no name, with Return-Path and Delivered-To in front.
class Message {
public:
    /// Reads the descriptor to its end. Throws Trouble when it cannot be read or stored whole, DeliveryError when a
    /// Delivered-To field tells that this recipient had it before.
    Message(int input, const Envelope& envelope);

    /// From its first byte on; every reader moves the same position.
    int rewound() const;
    /// In bytes, the added fields included.
    std::uint64_t size() const noexcept { return size_; }

private:
    kavro::CFile file_;
    std::uint64_t size_ = 0;
};

}  // namespace mxdeliver
