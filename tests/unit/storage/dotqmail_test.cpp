// Delivery files, edited as the commands edit them, and the detection of the server that delivers.
#include "storage/dotqmail.h"

#include "process/system_error.h"
#include "storage/imap_server.h"
#include "storage_fixture.h"

namespace fs = std::filesystem;
using ::testing::ExitedWithCode;
using ::testing::HasSubstr;
using ::testing::StartsWith;

class DotqmailTest : public StorageTest {
protected:
    void SetUp() override {
        StorageTest::SetUp();
        run("rm -rf /usr/bin/deliverquota /usr/lib/dovecot; mkdir /usr/lib/dovecot; "
            "install -m 401 /dev/null /usr/lib/dovecot/dovecot-lda");
    }
    const fs::path COURIER = "/usr/bin/deliverquota";
    const fs::path file = home / ".qmail";
    const std::string lda = "| /usr/lib/dovecot/dovecot-lda -d \"$DELIVERED_TO\"\n";
    kavro::mail::DotQMailManager dotqmail{home.string()};
};

// First of this file, and in children: a detected server stays for the life of the process.
TEST_F(DotqmailTest, DetectsTheServerAndRemembersOnlyOneFound) {
    const auto courierLater = [this] {
        const bool failed = detectImapPop3Server() == -1 && *getImapPop3ServerHumanReadableName() == '\0';
        std::fputs(logged.c_str(), stderr);
        fs::permissions(COURIER, fs::perms::group_exec);
        const bool found =
            detectImapPop3Server() == 0 && fs::remove(COURIER) && dotqmail_add_delivery(file.c_str()) == 0;
        return failed && found && getImapPop3ServerPkgctlComponentName() == std::string("courier-imap");
    };
    EXPECT_EXIT(std::_Exit(detectImapPop3Server()), ExitedWithCode(1), "");
    writeFile(COURIER, "");
    dotqmail.reset();
    EXPECT_EXIT(std::_Exit(courierLater()), ExitedWithCode(1),
                "^3 Unable to detect IMAP/POP3 server type - LDA is present at '/usr/bin/deliverquota' but is not a "
                "regular file or is not executable\n");
    EXPECT_EQ(readFile(file), "| true\n| /usr/bin/deliverquota ./Maildir\n");
}

TEST_F(DotqmailTest, KeepsOneLinePerDirective) {
    writeFile(file, "longer than what follows\n");
    dotqmail.reset();
    dotqmail.enableDelivery();
    EXPECT_EQ(add_mailname_delivery("Info", "Example.COM"), 0);
    EXPECT_EQ(readFile(file), "| true\n" + lda);
    dotqmail.addRedirect("a@example.org", {});
    dotqmail.addRedirect("B@b\u00fccher.test", {});
    EXPECT_EQ(add_mn_forward("info", "example.com", "a@example.org"), 0);
    EXPECT_EQ(readFile(file), "| true\n" + lda + "&B@xn--bcher-kva.test\n&a@example.org\n");
    writeFile(file, "./Maildir/\n./Maildir/x\n| /usr/bin/deliverquota ./Maildir\n" + readFile(file));
    run("chown 0:0 " + file.string() + "; chmod 644 " + file.string());
    EXPECT_EQ(dotqmail_remove_delivery_strings(file.c_str()), 0);
    writeFile(file, readFile(file) + lda);
    EXPECT_EQ(remove_mailname_delivery("info", "example.com"), 0);
    EXPECT_EQ(readFile(file), "./Maildir/x\n| true\n&B@xn--bcher-kva.test\n&a@example.org\n");
    EXPECT_EQ(describe(file), "100600 popuser");
    dotqmail.removeRedirect("B@b\u00fccher.test");
    EXPECT_EQ(rm_mn_forward("info", "example.com", "a@example.org"), 0);
    EXPECT_EQ(readFile(file), "./Maildir/x\n| true\n");
}

TEST_F(DotqmailTest, FailsWithoutHarm) {
    const std::string unable = "unable to modify " + file.string() + ": ";
    EXPECT_THAT(textOf<kavro::SystemError>([&] { dotqmail.disableDelivery(); }), StartsWith(unable));
    EXPECT_EQ(logged, "4 Unable to remove old delivery strings from '" + file.string() + "'\n");
    EXPECT_FALSE(fs::exists(file));

    writeFile(root / "victim", "kept");
    fs::create_symlink(root / "victim", file);
    logged.clear();
    EXPECT_THAT(textOf<kavro::SystemError>([&] { dotqmail.reset(); }), StartsWith(unable + "Too many levels"));
    EXPECT_EQ(logged, "3 Unable to open '" + file.string() + "': Too many levels of symbolic links\n");
    EXPECT_EQ(readFile(root / "victim"), "kept");

    // A home that was swapped for a link leads nowhere.
    fs::remove(file);
    dotqmail.reset();
    fs::rename(home, root / "moved");
    fs::create_directory_symlink(root / "moved", home);
    EXPECT_THAT(textOf<kavro::SystemError>([&] { dotqmail.reset(); }), StartsWith(unable));
    EXPECT_THAT(textOf<kavro::SystemError>([&] { dotqmail.enableDelivery(); }), StartsWith(unable));
    EXPECT_EQ(dotqmail_add_forward(file.c_str(), "a@example.org") + dotqmail_remove_delivery(file.c_str()), -2);
    EXPECT_EQ(readFile(root / "moved/.qmail"), "| true\n");
    fs::remove(home);
    fs::rename(root / "moved", home);
    EXPECT_EQ(std::distance(fs::directory_iterator(home), {}), 3);

    fs::remove(file);
    run("mkfifo " + file.string());
    EXPECT_THROW(dotqmail.reset(), kavro::SystemError);
    EXPECT_THROW(dotqmail.enableDelivery(), kavro::SystemError);
    fs::remove(file);
    run("cd " + home.string() + "; mount -t tmpfs -o size=64k none . && cat /dev/zero 2>/dev/null >$PWD/fill || true");
    EXPECT_EQ(textOf<kavro::SystemError>([&] { dotqmail.reset(); }), unable + "No space left on device");
    EXPECT_THAT(logged, HasSubstr("3 Unable to write to '" + file.string() + "': No space left on device\n"));
    EXPECT_FALSE(fs::exists(file));
    run("umount " + home.string());
}

TEST_F(DotqmailTest, NamesPathsInLowerCaseRootIncluded) {
    char path[4096];
    EXPECT_THAT(reportOf([&] { get_mailhome_path(path, home.string().size(), "info", "example.com"); }),
                HasSubstr("Either domain name 'example.com' or mailname 'info' are too long to "
                          "store mailname home path in the provided buffer\n"));
    EXPECT_EQ(get_mailhome_path(path, home.string().size() + 1, "info", "example.com"), 0);
    run("echo KAVRO_MAILNAMES_D /srv/Mail >/etc/zcp/zcp.conf");
    const auto configured = [&] {
        return get_dotqmail_path(path, sizeof path, "Info", "Example.COM") == 0 &&
               std::string(path) == "/srv/mail/example.com/info/.qmail" &&
               manager.getDomainRoot("Example.COM") == "/srv/Mail/example.com";
    };
    EXPECT_EXIT(std::_Exit(configured()), ExitedWithCode(1), "");
}
