// What the documents say beside what the node holds, as findings. --fix leaves all of them to --sync, which makes many
// changes in few runs.
#include "mxrepair/document_check.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <boost/filesystem.hpp>
#include <climits>
#include <sstream>

#include "mxrepair/mailbox_files.h"
#include "process/descriptors.h"
#include "services/domain_keys.h"
#include "storage/mail_tree.h"
#include "storage/maildirsize.h"
#include "util/directory_tree.h"
#include "util/file_io.h"

namespace mxrepair {

namespace {

namespace fs = boost::filesystem;
using kavro::SqliteStatement;

constexpr const char* kSync = "run --sync with this document";
constexpr const char* kStorage = "mail storage";

fs::path homeOf(const std::string& domain, const std::string& name) {
    return kavro::mail::mailboxPath(domain, name);
}

/// One finding for each domain of a document that nothing here belongs to; it is not compared any further.
void checkForeign(CheckContext& context) {
    context.each(
        "SELECT domain FROM doc_domain d WHERE NOT EXISTS(SELECT 1 FROM node_domain n WHERE n.domain=d.domain)"
        " ORDER BY domain",
        [](const SqliteStatement& row) {
            return Finding{"document", row.text(0), row.text(0), "names no domain of this node",
                           "--sync would make it"};
        });
}

void checkHomes(CheckContext& context) {
    context.node.query(
        "SELECT m.domain, m.name, m.quota, EXISTS(SELECT 1 FROM home h WHERE h.domain=m.domain AND h.name=m.name),"
        " EXISTS(SELECT 1 FROM user u WHERE u.domain=m.domain AND u.name=m.name) FROM doc_mail m"
        " WHERE m.domain IN (SELECT domain FROM node_domain) ORDER BY m.domain, m.name",
        {}, [&](const SqliteStatement& row) {
            const std::string domain = row.text(0);
            const std::string name = row.text(1);
            const std::string path = homeOf(domain, name).string();
            if (row.number(3) == 0) {
                context.findings.add({kStorage, path, domain, "a mailname of the document without its home", kSync});
                return;
            }
            const long expected = expectedLimit(domain, name, row.number(2));
            const long shown = shownLimit(domain, name);
            if (shown != -1 && shown != expected) {
                context.findings.add({kStorage, path, domain,
                                      "the quota is " + std::to_string(shown) + " bytes instead of " +
                                          std::to_string(expected) + " (0: none)",
                                      kSync});
            }
            if (row.number(4) == 0 && delivers(domain, name)) {
                context.findings.add({"passwd.db", name + '@' + domain, domain, "a mailbox without a password",
                                      "set it with mxadmin --set-password"});
            }
        });
    context.each(
        "SELECT h.domain, h.name FROM doc_domain d JOIN home h ON h.domain=d.domain WHERE NOT EXISTS(SELECT 1"
        " FROM doc_mail m WHERE m.domain=h.domain AND m.name=h.name) ORDER BY 1, 2",
        [](const SqliteStatement& row) {
            return Finding{kStorage, homeOf(row.text(0), row.text(1)).string(), row.text(0),
                           "a home that the document does not name", "remove it when its mail is not wanted"};
        });
}

}  // namespace

long expectedLimit(const std::string& domain, const std::string& name, long quota) {
    const std::string attachments = (homeOf(domain, name) / "@attachments").string();
    struct stat status {};
    if (quota >= 0 && ::lstat(attachments.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        quota = std::max(0L, quota - std::max(0L, get_dir_size(attachments.c_str(), 0)));
    }
    return limitOf(quota);
}

long shownLimit(const std::string& domain, const std::string& name) {
    std::uint64_t size = 0;
    std::uint64_t count = 0;
    long sizeLimit = 0;
    long countLimit = 0;
    const std::string maildir = (homeOf(domain, name) / "Maildir").string();
    const bool usable = get_maildirpp_usage_and_limits(maildir.c_str(), 1, &size, &count, &sizeLimit, &countLimit) == 1;
    return usable ? sizeLimit : -1;
}

bool delivers(const std::string& domain, const std::string& name) {
    // The mail user could have put anything there.
    const kavro::FdOwner file(kavro::openRegular((homeOf(domain, name) / ".qmail").c_str(), O_RDONLY | O_NOFOLLOW));
    std::string text;
    std::array<char, 4096> chunk;
    for (ssize_t got = 0; !file.empty() && (got = ::read(file.get(), chunk.data(), chunk.size())) > 0;) {
        text.append(chunk.data(), static_cast<std::size_t>(got));
    }
    std::istringstream lines(text);
    std::string line;
    while (std::getline(lines, line)) {
        if (line == "./Maildir/" || line.find("deliverquota") != std::string::npos ||
            line.find("dovecot-lda") != std::string::npos) {
            return true;
        }
    }
    return false;
}

void checkDocuments(CheckContext& context) {
    compareWithDocuments(context.node);
    checkForeign(context);
    context.each(
        "SELECT map, key, domain, value FROM missing WHERE domain IN (SELECT domain FROM node_domain)"
        " ORDER BY domain, map, key",
        [](const SqliteStatement& row) {
            return Finding{row.text(0), row.text(1), row.text(2),
                           std::string("does not lead to ") + row.text(3) + ", as the document says", kSync};
        });
    context.each("SELECT map, key, domain FROM surplus ORDER BY domain, map, key", [](const SqliteStatement& row) {
        return Finding{row.text(0), row.text(1), row.text(2), "is not in the document", kSync};
    });
    context.each("SELECT name, domain, owner FROM surplus_user ORDER BY domain, name", [](const SqliteStatement& row) {
        return Finding{"passwd.db", std::string(row.text(0)) + '@' + row.text(1), row.text(2),
                       "a login that is not in the document", kSync};
    });
    context.each("SELECT name, domain, owner FROM missing_user ORDER BY domain, name", [](const SqliteStatement& row) {
        return Finding{"passwd.db", std::string(row.text(0)) + '@' + row.text(1), row.text(2),
                       "the mailbox has a password, this name of it has none", kSync};
    });
    context.each("SELECT address, owner FROM surplus_handler ORDER BY owner, address", [](const SqliteStatement& row) {
        return Finding{"handlers.db", row.text(0), row.text(1), "handlers of an address that is not in the document",
                       kSync};
    });
    context.each(
        "SELECT a.alias, a.domain FROM doc_alias a JOIN signing_key k ON k.domain=a.domain WHERE k.whole AND"
        " NOT EXISTS(SELECT 1 FROM signing_key o WHERE o.domain=a.alias AND o.whole) ORDER BY a.domain, a.alias",
        [](const SqliteStatement& row) {
            return Finding{"domain keys", row.text(0), row.text(1), "a domain alias without the domain's key", kSync};
        });
    checkHomes(context);
}

}  // namespace mxrepair
