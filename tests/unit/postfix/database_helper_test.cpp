// Changes of tables with the real postmap, and with one that fails.
#include "postfix/database_helper.h"

#include <gmock/gmock.h>

#include <list>

#include "postfix/postfix_errors.h"
#include "process/subprocess.h"
#include "process/system_error.h"
#include "tables_fixture.h"

namespace kavro::mail::postfix {
namespace {

using test::textOf;
using Records = std::list<DatabaseHelper::Record>;

class DatabaseHelperTest : public TablesTest {
protected:
    static void remove() { DatabaseHelper::removeRecord(kVirtualTable, "a@x"); }
    static void removeSeveral() {
        const std::list<std::string> keys{"a@x", "b@x"};
        DatabaseHelper::removeRecords(kVirtualTable, keys.begin(), keys.end());
    }
    static void replace() {
        const Records records{{"new@x", "old"}, {"new@x", "v"}};
        DatabaseHelper::replaceRecords(kVirtualTable, records.begin(), records.end());
    }
    static void filter() { DatabaseHelper::filterElements(kVirtualTable, NotInDomainFilter("x", false)); }
};

TEST(CheckOutput, FailsByTheSeverityWord) {
    struct Case {
        const char* text;
        bool lenient;
        bool strict;
    };
    for (const Case& c : {Case{"", true, true},
                          {"postmap: fatal: open x: none\n", false, false},
                          {"postmap: error: x", false, false},
                          {"postmap:panic: x", false, false},
                          {"postmap: warning: a\npostmap: fatal: b\n", false, false},
                          {"postmap: warning: x\n", true, true},
                          {"postmap: warn: x\n", true, false},
                          {"postmap: info: x\n", true, false},
                          {"postmap: fatal\n", true, true},
                          {"fatal: no second colon\n", true, true},
                          {"no colon at all\nends with:\nblank:   \na: b\n", true, true},
                          {"a: :", true, true},
                          {"a: b:", true, false}}) {
        EXPECT_EQ(DatabaseHelper::checkOutput(c.text, false), c.lenient) << c.text;
        EXPECT_EQ(DatabaseHelper::checkOutput(c.text, true), c.strict) << c.text;
    }
}

TEST_F(DatabaseHelperTest, AddsOverwritesRemovesAndReplaces) {
    fill(kVirtualTable, {{"a@x", "old"}, {"b@x", "b"}});
    std::vector<DatabaseHelper::Record> many{{"a@x", "new"}};
    std::list<std::string> keys{"absent@x"};
    for (int i = 0; i < 5000; ++i) {
        keys.push_back("name" + std::to_string(i) + "@x");
        many.emplace_back(keys.back(), "target@x");
    }
    DatabaseHelper::addRecords(kVirtualTable, many.begin(), many.end());
    Table expected(many.begin(), many.end());
    expected["b@x"] = "b";
    EXPECT_EQ(dump(kVirtualTable), expected);
    DatabaseHelper::removeRecords(kVirtualTable, keys.begin(), keys.end());
    DatabaseHelper::removeRecord(kVirtualTable, "absent@x");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"a@x", "new"}, {"b@x", "b"}}));
    remove();
    EXPECT_EQ(dump(kVirtualTable), (Table{{"b@x", "b"}}));
    replace();
    EXPECT_EQ(dump(kVirtualTable), (Table{{"new@x", "v"}}));
    const Records none;
    DatabaseHelper::replaceRecords(kVirtualTable, none.begin(), none.end());
    EXPECT_EQ(dump(kVirtualTable), Table());
    usePostmap("exit 1");
    EXPECT_NO_THROW(DatabaseHelper::addRecords(kVirtualTable, none.begin(), none.end()));
}

TEST_F(DatabaseHelperTest, FailedRunsCarryTheDiagnosticsAndChangeNothing) {
    fill(kVirtualTable, {{"a@x", "1"}, {"b@x", "2"}});
    usePostmap("echo 'postmap: fatal: no' >&2; exit 1");
    EXPECT_EQ(textOf<PostfixConfigurationError>(replace), "postmap: fatal: no\n");
    for (const auto& change : {remove, removeSeveral}) {
        EXPECT_EQ(textOf<PostfixDatabaseError>(change), "postmap: fatal: no\n");
    }
    usePostmap("kill -9 $$");
    EXPECT_EQ(textOf<PostfixDatabaseError>(remove), "");
    usePostmap("exit 1");
    EXPECT_NO_THROW(remove());
    EXPECT_NO_THROW(removeSeveral());
    usePostmap("exit 127");
    EXPECT_EQ(textOf<PostfixDatabaseError>(removeSeveral), "");
    usePostmap("exit 0");
    const Records more(20000, {"new@x", "v"});
    EXPECT_THROW(DatabaseHelper::addRecords(kVirtualTable, more.begin(), more.end()), SystemError);
    usePostmap("[ $n = 2 ] && exit 3");
    EXPECT_EQ(textOf<PostfixConfigurationError>(filter), "unknown error");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"a@x", "1"}, {"b@x", "2"}}));
    EXPECT_NO_THROW(filter()) << "the lock was given back";
}

TEST_F(DatabaseHelperTest, RefusesWhatPostmapWouldReadAsSomethingElse) {
    usePostmap("");
    Records bad{{"a@x", ""}, {"a@x", " \t"}, {"a@x", "v\nb@x v"}, {std::string("a\0b", 3), "v"}};
    for (const char* latin : {"caf\xe9", "\xc3", "\xe0\x80\x80", "\xed\xa0\x80", "\xf4\x90\x80\x80", "\xc3\xa9\xa9"}) {
        bad.emplace_back("a@x", latin);
    }
    for (const char* key : {"", "a b@x", "a\v@x", "a@x v\nb@x", "#a@x", "a\"@x", "a\\", "caf\xe9@x"}) {
        bad.emplace_back(key, "v");
    }
    for (const auto& [key, value] : bad) {
        EXPECT_THROW(DatabaseHelper::addRecord(kVirtualTable, key, value), PostfixConfigurationError) << key;
        const Records records{{"good@x", "v"}, {key, value}};
        EXPECT_THROW(DatabaseHelper::replaceRecords(kVirtualTable, records.begin(), records.end()),
                     PostfixConfigurationError);
    }
    for (const std::string key : {"", "a@x\nb@x", "a b"}) {
        const std::vector<std::string> keys{"good@x", key};
        EXPECT_THROW(DatabaseHelper::removeRecords(kVirtualTable, keys.begin(), keys.end()), PostfixDatabaseError);
        EXPECT_THROW(DatabaseHelper::removeRecord(kVirtualTable, key), PostfixDatabaseError);
    }
    EXPECT_EQ(runs(), "");
    DatabaseHelper::addRecord(kVirtualTable, "a#b@x", "\"|cmd 'x' \\\"\", #c é€\xf0\x9f\x93\xa7");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"a#b@x", "\"|cmd 'x' \\\"\", #c é€\xf0\x9f\x93\xa7"}}));
}

TEST_F(DatabaseHelperTest, TextSourceIsNeverWrittenThroughALeftover) {
    std::ofstream("/tmp/precious") << "precious";
    std::filesystem::create_symlink("/tmp/precious", kTablesDirectory / "virtual");
    replace();
    EXPECT_EQ(outputOf("cat /tmp/precious"), "precious");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"new@x", "v"}}));
}

TEST_F(DatabaseHelperTest, ABatchAddsThenRemovesTableByTable) {
    fill(kVirtualTable, {{"old@x", "1"}});
    const std::vector<std::string> keys{"old@x", "both@x"};
    BatchDatabaseHelper batch(true, false);
    batch.removeChanges(kVirtualTable, keys.begin(), keys.end());
    for (const char* table : {kVmailboxTable, kVirtualTable, kAliasesTable}) {
        batch.addChange(table, "both@x", "1");
        batch.addChange(table, "kept@x", "1");
    }
    EXPECT_EQ(runs(), "");
    usePostmap("[ $n = 2 ] && exit 1");
    EXPECT_THROW(batch.commit(), PostfixConfigurationError);
    usePostmap("");
    batch.commit();
    batch.commit();
    BatchDatabaseHelper(true, false).addChange(kVirtualTable, "dropped@x", "1");
    const std::string add = "-r -i ";
    EXPECT_EQ(runs(), add + kAliasesTable + "\n" + add + kVirtualTable + "\n" + add + kVmailboxTable + "\n-d - " +
                          kVirtualTable + "\n");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"kept@x", "1"}}));

    BatchDatabaseHelper().addChange(kVirtualTable, "added@x", "1");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"added@x", "1"}, {"kept@x", "1"}}));
    BatchDatabaseHelper(false).addChange(kVirtualTable, "alone@x", "1");
    EXPECT_EQ(dump(kVirtualTable), (Table{{"alone@x", "1"}}));
}

}  // namespace
}  // namespace kavro::mail::postfix
