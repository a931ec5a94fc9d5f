// Reading of the configuration file and what stands in for it.
#include "util/config.h"

#include "util/support.h"

namespace {

using Config = ScratchTest;

constexpr const char* kFile = "/etc/zcp/zcp.conf";

std::shared_ptr<ConfTable> emptyTable() {
    return {static_cast<ConfTable*>(std::calloc(1, sizeof(ConfTable))), conf_free_r};
}

TEST_F(Config, ReadsLinesAsWritten) {
    struct {
        const char* text;
        const char* value;   ///< of KEY; null when it is not defined
        const char* logged;  ///< what follows the rest of the line; null when nothing is logged
    } const cases[] = {
        {" \t\vKEY \t a b", "a b", nullptr},
        {"KEY /path # comment\n", "/path", nullptr},
        {"KEY /path  # comment\n", "/path  ", nullptr},
        {"KEY /path   # comment\n", "/path  ", nullptr},
        {"KEY /path \n", "/path \n", nullptr},
        {"KEY /path\r\n", "/path\r\n", nullptr},
        {"KEY one\nKEY two\n", "two", nullptr},
        {"  # KEY x\n\n   \nkey x\n", nullptr, nullptr},
        {"KEY=/path\n", nullptr, "\nExpected a space after variable name\n"},
        {"KEY  \n", nullptr, "\nExpected a value"},
    };
    for (const auto& c : cases) {
        const LogCapture log;
        writeFile(path("conf"), c.text);
        const auto table = emptyTable();
        ASSERT_EQ(conf_read_file_r(path("conf").c_str(), table.get()), 0);
        EXPECT_STREQ(conf_get_r("KEY", table.get()), c.value) << c.text;
        std::vector<std::string> expected;
        if (c.logged != nullptr) {
            expected.push_back(std::string("12 Invalid variable definition ") + c.text + c.logged);
        }
        EXPECT_EQ(LogCapture::messages, expected) << c.text;
    }
}

TEST_F(Config, TableGrowsAndFindsSortedAndUnsorted) {
    const auto table = emptyTable();
    for (int i = 40; i >= 0; --i) {
        ASSERT_EQ(conf_set_r(("K" + std::to_string(i)).c_str(), "v", table.get()), 0);
    }
    EXPECT_STREQ(conf_get_r("K0", table.get()), "v");
    conf_finalize_r(table.get());
    EXPECT_STREQ(conf_get_r("K40", table.get()), "v");
}

TEST_F(Config, DefaultsStandInUntilTheFileCanBeRead) {
    std::filesystem::create_directories("/etc/zcp");
    std::filesystem::remove(kFile);
    const LogCapture log;
    EXPECT_STREQ(zcpConfGetDefaultByIndex(kMailRootKey), "/var/qmail/mailnames");
    EXPECT_STREQ(zcpConfGetDefault("PRODUCT_ROOT_D"), "/opt/zcp");
    EXPECT_EQ(conf_read_file_r("/tmp", emptyTable().get()), -1);
    writeFile(kFile, "KAVRO_MAILNAMES_D /srv/mail\n");
    EXPECT_STREQ(zcpConfGetDefault("KAVRO_MAILNAMES_D"), "/srv/mail");
    std::filesystem::remove(kFile);
    EXPECT_STREQ(zcpConfGetDefaultByIndex(kMailRootKey), "/srv/mail");
    EXPECT_EQ(zcpConfGetDefault("_MAX_POSSIBLE_ZCP_CONF_VAR_NAME"), nullptr);
    const std::string missing = "12 unable to open configuration file /etc/zcp/zcp.conf: No such file or directory\n";
    EXPECT_EQ(LogCapture::messages,
              (std::vector<std::string>{missing, missing, "12 unable to open configuration file /tmp: Is a directory\n",
                                        "3 variable '_MAX_POSSIBLE_ZCP_CONF_VAR_NAME' was found neither in "
                                        "/etc/zcp/zcp.conf, nor in compile-time defaults"}));
}

}  // namespace
