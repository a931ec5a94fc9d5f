// One handler per mail command: declares and parses the command's options, loads the session mail data and calls the
// backend. argv[0] is the command word. The result is the exit status; what escapes is reported by main.
#pragma once

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
