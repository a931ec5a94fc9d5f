// Delivery into a Maildir with a Maildir++ quota.
#pragma once

#include <string>

#include "mxdeliver/message.h"

namespace mxdeliver {

/// Nothing is written. Throws Trouble when the directory is no Maildir, DeliveryError when the message does not fit
/// into its quota. A count that is old, long or full is made anew before it refuses a message.
void checkMaildir(const std::string& directory, const Message& message);

/// Adds the message to "new" and to the quota's count. When it returns, the message is on the disk; when it throws
/// Trouble, nothing of it is there.
void deliverToMaildir(const std::string& directory, const Message& message);

}  // namespace mxdeliver
