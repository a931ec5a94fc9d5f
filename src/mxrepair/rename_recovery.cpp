// Steps of a rename, done again or backwards. A killed rename has lost its journal, so the way back goes by what the
// storage knows of the domain: it is moved last of all that is renamed with the tables.
#include "mxrepair/rename_recovery.h"

#include <strings.h>

#include <boost/filesystem.hpp>
#include <iostream>
#include <set>
#include <stdexcept>

#include "auth/auth_database.h"
#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "mxrepair/node_state.h"
#include "postfix/backend_operations.h"
#include "postfix/domain_manager.h"
#include "postfix/mailname_manager.h"
#include "postfix/record_filters.h"
#include "postfix/rename_transaction.h"
#include "postfix/tables.h"
#include "services/rename_plugins.h"
#include "storage/maildir_manager.h"
#include "util/hostname.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::SqliteStatement;
using kavro::mail::MaildirManager;
using namespace kavro::mail::postfix;

constexpr std::size_t kHostNameSize = 65;

bool hasStorage(const std::string& name) {
    MaildirManager& storage = MaildirManager::getInstance();
    const std::string::size_type at = name.find('@');
    return fs::exists(fs::symlink_status(at == std::string::npos
                                             ? storage.getDomainRoot(name)
                                             : storage.getMailnameHome(name.substr(at + 1), name.substr(0, at))));
}

/// True when the storage has the new name already. Throws unless exactly one of both has it.
bool storageMoved(const std::string& oldName, const std::string& newName) {
    const bool oldThere = hasStorage(oldName);
    const bool newThere = hasStorage(newName);
    if (oldThere == newThere) {
        throw std::runtime_error((oldThere ? "both " : "neither ") + oldName + (oldThere ? " and " : " nor ") +
                                 newName + (oldThere ? " have" : " has") + " storage: no rename was cut short here");
    }
    return newThere;
}

std::string hostName() {
    char host[kHostNameSize] = {};
    if (get_hostname_fqdn(host, sizeof host) != 0) {
        throw std::runtime_error("this host's name is not known, and its records may have to be put back");
    }
    return host;
}

/// Without a row of the first name there is nothing to rename; beside one of the second it would fail.
void renameLogins(const std::string& from, const std::string& to) {
    mailAuthDBSelectStyle(kPostfixStyle);
    if (mailAuthRenameDomain(from.c_str(), to.c_str()) != 0) {
        throw std::runtime_error("cannot rename " + from + " in the mail authentication database");
    }
}

void moveHandlers(const std::string& from, const std::string& to) {
    if (mh_db_move(nullptr, from.c_str(), nullptr, to.c_str()) == -1) {
        throw std::runtime_error("cannot move the handlers of " + from);
    }
}

/// What is known to be the old domain's under the new name.
struct OwnNames {
    std::string oldDomain;
    std::string newDomain;
    std::set<std::string> names;  ///< local parts; "" stands for unknown recipients

    /// The local part of an address of the new domain; false for anything else.
    bool localPart(const std::string& item, std::string& name) const {
        const std::string::size_type at = item.rfind('@');
        if (at == std::string::npos || item.compare(at + 1, std::string::npos, newDomain) != 0) {
            return false;
        }
        name = item.substr(0, at);
        return true;
    }
    bool owns(const std::string& name) const { return names.count(name) != 0; }
    std::string back(const std::string& name) const { return name + '@' + oldDomain; }
};

/// Changes a record of the table of addresses. An address that leads to a mailname goes with it, and a list seen
/// through a domain alias has the same name on both sides. False when it stays as it is.
bool takeAddressBack(const OwnNames& own, std::string& key, std::string& value) {
    std::string keyName;
    const bool keyIsNew = own.localPart(key, keyName);
    const std::string aliasName = keyIsNew ? std::string() : key.substr(0, key.rfind('@'));
    bool changed = false;
    const auto element = [&](std::string& item) {
        std::string name;
        if (own.localPart(item, name) && (own.owns(name) || name == aliasName)) {
            item = own.back(name);
            changed = true;
        }
        return true;
    };
    database::ValueListFilter<decltype(element)> elements(element);
    elements(value);
    const bool goesBack = keyIsNew && (changed || own.owns(keyName));
    if (goesBack) {
        key = own.back(keyName);
    }
    return goesBack || changed;
}

/// Changes a record of the table of mailboxes. The rename changes the beginning of every path that begins with the old
/// name, also of a domain whose name only begins so: there the key tells what the path was.
bool takeMailboxBack(const OwnNames& own, std::string& key, std::string& value) {
    std::string name;
    std::string ownDomain = key.substr(key.rfind('@') + 1);
    if (own.localPart(key, name)) {
        if (!own.owns(name)) {
            return false;
        }
        ownDomain = own.oldDomain;
        key = own.back(name);
    }
    if (!ownDomain.starts_with(own.oldDomain)) {
        return false;
    }
    const std::string root = own.newDomain + ownDomain.substr(own.oldDomain.size()) + '/';
    if (value.starts_with(root)) {
        value.replace(0, root.size() - 1, ownDomain);
    }
    return true;
}

/// Line filter that changes records by one of the functions above.
class RecordsBack {
public:
    using Change = bool (*)(const OwnNames& own, std::string& key, std::string& value);
    RecordsBack(const OwnNames& own, Change change) : own_(&own), change_(change) {}

    bool operator()(std::string& line) const {
        database::RecordView record;
        if (database::splitRecord(line, record)) {
            std::string key(record.key);
            std::string value(record.value);
            if (change_(*own_, key, value)) {
                line = key + ' ' + value;
            }
        }
        return true;
    }

private:
    const OwnNames* own_;
    Change change_;
};

OwnNames ownNames(NodeState& node, const std::string& oldDomain, const std::string& newDomain) {
    OwnNames own{oldDomain, newDomain, {""}};
    node.query("SELECT name FROM home WHERE domain IN (?1, ?2) UNION SELECT name FROM standard", {oldDomain, newDomain},
               [&own](const SqliteStatement& row) { own.names.insert(row.text(0)); });
    return own;
}

void tellForeign(NodeState& node, const OwnNames& own) {
    node.query("SELECT DISTINCT r.key FROM record r WHERE r.domain=? AND r.name IS NOT NULL ORDER BY 1",
               {own.newDomain}, [&own](const SqliteStatement& row) {
                   std::cout << row.text(0) << ": not known to be of " << own.oldDomain << ", left as it is\n";
               });
}

void finishDomain(const std::string& oldDomain, const std::string& newDomain) {
    if (!storageMoved(oldDomain, newDomain)) {
        // What is renamed already has nothing left for the filters to change.
        mxadmin_commands::renameDomain(oldDomain, newDomain);
        return;
    }
    renameLogins(oldDomain, newDomain);
    if (RenameDomainInServices(oldDomain.c_str(), newDomain.c_str()) != 0) {
        throw std::runtime_error("unable to rename some of services");
    }
    moveHandlers(oldDomain, newDomain);
}

/// The login stays, whether the command was given a password or not.
void finishMailname(const std::string& oldAddress, const std::string& newAddress) {
    const std::string::size_type at = oldAddress.find('@');
    const std::string domain = oldAddress.substr(at + 1);
    const std::string oldName = oldAddress.substr(0, at);
    const std::string newName = newAddress.substr(0, newAddress.find('@'));
    if (!storageMoved(oldAddress, newAddress)) {
        MailnameManager::renameMailname(domain, oldName, newName);
    }
    mailAuthDBSelectStyle(kPostfixStyle);
    if (mailAuthRename(oldName.c_str(), newName.c_str(), domain.c_str()) != 0 ||
        mh_db_move(oldName.c_str(), domain.c_str(), newName.c_str(), domain.c_str()) == -1) {
        throw std::runtime_error("cannot move the login and the handlers of " + oldAddress);
    }
}

}  // namespace

void finishRename(const std::string& oldName, const std::string& newName) {
    if (oldName.find('@') != std::string::npos) {
        finishMailname(oldName, newName);
    } else {
        finishDomain(oldName, newName);
    }
}

void undoRename(const std::string& oldDomain, const std::string& newDomain) {
    const bool moved = storageMoved(oldDomain, newDomain);
    const std::string host = hostName();
    NodeState node;
    node.loadTree();
    const OwnNames own = ownNames(node, oldDomain, newDomain);
    MaildirManager& storage = MaildirManager::getInstance();

    RenameTransaction transaction;
    const ReplaceDomainPart forward(oldDomain, newDomain, false);
    if (moved) {
        moveHandlers(newDomain, oldDomain);
        renameLogins(newDomain, oldDomain);
        transaction.whole(
            kVirtualDomainsHumanName, [&] { storage.renameDomainRoot(newDomain, oldDomain); },
            [&] { storage.renameDomainRoot(oldDomain, newDomain); });
    }
    transaction.filterTable(kVmailboxTable, kVmailboxHumanName, RecordsBack(own, takeMailboxBack), forward);
    transaction.filterTable(kVirtualTable, kVirtualHumanName, RecordsBack(own, takeAddressBack), forward);
    if (DatabaseHelper::findRecords(kVirtualDomainsTable, {oldDomain}).empty()) {
        using database::ElementsFilter;
        using database::ReplaceElementFilterRef;
        transaction.filterTable(kVirtualDomainsTable, kVirtualDomainsHumanName,
                                ElementsFilter(ReplaceElementFilterRef(newDomain, oldDomain)),
                                ReplaceElementFilterRef(oldDomain, newDomain));
    }
    transaction.commit();

    // The host's own records give way to a domain of its name, and are there without one.
    if (::strcasecmp(host.c_str(), newDomain.c_str()) == 0) {
        DatabaseHelper::addRecord(kVirtualTable, newDomain, kDomainAliasMarker);
        DomainManager::createStandardDomainAddresses(newDomain);
    } else if (::strcasecmp(host.c_str(), oldDomain.c_str()) == 0) {
        DatabaseHelper::removeRecord(kVirtualTable, oldDomain);
    }
    node.loadTables();
    tellForeign(node, own);
}

}  // namespace mxrepair
