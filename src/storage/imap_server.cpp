// Detection of the IMAP/POP3 server by its local delivery agent.
#include "storage/imap_server.h"

#include <sys/stat.h>

#include <iterator>

#include "util/log.h"

using kavro::mail::ImapServer;

namespace {

constexpr ImapServer kServers[] = {
    {"/usr/bin/deliverquota", "| /usr/bin/deliverquota ./Maildir", "Courier-IMAP", "courier-imap"},
    {"/usr/lib/dovecot/dovecot-lda", "| /usr/lib/dovecot/dovecot-lda -d \"$DELIVERED_TO\"", "Dovecot", "dovecot"},
};

constexpr int kNoServer = -1;

}  // namespace

namespace kavro::mail {

const ImapServer* imapServer(int type) {
    return type == kNoServer ? nullptr : &kServers[type];
}

}  // namespace kavro::mail

int detectImapPop3Server() {
    static int detected = kNoServer;
    if (detected != kNoServer) {
        return detected;
    }
    for (int type = 0; type < static_cast<int>(std::size(kServers)); ++type) {
        struct stat status;
        if (::stat(kServers[type].agent, &status) == -1) {
            continue;
        }
        // The first agent that is there decides, even when it cannot be used and another one could.
        if (!S_ISREG(status.st_mode) || (status.st_mode & (S_IXUSR | S_IXGRP | S_IXOTH)) == 0) {
            kavro_log(KAVRO_LOG_ERROR,
                      "Unable to detect IMAP/POP3 server type - LDA is present at '%s' but is not a regular file or is "
                      "not executable",
                      kServers[type].agent);
            return kNoServer;
        }
        detected = type;
        return detected;
    }
    kavro_log(KAVRO_LOG_ERROR, "Unable to detect IMAP/POP3 server type - no LDA found");
    return kNoServer;
}
