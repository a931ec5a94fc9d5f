// The files of one mailname home that are made when they are missing: the delivery file and the quota file.
#pragma once

#include <string>

namespace mxrepair {

/// Lines of a delivery file that is made anew: into the mailbox. A mailname without a mailbox may have had another one,
/// but nothing then tells so, and a message that waits in a mailbox is better than one that was dropped.
std::string deliveryText();
/// Writes `.qmail` in an open home for the mail user, unless a non-empty one stands there. Throws SystemError.
void makeDeliveryFile(int home, const std::string& path);
/// Writes `maildirsize` in an open, new Maildir: no mail, `limit` bytes as the quota file has them (0: none). One that
/// stands there is left alone. Throws SystemError.
void makeQuotaFile(int maildir, const std::string& path, long limit);
/// The limit that the quota file shows for a quota in bytes; negative: none.
long limitOf(long quota);

}  // namespace mxrepair
