// The order of the steps: storage first, so that no mail is accepted for what has no home; records; then logins,
// handlers and keys.
#include "mxrepair/sync.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <boost/filesystem.hpp>
#include <cerrno>
#include <future>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <thread>
#include <vector>

#include "auth/auth_paths.h"
#include "handlers/handlers_database.h"
#include "mxrepair/document_check.h"
#include "mxrepair/mailbox_files.h"
#include "postfix/running_postfix.h"
#include "process/descriptors.h"
#include "process/system_error.h"
#include "services/domain_keys.h"
#include "storage/mail_tree.h"
#include "storage/mailbox_quota.h"
#include "storage/maildir_manager.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::FdOwner;
using kavro::SqliteConnection;
using kavro::SqliteStatement;
using kavro::mail::MaildirManager;
using kavro::mail::postfix::RoutingNotice;

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

/// The root of one domain after the other.
class Roots {
public:
    /// Opens the domain's root, made if need be, unless it is the one that is open.
    int enter(const std::string& domain) {
        if (domain == domain_) {
            return root_.get();
        }
        domain_.clear();
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
        return root_.get();
    }
    std::string pathOf(const std::string& name) const { return path_ + name; }

private:
    MaildirManager& manager_ = MaildirManager::getInstance();
    std::string domain_;
    std::string path_;
    FdOwner root_;
};

struct NewHome {
    std::string domain;
    std::string name;
    long quota;
};

/// Makes new homes by several threads: nearly all the time goes into mkdir(2), and directories of different homes do
/// not wait for each other. The roots are there; nothing else of the process runs meanwhile.
class HomeMaker {
public:
    void add(NewHome home) {
        homes_.push_back(std::move(home));
        if (homes_.size() == kBatch) {
            finish();
        }
    }

    /// Throws what one of them threw.
    void finish() {
        const std::size_t workers = std::clamp(std::thread::hardware_concurrency(), 1U, kMostWorkers);
        const std::size_t share = homes_.size() / workers + 1;
        std::vector<std::future<void>> parts;
        for (std::size_t first = 0; first < homes_.size(); first += share) {
            const std::size_t last = std::min(first + share, homes_.size());
            parts.push_back(std::async(std::launch::async, [this, first, last] { make(first, last); }));
        }
        for (std::future<void>& part : parts) {
            part.get();
        }
        homes_.clear();
    }

private:
    static constexpr std::size_t kBatch = 4096;
    static constexpr unsigned kMostWorkers = 8;

    void make(std::size_t first, std::size_t last) const {
        Roots roots;
        for (std::size_t i = first; i != last; ++i) {
            const NewHome& home = homes_[i];
            const int root = roots.enter(home.domain);
            makeWholeHome(root, home.name, roots.pathOf(home.name), home.quota);
        }
    }

    std::vector<NewHome> homes_;
};

/// A home that stands gets the directories and files that it lacks, and its quota.
void completeHome(Roots& roots, const NewHome& home, Report& report) {
    const int root = roots.enter(home.domain);
    makeHomeDirectories(root, home.name, roots.pathOf(home.name), true);
    makeDeliveryFile(root, home.name + "/.qmail", roots.pathOf(home.name));
    if (shownLimit(home.domain, home.name) != expectedLimit(home.domain, home.name, home.quota)) {
        if (store_mbox_quota(home.domain.c_str(), home.name.c_str(), home.quota) == 0) {
            throw std::runtime_error("cannot set the quota of " + home.name + '@' + home.domain);
        }
        report.add(home.domain, "quotas set");
    }
}

void makeStorage(NodeState& node, Report& report) {
    Roots roots;
    Progress progress("mail storage");
    node.query("SELECT domain FROM doc_domain WHERE domain NOT IN (SELECT domain FROM root) ORDER BY domain", {},
               [&](const SqliteStatement& row) { roots.enter(row.text(0)); });
    HomeMaker newHomes;
    node.query(
        "SELECT m.domain, m.name, m.quota, EXISTS(SELECT 1 FROM home h WHERE h.domain=m.domain AND h.name=m.name)"
        " FROM doc_mail m ORDER BY m.domain, m.name",
        {}, [&](const SqliteStatement& row) {
            progress.step();
            NewHome home{row.text(0), row.text(1), row.number(2)};
            if (row.number(3) == 0) {
                newHomes.add(std::move(home));
            } else {
                completeHome(roots, home, report);
            }
        });
    newHomes.finish();
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
        if (!connection_.open(path.c_str(), SqliteConnection::Access::ReadWriteCreate) ||
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
        " WHERE k.whole AND a.alias NOT IN (SELECT domain FROM signing_key WHERE whole) ORDER BY 1, 2",
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
        "SELECT m.domain, m.name, EXISTS(SELECT 1 FROM home h WHERE h.domain=m.domain AND h.name=m.name)"
        " FROM doc_mail m WHERE NOT EXISTS(SELECT 1 FROM user u WHERE u.domain=m.domain AND u.name=m.name)"
        " ORDER BY m.domain, m.name",
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
    std::optional<RoutingNotice> notice;
    if (node.exists("SELECT 1 FROM missing WHERE map='virtual_domains' OR value='1' UNION ALL SELECT 1 FROM gone_alias",
                    {})) {
        notice.emplace();
    }
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
