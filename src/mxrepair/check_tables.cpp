// The lookup tables: their files, and what their records say of each other.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cstdint>
#include <cstring>

#include "mxrepair/check.h"
#include "mxrepair/init.h"
#include "postfix/record_filters.h"
#include "postfix/table_lock.h"
#include "postfix/tables.h"
#include "process/descriptors.h"
#include "util/file_io.h"

namespace mxrepair {

namespace {

using kavro::FdOwner;
using kavro::SqliteStatement;
using namespace kavro::mail::postfix;

/// The first page of a hash map names the size of a page and the number of the last one (db_page.h of Berkeley DB). A
/// file that ends before that page would be read with records missing, and no word about it.
bool isTruncated(const std::string& path) {
    constexpr off_t kPageSizeAt = 20;
    constexpr off_t kLastPageAt = 32;
    const FdOwner file(kavro::openRegular(path.c_str(), O_RDONLY | O_NOFOLLOW));
    struct stat status {};
    std::uint32_t pageSize = 0;
    std::uint32_t lastPage = 0;
    if (file.empty() || ::fstat(file.get(), &status) != 0) {
        return false;
    }
    return ::pread(file.get(), &pageSize, sizeof pageSize, kPageSizeAt) != sizeof pageSize ||
           ::pread(file.get(), &lastPage, sizeof lastPage, kLastPageAt) != sizeof lastPage ||
           status.st_size < static_cast<off_t>((std::uint64_t{lastPage} + 1) * pageSize);
}

/// A copy beside the map means that a rebuild was cut short: the copy is the table as it was. False when the table is
/// not to be read before that is put back.
bool checkCopy(CheckContext& context, const char* table) {
    const std::string copy = mapFile(table) + ".before";
    if (!fileExists(copy.c_str()) || isInUse(textSourcePath(table))) {
        return true;
    }
    context.findings.add({mapName(table), copy, "", "a rebuild of the table was cut short",
                          "puts the table back as it was before", [table] { putBackInterruptedRebuild(table); }});
    return context.findings.fixing() && !fileExists(copy.c_str());
}

bool loadOne(CheckContext& context, const char* table) {
    const std::string path = mapFile(table);
    std::string problem;
    if (!fileExists(path.c_str())) {
        problem = "is missing";
    } else if (isTruncated(path)) {
        problem = "is truncated";
    } else {
        problem = context.node.loadTable(table);
    }
    if (!problem.empty()) {
        context.findings.add({mapName(table), path, "", problem.substr(0, problem.find('\n')),
                              "put it back from a backup, or remove it and run --init and --sync"});
    }
    return problem.empty();
}

void checkMarkers(CheckContext& context) {
    context.each(
        "SELECT r.key, n.domain IS NULL AND EXISTS(SELECT 1 FROM root WHERE root.domain=r.key)"
        " FROM record r LEFT JOIN node_alias n ON n.alias=r.key WHERE r.map='virtual' AND r.name IS NULL"
        " AND EXISTS(SELECT 1 FROM record d WHERE d.map='virtual_domains' AND d.key=r.key)",
        [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            Finding finding{"virtual", domain, domain,
                            "marked as a domain alias, and a domain in virtual_domains: its mail bounces", ""};
            if (row.number(1) != 0) {
                finding.remedy = "removes the mark, since it has storage and no domain to be an alias of";
                finding.mend = [&context, domain] { context.changes.remove("virtual", domain); };
            } else {
                finding.remedy = "remove the domain or the domain alias with mxadmin";
            }
            return finding;
        });
}

void checkStandardAddresses(CheckContext& context) {
    context.each(
        "SELECT s.name, d.domain FROM (SELECT key AS domain FROM record WHERE map='virtual_domains'"
        " UNION SELECT alias FROM node_alias) d, standard s WHERE NOT EXISTS(SELECT 1 FROM record r"
        " WHERE r.map='virtual' AND r.key=s.name || '@' || d.domain) ORDER BY d.domain, s.rowid",
        [&](const SqliteStatement& row) {
            const std::string name = row.text(0);
            const std::string domain = row.text(1);
            return Finding{"virtual",
                           name + '@' + domain,
                           domain,
                           "standard address is missing",
                           "adds it",
                           [&context, name, domain] {
                               context.changes.add("virtual", name + '@' + domain, name + kLocalDomain); }};
        });
}

void checkMailboxes(CheckContext& context) {
    context.each(
        "SELECT v.key, v.domain FROM record v WHERE v.map='vmailbox' AND v.name IS NOT NULL AND NOT EXISTS(SELECT 1"
        " FROM record r WHERE r.map='virtual' AND r.key=v.key) ORDER BY v.domain, v.key",
        [&](const SqliteStatement& row) {
            const std::string address = row.text(0);
            return Finding{
                "virtual",          address,
                row.text(1),        "a mailbox without its address",
                "adds the address", [&context, address] { context.changes.add("virtual", address, address); }};
        });
    context.each(
        "SELECT r.key, r.domain FROM record r WHERE r.map='virtual' AND r.value='_kavro_bounce_' || r.domain || "
        "'@localhost.localdomain' AND NOT EXISTS(SELECT 1 FROM record a WHERE a.map='aliases'"
        " AND a.key='_kavro_bounce_' || r.domain)",
        [](const SqliteStatement& row) {
            return Finding{"aliases", std::string("_kavro_bounce_") + row.text(1), row.text(1),
                           "the bounce command is missing", "set the bounce anew with mxadmin"};
        });
}

/// Answers whether mail for an address of a domain of this node finds a record.
class Destination {
public:
    explicit Destination(NodeState& node) : local_(node.database()), known_(node.database()) {
        local_.prepare(
            "SELECT EXISTS(SELECT 1 FROM record WHERE key=?1 AND map='virtual_domains') OR EXISTS(SELECT 1 FROM record"
            " WHERE key=?1 AND map='virtual' AND value='1')");
        // An address that leads to itself ends there: it needs a mailbox.
        known_.prepare(
            "SELECT EXISTS(SELECT 1 FROM record WHERE key=?1 AND (map='vmailbox' OR (map='virtual' AND value<>?1)))"
            " OR EXISTS(SELECT 1 FROM record WHERE key='@' || ?2 AND map='virtual')");
    }

    bool isNowhere(const std::string& address) {
        const std::string::size_type at = address.rfind('@');
        if (at == std::string::npos) {
            return false;
        }
        const std::string domain = address.substr(at + 1);
        local_.bind(1, domain.c_str());
        const bool local = answer(local_);
        if (!local) {
            return false;
        }
        known_.bind(1, address.c_str());
        known_.bind(2, domain.c_str());
        return !answer(known_);
    }

private:
    static bool answer(SqliteStatement& statement) {
        const bool yes = statement.step() == SQLITE_ROW && statement.number(0) != 0;
        statement.reset();
        return yes;
    }

    SqliteStatement local_;
    SqliteStatement known_;
};

void checkDestinations(CheckContext& context) {
    Destination destination(context.node);
    Progress progress("virtual");
    context.node.query(
        "SELECT key, value, name, domain FROM record WHERE map='virtual' AND name IS NOT NULL ORDER BY domain, key", {},
        [&](const SqliteStatement& row) {
            progress.step();
            const std::string key = row.text(0);
            const std::string name = row.text(2);
            std::string list = row.text(1);
            std::string nowhere;
            const auto look = [&](const std::string& element) {
                // The same name in another domain may be a mailing list seen through a domain alias; lists have no
                // records of their own.
                const bool seenThroughAlias = element != key && element.compare(0, name.size() + 1, name + '@') == 0;
                if (nowhere.empty() && !seenThroughAlias && destination.isNowhere(element)) {
                    nowhere = element;
                }
                return true;
            };
            database::ValueListFilter<decltype(look)> elements(look);
            elements(list);
            if (!nowhere.empty()) {
                context.findings.add(
                    {"virtual", key, row.text(3),
                     nowhere == key ? "an address without a mailbox" : "leads to " + nowhere + ", which leads nowhere",
                     "run --sync with the domain's document, or mxadmin"});
            }
        });
}

}  // namespace

void putTablesBack() {
    for (const char* table : lookupTables()) {
        putBackInterruptedRebuild(table);
    }
}

void checkTableFiles(CheckContext& context) {
    context.tablesLoaded = true;
    for (const char* table : lookupTables()) {
        const std::string source = textSourcePath(table);
        const bool whole = checkCopy(context, table);
        checkLeftOver(context, mapName(table), source, source, "a text source that was left over");
        checkLeftOver(context, mapName(table), mapFile(table) + ".before.new", source);
        context.tablesLoaded = whole && loadOne(context, table) && context.tablesLoaded;
    }
}

void checkRecords(CheckContext& context) {
    checkMarkers(context);
    checkStandardAddresses(context);
    checkMailboxes(context);
    checkDestinations(context);
}

}  // namespace mxrepair
