// Taking back a rename: what a whole-table edit changed comes back as it was, everything else stays.
#include "postfix/rename_transaction.h"

#include <functional>

#include "tables_fixture.h"

namespace kavro::mail::postfix {
namespace {

using namespace database;

class RenameTransactionTest : public TablesTest {
protected:
    /// Renames a@d to b@d in keys and lists, as for a mailname; `later` runs, then the step is taken back.
    void renameMailnameAndFail(const std::function<void()>& later) {
        const std::string oldAddress = "a@d";
        const std::string newAddress = "b@d";
        const ElementsFilter forward(ReplaceElementFilterRef(oldAddress, newAddress));
        failAfter(forward, ReplaceElementFilterRef(newAddress, oldAddress), later);
    }

    /// Renames domain d.test to n.test in keys and paths.
    void renameDomainAndFail(const std::function<void()>& later) {
        const std::string oldDomain = "d.test";
        const std::string newDomain = "n.test";
        const KeyValueFilter forward(ReplaceDomainPart(oldDomain, newDomain, false),
                                     ReplaceDomainPath(oldDomain, newDomain));
        failAfter(forward, ReplaceDomainPart(newDomain, oldDomain, false), later);
    }

private:
    template <typename Forward, typename WayBack>
    void failAfter(const Forward& forward, const WayBack& wayBack, const std::function<void()>& later) {
        RenameTransaction transaction;
        transaction.filterTable(kVirtualTable, kVirtualHumanName, forward, wayBack);
        later();
    }
};

TEST_F(RenameTransactionTest, ComesBackFromEveryMeetingOfNames) {
    const std::vector<Table> tables = {
        {{"a@d", "a@d"}, {"x@d", "a@d"}, {"x@e", "x@e"}},                   // plain
        {{"b@d", "b@d"}, {"y@d", "b@d"}},                                   // repeated: no a, live b
        {{"a@d", "a@d"}, {"b@d", "b@d"}, {"y@d", "a@d, b@d"}},              // onto an existing name
        {{"a@d", "a@d"}, {"b@d", "b@d,c@e"}, {"al@d", "a@d"}},              // the existing one holds a list
        {{"a@d", "a@d"}, {"b@d", "a@d"}, {"c@d", "a@d,b@d"}},               // b was an alias of a
        {{"b@d", "a@d, z@e"}, {"a@d", "b@d"}},                              // and a an alias of b
        {{"a@d/", "1"}, {"b@d/", "2"}, {"p@e", "q@e  r@e"}, {"e@e", ",,"}}  // odd values
    };
    for (const Table& table : tables) {
        fill(kVirtualTable, table);
        renameMailnameAndFail([] {});
        EXPECT_EQ(dump(kVirtualTable), table);
    }
    const std::vector<Table> mailboxes = {
        {{"i@d.test", "d.test/i/Maildir/"}, {"i@n.test", "n.test/i/Maildir/"}, {"d.test", "x"}, {"n.test", "y"}},
        {{"i@n.test", "n.test/i/Maildir/"}, {"i@d.testing", "d.testing/i/"}, {"i@s.d.test", "s.d.test/i/"}}};
    for (const Table& table : mailboxes) {
        fill(kVirtualTable, table);
        renameDomainAndFail([] {});
        EXPECT_EQ(dump(kVirtualTable), table);
    }
}

TEST_F(RenameTransactionTest, WhatWasWrittenMeanwhileStays) {
    fill(kVirtualTable, {{"a@d", "a@d"}, {"x@d", "a@d"}, {"y@d", "a@d"}, {"free@d", "free@d"}});
    renameMailnameAndFail([] {
        EXPECT_EQ(dump(kVirtualTable), (Table{{"b@d", "b@d"}, {"x@d", "b@d"}, {"y@d", "b@d"}, {"free@d", "free@d"}}));
        const std::vector<DatabaseHelper::Record> later{
            {"new@d", "b@d"}, {"x@d", "elsewhere@e"}, {"b@d", "taken@e"}, {"odd@e", "p@e,q@e"}};
        DatabaseHelper::addRecords(kVirtualTable, later.begin(), later.end());
        DatabaseHelper::removeRecord(kVirtualTable, "free@d");
        // The rebuilt text must hold each key once.
        usePostmap("[ $# = 1 ] && awk 'seen[$1]++ { exit 1 }' " + (kTablesDirectory / "virtual").string() +
                   " || [ \"$1\" = -s ] || exit 1");
    });
    EXPECT_EQ(dump(kVirtualTable), (Table{{"a@d", "a@d"},
                                          {"x@d", "elsewhere@e"},
                                          {"y@d", "a@d"},
                                          {"new@d", "b@d"},
                                          {"b@d", "taken@e"},
                                          {"odd@e", "p@e,q@e"}}));
}

TEST_F(RenameTransactionTest, ARecordWithoutRivalThatWasRemovedMeanwhileStaysAway) {
    fill(kVirtualTable, {{"b@d", "b@d"}, {"x@d", "a@d"}});
    renameMailnameAndFail([] { DatabaseHelper::removeRecord(kVirtualTable, "b@d"); });
    EXPECT_EQ(dump(kVirtualTable), (Table{{"x@d", "a@d"}}));
}

}  // namespace
}  // namespace kavro::mail::postfix
