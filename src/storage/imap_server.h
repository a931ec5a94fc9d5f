// The IMAP/POP3 servers whose mailboxes the storage serves, and which of them is installed.
#pragma once

/// 0 Courier-IMAP, 1 Dovecot, -1 none, logged. A type found is kept for the life of the process.
int detectImapPop3Server();
const char* getImapPop3ServerHumanReadableName();
const char* getImapPop3ServerPkgctlComponentName();

namespace kavro::mail {

/// One server: its local delivery agent, and how others know it.
struct ImapServer {
    const char* agent;         ///< path of the local delivery agent
    const char* deliveryLine;  ///< the .qmail line that hands a message to the agent
    const char* name;          ///< for people
    const char* component;     ///< for the package manager
};

/// The server of a type that detectImapPop3Server() answered; null for -1.
const ImapServer* imapServer(int type);

}  // namespace kavro::mail
