// The mailname's home and its .qmail file: who may have written it, and what its lines say.
#pragma once

#include <string>
#include <vector>

#include "mxdeliver/message.h"
#include "process/descriptors.h"

namespace mxdeliver {

/// One line.
struct Instruction {
    enum Kind { Program, Maildir, Forward };
    Kind kind;
    std::string text;  ///< a shell command, a directory ending in "/", or an address
};

/// Opens the home of the recipient's mailname below the mail root. No link is followed on the way but one that root
/// made of a domain's directory. Throws DeliveryError (EX_NOUSER) when there is none, Trouble when it is not the mail
/// user's or others may write to it.
kavro::FdOwner openHome(const Envelope& envelope);

/// All lines of the home's .qmail, checked. A missing or empty file means the Maildir of the home; one of comments
/// alone means nothing to do. Throws Trouble for a file that is not the mail user's own regular file, and for a line
/// that cannot be obeyed.
std::vector<Instruction> readDeliveryFile(const kavro::FdOwner& home);

}  // namespace mxdeliver
