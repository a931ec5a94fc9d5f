// The order of the steps: storage first, so that no mail is accepted for what has no home; records; then logins,
// handlers and keys.
#include "mxrepair/sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <boost/filesystem.hpp>
#include <cerrno>
#include <iostream>
#include <map>
#include <stdexcept>

#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "mxrepair/document_check.h"
#include "mxrepair/mailbox_files.h"
#include "process/descriptors.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "storage/maildir_manager.h"
#include "storage/maildirpp_quota.h"
#include "storage/mailname_tree.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::FdOwner;
using kavro::SqliteConnection;
using kavro::SqliteStatement;
using kavro::mail::MaildirManager;

/// What was done, counted for each domain: report(domain, what, count).
class Report {
public:
    explicit Report(NodeState& node) : node_(node) {
        node_.execute("CREATE TABLE report(domain TEXT, what TEXT, count INTEGER)");
    }

    /// Counts the rows of a table by the domain in that column.
    void count(const std::string& table, const std::string& column, const std::string& what) {
        node_.execute("INSERT INTO report SELECT " + column + ", '" + what + "', count(*) FROM " + table +
                      " GROUP BY 1");
    }
    void add(const std::string& domain, const std::string& what) {
        node_.query("INSERT INTO report VALUES(?, ?, 1)", {domain, what}, {});
    }

    /// A line for each domain that something was done for.
    void print(std::ostream& out) {
        std::string last;
        node_.query("SELECT domain, what, sum(count) FROM report GROUP BY domain, what ORDER BY domain, min(rowid)", {},
                    [&](const SqliteStatement& row) {
                        const std::string domain = row.text(0);
                        out << (domain == last ? ", " : (last.empty() ? "" : "\n") + domain + ": ");
                        out << row.number(2) << ' ' << row.text(1);
                        last = domain;
                    });
        out << (last.empty() ? "" : "\n");
    }

private:
    NodeState& node_;
};

/// Makes the homes of one domain after the other.
class Storage {
public:
    /// Opens the domain's root, made if need be.
    void enter(const std::string& domain) {
        if (domain == domain_) {
            return;
        }
        const fs::path path = manager_.getDomainRoot(domain);
        root_ = kavro::mail::openDomainRoot(path);
        if (root_.empty() && errno == ENOENT) {
            manager_.createDomainRoot(domain);
            root_ = kavro::mail::openDomainRoot(path);
        }
        if (root_.empty()) {
            kavro::throwSystemError("cannot open " + path.string(), errno);
        }
        domain_ = domain;
        path_ = path.string() + '/';
    }

    void makeHome(const std::string& name, long quota) { makeWholeHome(root_.get(), name, path_ + name, quota); }
    void completeHome(const std::string& name) { makeDeliveryFile(root_.get(), name + "/.qmail", path_ + name); }

private:
    MaildirManager& manager_ = MaildirManager::getInstance();
    std::string domain_;
    std::string path_;
    FdOwner root_;
};

void makeStorage(NodeState& node, Report& report) {
    Storage storage;
    Progress progress("mail storage");
    node.query("SELECT domain FROM doc_domain WHERE domain NOT IN (SELECT domain FROM root) ORDER BY domain", {},
               [&](const SqliteStatement& row) { storage.enter(row.text(0)); });
    node.query(
        "SELECT m.domain, m.name, m.quota, EXISTS(SELECT 1 FROM home h WHERE h.domain=m.domain AND h.name=m.name)"
        " FROM doc_mail m ORDER BY m.domain, m.name",
        {}, [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            const std::string name = row.text(1);
            const long quota = row.number(2);
            progress.step();
            storage.enter(domain);
            if (row.number(3) == 0) {
                storage.makeHome(name, quota);
                return;
            }
            storage.completeHome(name);
            if (shownLimit(domain, name) != expectedLimit(domain, name, quota)) {
                if (store_mbox_quota(domain.c_str(), name.c_str(), quota) == 0) {
                    throw std::runtime_error("cannot set the quota of " + name + '@' + domain);
                }
                report.add(domain, "quotas set");
            }
        });
    node.execute(
        "CREATE TABLE new_home AS SELECT m.domain FROM doc_mail m WHERE NOT EXISTS(SELECT 1 FROM home h WHERE"
        " h.domain=m.domain AND h.name=m.name)");
    report.count("new_home", "domain", "homes made");
    // The files of new homes were not synced one by one.
    const FdOwner top(::open(mailRoot().c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    if (top.empty() || ::syncfs(top.get()) != 0) {
        kavro::throwSystemError("cannot sync " + mailRoot(), errno);
    }
}

void changeRecords(NodeState& node, Report& report) {
    RecordChanges changes(node);
    node.execute(
        "INSERT INTO added SELECT map, key, value FROM missing;"
        "INSERT INTO removed SELECT map, key FROM surplus");
    changes.apply();
    report.count("missing", "domain", "records added");
    report.count("surplus", "domain", "records removed");
}

/// One transaction on a database of the node; what is not committed is rolled back when the connection closes.
class Transaction {
public:
    explicit Transaction(const std::string& path) : path_(path) {
        if (!connection_.open(path.c_str(), SqliteConnection::Access::kReadWriteCreate) ||
            !connection_.execute("BEGIN IMMEDIATE")) {
            fail();
        }
    }

    /// Runs a statement for each row of the question, with the row's columns as its parameters.
    void forEach(NodeState& node, const std::string& question, int columns, const char* sql) {
        SqliteStatement statement(connection_);
        if (!statement.prepare(sql)) {
            fail();
        }
        node.query(question, {}, [&](const SqliteStatement& row) {
            bool good = true;
            for (int column = 0; column != columns; ++column) {
                good = good && statement.bind(column + 1, row.text(column));
            }
            if (!good || statement.step() != SQLITE_DONE) {
                fail();
            }
            statement.reset();
        });
    }

    void commit() {
        if (!connection_.execute("COMMIT")) {
            fail();
        }
    }

private:
    [[noreturn]] void fail() const {
        throw std::runtime_error("cannot change " + path_ + ": " + connection_.errorText());
    }

    std::string path_;
    SqliteConnection connection_;
};

/// A stored password is copied within the database, as it stands.
void changeUsers(NodeState& node, Report& report) {
    if (!node.exists("SELECT 1 FROM surplus_user UNION ALL SELECT 1 FROM missing_user UNION ALL SELECT 1 FROM"
                     " gone_alias",
                     {})) {
        return;
    }
    Transaction users(mailAuthDB);
    users.forEach(node, "SELECT name, domain FROM surplus_user", 2,
                  "DELETE FROM users WHERE name=? AND dom_id=(SELECT id FROM domains WHERE name=?)");
    users.forEach(node, "SELECT alias FROM gone_alias", 1, "DELETE FROM domains WHERE name=?");
    users.forEach(node, "SELECT DISTINCT domain, owner FROM missing_user", 2,
                  "INSERT OR IGNORE INTO domains(name, status) SELECT ?, status FROM domains WHERE name=?");
    users.forEach(node, "SELECT name, domain, mailname, owner FROM missing_user", 4,
                  "INSERT OR REPLACE INTO users(name, dom_id, userPassword, cmusaslsecretPLAIN, status)"
                  " SELECT ?1, (SELECT id FROM domains WHERE name=?2), userPassword, cmusaslsecretPLAIN, u.status"
                  " FROM users u JOIN domains d ON d.id=u.dom_id WHERE u.name=?3 AND d.name=?4");
    users.commit();
    report.count("surplus_user", "owner", "logins removed");
    report.count("missing_user", "owner", "logins copied");
}

void changeHandlers(NodeState& node, Report& report) {
    if (!node.exists("SELECT 1 FROM surplus_handler", {})) {
        return;
    }
    Transaction handlers(mh_db_path);
    handlers.forEach(node, "SELECT address FROM surplus_handler", 1, "DELETE FROM handlers WHERE address=?");
    handlers.commit();
    report.count("surplus_handler", "owner", "addresses without handlers now");
}

void changeKeys(NodeState& node, Report& report) {
    node.query(
        "SELECT a.domain, a.alias FROM doc_alias a JOIN signing_key k ON k.domain=a.domain"
        " WHERE a.alias NOT IN (SELECT domain FROM signing_key) ORDER BY 1, 2",
        {}, [&](const SqliteStatement& row) {
            if (clone_domain_key(row.text(0), row.text(1)) != 0) {
                throw std::runtime_error(std::string("cannot copy the key of ") + row.text(0));
            }
            report.add(row.text(0), "keys copied");
        });
    node.query("SELECT alias, domain FROM gone_alias WHERE alias IN (SELECT domain FROM signing_key)", {},
               [&](const SqliteStatement& row) {
                   if (remove_domain_key(row.text(0)) != 0) {
                       throw std::runtime_error(std::string("cannot remove the key of ") + row.text(0));
                   }
                   report.add(row.text(1), "keys removed");
               });
}

/// What is not for this command to make or to remove.
void printRest(NodeState& node, std::ostream& out) {
    node.query(
        "SELECT m.domain, m.name FROM doc_mail m WHERE NOT EXISTS(SELECT 1 FROM user u WHERE u.domain=m.domain"
        " AND u.name=m.name) ORDER BY m.domain, m.name",
        {}, [&](const SqliteStatement& row) {
            // A home that was not there delivers now.
            if (row.number(2) == 0 || delivers(row.text(0), row.text(1))) {
                out << row.text(1) << '@' << row.text(0) << ": password missing\n";
            }
        });
    node.query(
        "SELECT h.domain, h.name FROM doc_domain d JOIN home h ON h.domain=d.domain WHERE NOT EXISTS(SELECT 1"
        " FROM doc_mail m WHERE m.domain=h.domain AND m.name=h.name) ORDER BY 1, 2",
        {}, [&](const SqliteStatement& row) {
            out << row.text(1) << '@' << row.text(0) << ": not in the document, its home is kept\n";
        });
}

}  // namespace

int runSync(const Options& options) {
    if (!options.waitStdin) {
        throw std::runtime_error("--sync reads session documents from standard input: say so with --wait-stdin");
    }
    NodeState node;
    Documents(node).read(STDIN_FILENO);
    putTablesBack();
    node.loadAll();
    node.settle();
    compareWithDocuments(node);
    Report report(node);
    makeStorage(node, report);
    changeRecords(node, report);
    changeUsers(node, report);
    changeHandlers(node, report);
    changeKeys(node, report);
    report.print(std::cout);
    printRest(node, std::cout);
    return kSuccess;
}

}  // namespace mxrepair
