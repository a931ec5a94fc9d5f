// The commands: their words, handlers and texts, in the order of the help.
#pragma once

#include <array>

/// Takes the arguments of one command, argv[0] being the command word; returns the exit status.
using CommandHandler = int (*)(int argc, char** argv);

/// One command, or one of the help words.
struct Command {
    const char* words;  ///< usually one; more are separated by ", "
    CommandHandler handler;
    bool takesPassword;  ///< reads the password from the environment itself
    const char* synopsis;
    const char* description;
};

extern const std::array<Command, 23> kCommands;

/// The command that has this word, compared byte by byte, or null.
const Command* findCommand(const char* word);

// One handler per mail command: declares and parses the command's options, loads the session mail data and calls the
// backend. What escapes it is reported by main.
namespace mxadmin_commands {

int addDomain(int argc, char** argv);
int removeDomain(int argc, char** argv);
int renameDomain(int argc, char** argv);
int enableDomain(int argc, char** argv);
int disableDomain(int argc, char** argv);
int setDomainDiskQuota(int argc, char** argv);

int addDomainAlias(int argc, char** argv);
int removeDomainAlias(int argc, char** argv);
int renameDomainAlias(int argc, char** argv);

int addMailname(int argc, char** argv);
int removeMailname(int argc, char** argv);
int renameMailname(int argc, char** argv);
int addAlias(int argc, char** argv);
int removeAlias(int argc, char** argv);

int addMailbox(int argc, char** argv);
int removeMailbox(int argc, char** argv);
int setPassword(int argc, char** argv);
int setMailboxDiskQuota(int argc, char** argv);
/// Prints the size without a newline.
int getMailboxSize(int argc, char** argv);

}  // namespace mxadmin_commands
