// Why a message is not delivered, as the exit status of sysexits.h that tells the mail server what to do with it.
#pragma once

#include <sysexits.h>

#include <stdexcept>
#include <string>

namespace mxdeliver {

/// EX_TEMPFAIL keeps the message in the queue; every other status returns it to the sender with the text, whose leading
/// enhanced status code (RFC 3463) the mail server takes over.
class DeliveryError : public std::runtime_error {
public:
    DeliveryError(int status, const std::string& text) : std::runtime_error(text), status_(status) {}
    int status() const noexcept { return status_; }

private:
    int status_;
};

/// Whatever an administrator can mend is no reason to return a message.
class Trouble : public DeliveryError {
public:
    explicit Trouble(const std::string& text) : DeliveryError(EX_TEMPFAIL, "4.3.0 " + text) {}
};

}  // namespace mxdeliver
