// Making of missing stores: only what is missing, with the right owner and mode, and never over anything.
#include "mxrepair/init.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

namespace {

const std::string kRoots =
    "/etc/domainkeys /usr/lib/kavro-9.0 /var/lib/kavro /var/lock/files /var/qmail /var/spool/postfix/kavro";
const std::string kTables = "/var/spool/postfix/kavro/";

std::string init() {
    std::ostringstream report;
    mxrepair::makeMissingStores(report);
    return report.str();
}

/// What a shell command prints.
std::string shell(const std::string& command) {
    const std::string path = testing::TempDir() + "/mxrepair_output";
    EXPECT_EQ(std::system(("{ " + command + "; } >" + path).c_str()), 0) << command;
    std::ifstream output(path);
    return {std::istreambuf_iterator<char>(output), {}};
}

/// Owner, group and mode of everything, each with the names that have them.
std::string rights() {
    return shell("find " + kRoots + " ! -path '*/files/*' -printf '%u:%g %m\t%f\n' | LC_ALL=C sort |" +
                 "awk -F '\t' '{ a[$1] = a[$1] \" \" $2 } END { for (k in a) print k a[k] }' | sort");
}

/// What the files hold, but for those below `omitted`.
std::string contents(const std::string& omitted = "-") {
    return shell("find " + kRoots + " -type f ! -path '" + omitted + "*' -exec md5sum {} + | sort");
}

TEST(Init, MakesWhatIsMissingAndOnlyThat) {
    shell("rm -rf " + kRoots);
    EXPECT_NE(init().find("created directory /var/qmail\ncreated directory /var/qmail/mailnames\n"), std::string::npos);
    EXPECT_EQ(rights(), R"(popuser:popuser 755 mailnames
postfix:postfix 770 kavro
postfix:root 440 passwd_db_key
postfix:root 460 passwd.db
root:popuser 640 handlers.db
root:root 644 aliases.db virtual.db virtual_domains.db vmailbox.db
root:root 755 domain_rename domainkeys files handlers kavro kavro-9.0 mail qmail
)");
    EXPECT_EQ(init(), "");
    shell("chmod 700 /etc/domainkeys; echo 'a@b.test c' | /usr/sbin/postmap -i hash:" + kTables + "virtual");
    const std::string before = rights();
    for (const std::string path : {"/usr/lib/kavro-9.0/domain_rename", "/var/lib/kavro/mail/handlers/handlers.db",
                                   "/var/spool/postfix/kavro/vmailbox.db"}) {
        const std::string others = contents(path);
        shell("rm -r " + path);
        const std::string report = init();
        EXPECT_EQ(std::count(report.begin(), report.end(), '\n'), 1) << report;
        EXPECT_EQ(rights(), before);
        EXPECT_EQ(contents(path), others);
    }
}

}  // namespace
