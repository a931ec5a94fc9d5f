// The order of the checks, and rights of single files.
#include "mxrepair/check.h"

#include <fcntl.h>
#include <grp.h>
#include <pwd.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <utility>

#include "mxrepair/document_check.h"
#include "mxrepair/init.h"
#include "mxrepair/rename_recovery.h"
#include "process/descriptors.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "util/accounts.h"
#include "util/directory_tree.h"
#include "util/lock_file.h"
#include "util/log.h"

namespace mxrepair {

namespace {

constexpr unsigned kModeBits = 07777;

/// False when nothing on the node bears the domain's name.
bool knows(NodeState& node, const std::string& domain) {
    return node.exists(
        "SELECT 1 FROM record WHERE key=?1 OR domain=?1 UNION ALL SELECT 1 FROM root WHERE domain=?1"
        " UNION ALL SELECT 1 FROM auth_domain WHERE domain=?1 UNION ALL SELECT 1 FROM signing_key WHERE domain=?1"
        " UNION ALL SELECT 1 FROM handler WHERE substr(address, instr(address, '@') + 1)=?1",
        {domain});
}

/// Checks everything; records that --fix changes are written at the end.
int lookOver(const Options& options, bool fixing) {
    NodeState node;
    std::optional<Documents> documents;
    if (options.waitStdin) {
        documents.emplace(node);
        documents->read(STDIN_FILENO);
    }
    if (find_user(kMailUser) == nullptr) {
        throw std::runtime_error(std::string("there is no user ") + kMailUser);
    }
    // What the floors below say of a damaged file is a finding here.
    kavro_log_set_level(-1);
    RecordChanges changes(node);
    Findings findings(std::cout, options.json, fixing);
    CheckContext context{node, findings, changes};
    bool concerned = false;
    if (!options.domain.empty()) {
        // Whoever cannot look into a shared store must not answer for any domain.
        findings.restrictTo([&](const std::string& domain) {
            const bool its =
                domain == options.domain ||
                node.exists("SELECT 1 FROM node_alias WHERE alias=? AND domain=?", {domain, options.domain});
            concerned = concerned || its;
            return its || domain.empty();
        });
    }
    findings.begin();
    checkTableFiles(context);
    checkDatabaseFiles(context);
    node.loadKeys();
    node.loadTree();
    node.settle();
    if (context.tablesLoaded) {
        checkRecords(context);
    }
    if (context.tablesLoaded && context.databasesLoaded) {
        checkUsers(context);
    }
    checkKeys(context);
    checkTree(context);
    if (context.tablesLoaded && context.databasesLoaded && documents) {
        checkDocuments(context);
    }
    changes.apply();
    findings.end();
    if (!options.domain.empty() && context.tablesLoaded && context.databasesLoaded && !concerned &&
        !knows(node, options.domain)) {
        throw std::runtime_error("this node does not know " + options.domain);
    }
    return (fixing ? findings.anyLeft() : findings.any()) ? kFindings : kSuccess;
}

}  // namespace

int runCheck(const Options& options) {
    return lookOver(options, false);
}

int runFix(const Options& options) {
    for (const auto& [rename, recover] : {std::pair(options.finish, &finishRename), {options.undo, &undoRename}}) {
        if (!rename.oldName.empty()) {
            putTablesBack();
            recover(rename.oldName, rename.newName);
            return kSuccess;
        }
    }
    return lookOver(options, true);
}

bool isInUse(const std::string& name) {
    const kavro::FdOwner file(::open(kavro::hashedLockPath(name).c_str(), O_RDONLY | O_CLOEXEC));
    return !file.empty() && ::flock(file.get(), LOCK_SH | LOCK_NB) != 0 && errno == EWOULDBLOCK;
}

void checkLeftOver(CheckContext& context, const std::string& store, const std::string& path, const std::string& lock,
                   const char* problem) {
    if (fileExists(path.c_str()) && !isInUse(lock)) {
        context.findings.add({store, path, "", problem, "removes it", [path] {
                                  if (rm_tree(path.c_str()) != 0) {
                                      kavro::throwSystemError("cannot remove " + path, errno);
                                  }
                              }});
    }
}

void setRights(const std::string& path, unsigned uid, unsigned gid, unsigned mode) {
    const kavro::FdOwner file(::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (file.empty() || ::fchown(file.get(), uid, gid) != 0 || ::fchmod(file.get(), mode) != 0) {
        kavro::throwSystemError("cannot set owner and mode of " + path, errno);
    }
}

void checkRights(CheckContext& context, const std::string& store, const std::string& domain, const std::string& path,
                 const char* user, const char* group, unsigned mode) {
    struct stat found {};
    if (::lstat(path.c_str(), &found) != 0) {
        return;  // whether it must be there is another check's business
    }
    if (!S_ISREG(found.st_mode) && !S_ISDIR(found.st_mode)) {
        context.findings.add({store, path, domain, S_ISLNK(found.st_mode) ? "is a link" : "is no regular file",
                              "look at it, and put what belongs there in its place"});
        return;
    }
    const passwd* account = ::getpwnam(user);
    const ::group* members = ::getgrnam(group);
    if (account == nullptr || members == nullptr) {
        throw std::runtime_error(std::string("there is no user ") + user + " or group " + group);
    }
    const unsigned uid = account->pw_uid;
    const unsigned gid = members->gr_gid;
    if (found.st_uid != uid || found.st_gid != gid || (found.st_mode & kModeBits) != mode) {
        char rights[64];
        std::snprintf(rights, sizeof rights, "%s:%s %04o", user, group, mode);
        context.findings.add({store, path, domain, "owner or mode is wrong", std::string("sets ") + rights,
                              [path, uid, gid, mode] { setRights(path, uid, gid, mode); }});
    }
}

}  // namespace mxrepair
