// Cutting the input into documents, reading each with the session's own reader, and comparing all of them at once.
#include "mxrepair/documents.h"

#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <memory>
#include <stdexcept>

#include "process/retry.h"
#include "process/system_error.h"
#include "session/session_mail_data.h"

namespace mxrepair {

namespace {

using kavro::SqliteStatement;

constexpr std::size_t kChunk = 65536;

constexpr const char* kSchema =
    "CREATE TABLE doc_domain(domain TEXT PRIMARY KEY, quota INTEGER) WITHOUT ROWID;"
    "CREATE TABLE doc_alias(alias TEXT PRIMARY KEY, domain TEXT) WITHOUT ROWID;"
    "CREATE INDEX doc_alias_domain ON doc_alias(domain);"
    "CREATE TABLE doc_mail(domain TEXT, name TEXT, quota INTEGER, PRIMARY KEY(domain, name)) WITHOUT ROWID;"
    "CREATE TABLE doc_mail_alias(domain TEXT, alias TEXT, name TEXT, PRIMARY KEY(domain, alias)) WITHOUT ROWID;"
    "CREATE TABLE doc_list(domain TEXT, name TEXT, PRIMARY KEY(domain, name)) WITHOUT ROWID;"
    "CREATE VIEW doc_place AS SELECT domain AS place, domain FROM doc_domain"
    " UNION ALL SELECT alias, domain FROM doc_alias;"
    // A mailname goes before an alias of the same name.
    "CREATE VIEW doc_address AS SELECT domain, name AS address, name FROM doc_mail"
    " UNION ALL SELECT domain, alias, name FROM doc_mail_alias a WHERE NOT EXISTS(SELECT 1 FROM doc_mail m"
    "  WHERE m.domain=a.domain AND m.name=a.alias);";

// A domain whose logins are switched off is switched off, and its aliases with it; every other one is on. postmap(1)
// writes keys in lower case. Standard addresses go behind mailnames and aliases of the same name.
constexpr const char* kExpected =
    "CREATE TABLE expected(map TEXT, key TEXT, value TEXT, domain TEXT, any_value INTEGER, PRIMARY KEY(key, map))"
    " WITHOUT ROWID;"
    "CREATE TABLE disabled_domain AS SELECT d.domain FROM doc_domain d JOIN auth_domain a ON a.domain=d.domain"
    " WHERE a.off<>0 AND NOT EXISTS(SELECT 1 FROM record r WHERE r.map='virtual_domains' AND r.key=d.domain);"
    "DELETE FROM doc_alias WHERE domain IN disabled_domain AND NOT EXISTS(SELECT 1 FROM record r"
    " WHERE r.map='virtual' AND r.key=doc_alias.alias);"
    "INSERT INTO expected SELECT 'virtual_domains', domain, domain || '/', domain, 0 FROM doc_domain"
    " WHERE domain NOT IN disabled_domain;"
    "INSERT INTO expected SELECT 'vmailbox', name || '@' || domain, domain || '/' || name || '/Maildir/', domain, 0"
    " FROM doc_mail;"
    "INSERT INTO expected SELECT 'virtual', a.address || '@' || p.place, a.name || '@' || a.domain, a.domain, 0"
    " FROM doc_address a JOIN doc_place p ON p.domain=a.domain;"
    "INSERT INTO expected SELECT 'virtual', alias, '1', domain, 0 FROM doc_alias;"
    "INSERT OR IGNORE INTO expected SELECT 'virtual', lower(l.name) || '@' || a.alias, l.name || '@' || l.domain,"
    " l.domain, 0 FROM doc_list l JOIN doc_alias a ON a.domain=l.domain;"
    "INSERT OR IGNORE INTO expected SELECT 'virtual', s.name || '@' || p.place, s.name || '@localhost.localdomain',"
    " p.domain, 1 FROM standard s, doc_place p WHERE p.place NOT IN disabled_domain;";

// A record that names the right address among others is right.
constexpr const char* kMissing =
    "CREATE TABLE missing AS SELECT e.map, e.key, e.value, e.domain FROM expected e LEFT JOIN record r"
    " ON r.key=e.key AND r.map=e.map WHERE r.key IS NULL OR (r.value<>e.value AND NOT e.any_value"
    " AND instr(',' || replace(r.value, ' ', '') || ',', ',' || e.value || ',')=0);"
    "CREATE INDEX missing_domain ON missing(domain, map);";

// An alias is gone when all that it leads to is one domain, which does not name it, and no other document does.
constexpr const char* kSurplus =
    "CREATE TABLE gone_alias AS SELECT n.alias, n.domain FROM node_alias n JOIN doc_domain d ON d.domain=n.domain"
    " WHERE NOT EXISTS(SELECT 1 FROM doc_place p WHERE p.place=n.alias)"
    " AND NOT EXISTS(SELECT 1 FROM record v WHERE v.map='virtual_domains' AND v.key=n.alias)"
    " AND NOT EXISTS(SELECT 1 FROM record r WHERE r.map='virtual' AND r.domain=n.alias AND r.name<>''"
    "  AND r.value NOT LIKE '%@' || n.domain AND r.value NOT LIKE '%@localhost.localdomain' AND r.name IS NOT NULL);"
    "CREATE TABLE place(place TEXT PRIMARY KEY, domain TEXT) WITHOUT ROWID;"
    "INSERT INTO place SELECT place, domain FROM doc_place;"
    "INSERT INTO place SELECT alias, domain FROM gone_alias;"
    "CREATE TABLE surplus(map TEXT, key TEXT, domain TEXT);"
    "INSERT INTO surplus SELECT 'vmailbox', r.key, r.domain FROM doc_domain d JOIN record r ON r.domain=d.domain"
    " AND r.map='vmailbox' WHERE r.name IS NOT NULL"
    " AND NOT EXISTS(SELECT 1 FROM expected e WHERE e.key=r.key AND e.map='vmailbox');"
    "INSERT INTO surplus SELECT 'virtual', r.key, p.domain FROM place p JOIN record r ON r.domain=p.place"
    " AND r.map='virtual' WHERE r.name IS NOT NULL AND r.value LIKE '%@' || p.domain AND instr(r.value, ',')=0"
    " AND r.name<>'' AND NOT EXISTS(SELECT 1 FROM expected e WHERE e.key=r.key AND e.map='virtual');"
    "INSERT INTO surplus SELECT 'virtual', r.key, g.domain FROM gone_alias g JOIN record r ON r.domain=g.alias"
    " AND r.map='virtual' WHERE r.name IS NULL OR r.name='' OR r.value LIKE '%@localhost.localdomain';"
    "CREATE INDEX surplus_domain ON surplus(domain, map); CREATE INDEX surplus_key ON surplus(key, map);";

constexpr const char* kUsers =
    "CREATE TABLE surplus_user AS SELECT u.name, u.domain, p.domain AS owner FROM place p JOIN user u"
    " ON u.domain=p.place WHERE p.place IN (SELECT alias FROM gone_alias)"
    " OR NOT EXISTS(SELECT 1 FROM doc_address a WHERE a.domain=p.domain AND a.address=u.name);"
    "CREATE TABLE missing_user AS SELECT a.address AS name, p.place AS domain, a.name AS mailname, a.domain AS owner"
    " FROM doc_address a JOIN doc_place p ON p.domain=a.domain"
    " WHERE EXISTS(SELECT 1 FROM user u WHERE u.domain=a.domain AND u.name=a.name)"
    " AND NOT EXISTS(SELECT 1 FROM user u WHERE u.domain=p.place AND u.name=a.address);"
    "CREATE TABLE surplus_handler AS SELECT DISTINCT h.address, p.domain AS owner FROM handler h JOIN place p"
    " ON p.place=substr(h.address, instr(h.address, '@') + 1) WHERE instr(h.address, '@') > 1"
    " AND NOT EXISTS(SELECT 1 FROM expected e WHERE e.map='virtual' AND e.key=h.address)"
    " AND NOT EXISTS(SELECT 1 FROM doc_list l WHERE l.domain=p.domain AND lower(l.name) || '@' || p.domain=h.address)"
    " AND NOT EXISTS(SELECT 1 FROM record r WHERE r.map='virtual' AND r.key=h.address"
    "  AND NOT EXISTS(SELECT 1 FROM surplus s WHERE s.map='virtual' AND s.key=r.key));";

/// Finds the ends of JSON objects in a stream, by counting brackets outside strings.
class DocumentCutter {
public:
    /// Takes one byte; true when it ends a document. Throws when it cannot belong to one.
    bool take(char c) {
        if (inString_) {
            inString_ = escaped_ || c != '"';
            escaped_ = !escaped_ && c == '\\';
            return false;
        }
        if (depth_ == 0 && c != '{') {
            throw std::runtime_error("what is on standard input is no session document");
        }
        inString_ = c == '"';
        if (c == '{' || c == '[') {
            ++depth_;
        } else if (c == '}' || c == ']') {
            return --depth_ == 0;
        }
        return false;
    }
    bool within() const noexcept { return depth_ != 0; }

private:
    bool inString_ = false;
    bool escaped_ = false;
    unsigned long depth_ = 0;
};

bool isSpace(char c) {
    return c == ' ' || (c >= '\t' && c <= '\r');
}

}  // namespace

Documents::Documents(NodeState& node) : node_(node) {
    node_.execute(kSchema);
}

void Documents::read(int fd) {
    std::array<char, kChunk> chunk;
    std::string text;
    DocumentCutter cutter;
    node_.execute("BEGIN");
    for (;;) {
        const ssize_t got = kavro::retryInterrupted([&] { return ::read(fd, chunk.data(), chunk.size()); });
        if (got == -1) {
            kavro::throwSystemError("cannot read standard input", errno);
        }
        if (got == 0) {
            break;
        }
        for (ssize_t i = 0; i != got; ++i) {
            const char c = chunk[static_cast<std::size_t>(i)];
            if (!cutter.within() && isSpace(c)) {
                continue;
            }
            const bool ends = cutter.take(c);
            text += c;
            if (ends) {
                load(text);
                text.clear();
            }
        }
    }
    if (cutter.within() || count_ == 0) {
        throw std::runtime_error(count_ == 0 && !cutter.within() ? "there is no session document on standard input"
                                                                 : "the last session document is not complete");
    }
    node_.execute("COMMIT");
    node_.query("SELECT d.domain FROM doc_domain d JOIN doc_alias a ON a.alias=d.domain", {},
                [](const SqliteStatement& row) {
                    throw std::runtime_error(std::string(row.text(0)) +
                                             " is a domain in one session document and a domain alias in another");
                });
}

void Documents::load(const std::string& text) {
    ++count_;
    const std::unique_ptr<std::FILE, int (*)(std::FILE*)> stream(
        ::fmemopen(const_cast<char*>(text.data()), text.size(), "r"), &std::fclose);
    const struct SessionRelease {
        ~SessionRelease() { free_session_mail_db_info(); }
    } release;
    if (stream == nullptr || read_session_mail_db_info(stream.get(), 0) != 0) {
        throw std::runtime_error("session document " + std::to_string(count_) + " cannot be used");
    }
    const mail_db_data_t& data = *session_mail_db_info;
    const std::string domain = data.domain_name;
    const auto once = [&](const char* sql, std::initializer_list<const char*> values, const std::string& what) {
        Insertion insert(node_, sql);
        insert(values);
        if (::sqlite3_changes(node_.database().get()) == 0) {
            throw std::runtime_error(what + " is named by two session documents");
        }
    };
    once("INSERT OR IGNORE INTO doc_domain VALUES(?, ?)", {domain.c_str(), std::to_string(data.domain_quota).c_str()},
         domain);
    for (std::size_t i = 0; i != data.domain_aliases_count; ++i) {
        const char* const alias = data.domain_aliases[i];
        if (!node_.exists("SELECT 1 FROM doc_alias WHERE alias=? AND domain=?", {alias, domain})) {
            once("INSERT OR IGNORE INTO doc_alias VALUES(?, ?)", {alias, domain.c_str()}, alias);
        }
    }
    // The first of equal names counts, as for every command.
    Insertion list(node_, "INSERT OR IGNORE INTO doc_list VALUES(?, ?)");
    for (std::size_t i = 0; i != data.maillists_count; ++i) {
        list({domain.c_str(), data.maillists[i]});
    }
    Insertion mail(node_, "INSERT OR IGNORE INTO doc_mail VALUES(?, ?, ?)");
    Insertion mailAlias(node_, "INSERT OR IGNORE INTO doc_mail_alias VALUES(?, ?, ?)");
    for (std::size_t i = 0; i != data.mails_count; ++i) {
        const mail_db_mail_t& entry = data.mails[i];
        const std::int64_t quota = entry.quota == -1 ? data.domain_quota : entry.quota;
        mail({domain.c_str(), entry.name, std::to_string(quota).c_str()});
        for (std::size_t alias = 0; alias != entry.aliases_count; ++alias) {
            mailAlias({domain.c_str(), entry.aliases[alias], entry.name});
        }
    }
}

void compareWithDocuments(NodeState& node) {
    for (const char* script : {kExpected, kMissing, kSurplus, kUsers}) {
        node.execute(script);
    }
}

}  // namespace mxrepair
