// The handlers database on real files, seen through SQLite itself.
#include "handlers/handlers_database.h"

#include <gmock/gmock.h>

#include "util/support.h"

using testing::ElementsAre;
using testing::HasSubstr;

namespace {

class HandlersDatabase : public testing::Test {
protected:
    static inline std::vector<std::string>& logged = LogCapture::messages;
    const LogCapture log;

    HandlersDatabase() {
        std::filesystem::remove_all("/tmp/handlers");
        mh_db_path_set("/tmp/handlers/made/handlers.db");
        EXPECT_EQ(mh_db_create(), 0);
        logged.clear();
    }
    static std::string query(const std::string& sql) { return rowsOf(mh_db_path, sql); }
    static std::string addresses() { return query("SELECT address FROM handlers ORDER BY 1"); }
    /// Inserts rows past our code: name, address, priority, enabled, type, queue.
    static void insert(const std::string& values) {
        query(
            "INSERT INTO handlers(name, address, priority, enabled, type, queue, executable, context, protected) "
            "SELECT column1, column2, column3, column4, column5, column6, '/bin/' || column1, 'c', 1 FROM (VALUES " +
            values + ")");
    }
};

}  // namespace

TEST_F(HandlersDatabase, AddStoresEveryFieldAndReplacesTheSameHandler) {
    char name[] = "spam", address[] = "Joe@Dom.Test", executable[] = "/bin/x";
    mh_data added{0, 6, 5, name, address, executable, nullptr, 1, 0};
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    added = {7, 6, 5, name, address, executable, nullptr, 0, 1};
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    added.context = name;
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    EXPECT_EQ(query("SELECT queue||type||enabled||priority||'|'||name||'|'||address||'|'||executable||'|'||context"
                    "||'|'||protected FROM handlers ORDER BY 1"),
              "5617|spam|joe@dom.test|/bin/x|none|0 5617|spam|joe@dom.test|/bin/x|spam|0");
}

TEST_F(HandlersDatabase, GlobalHandlersTakeOnlyTheirOwnRecipients) {
    char name[] = "n", mail[] = "joe@dom.test", empty[] = "", every[] = "all-recipients";
    for (char* address : {mail, empty, every}) {
        const mh_data added{0, kGlobalHandlerType, 5, name, address, name, name, 0, 0};
        EXPECT_EQ(mh_db_add(nullptr, &added), address == mail ? -1 : 0);
    }
    EXPECT_EQ(addresses(), "all all-recipients");
    EXPECT_THAT(logged, ElementsAre("3 Incorrect recipient address for global handler, expected "
                                    "[NULL|EMPTY_STRING|all|all-recipients]"));
}

TEST_F(HandlersDatabase, RemovingSwitchingAndMovingTouchOnlyWhatTheyName) {
    insert("('n','a@d',0,0,5,5), ('n','b@d',0,0,5,5), ('m','a@d',0,0,5,5), ('n','a@d',0,0,6,5), ('n','a@d',0,0,5,6)");
    const auto check = [](int result, const char* expected) {
        EXPECT_EQ(result, 0);
        EXPECT_EQ(query("SELECT name||type||queue||address||enabled FROM handlers ORDER BY 1"), expected);
    };
    check(mh_db_enable("n", 5, 5, "A@D"), "m55a@d0 n55a@d1 n55b@d0 n56a@d0 n65a@d0");
    check(mh_db_enable("n", 5, 5, nullptr), "m55a@d0 n55a@d1 n55b@d1 n56a@d0 n65a@d0");
    check(mh_db_disable("n", 5, 5, "a@d"), "m55a@d0 n55a@d0 n55b@d1 n56a@d0 n65a@d0");
    check(mh_db_switch_by_name("m", 1), "m55a@d1 n55a@d0 n55b@d1 n56a@d0 n65a@d0");
    check(mh_db_switch_by_addr("B@D", 0), "m55a@d1 n55a@d0 n55b@d0 n56a@d0 n65a@d0");
    check(mh_db_move_addr("B@d", "A@D"), "m55a@d1 n55a@d0 n56a@d0 n65a@d0");
    check(mh_db_move_addr("A@d", "C@D"), "m55c@d1 n55c@d0 n56c@d0 n65c@d0");
    check(mh_db_remove("n", 5, "C@D", 6), "m55c@d1 n55c@d0 n65c@d0");
    check(mh_db_remove("n", 5, nullptr, 5), "m55c@d1 n65c@d0");
    check(mh_db_remove_name("m"), "n65c@d0");
    check(mh_db_remove_addr("C@D"), "");
}

TEST_F(HandlersDatabase, SelectGivesEnabledHandlersHighestPriorityFirst) {
    insert(
        "('low','a@d',1,1,5,5), ('top','a@d',10,1,5,5), ('mid','a@d',9,1,5,5), ('off','a@d',5,0,5,5),"
        "('queue','a@d',5,1,5,6), ('type','a@d',5,1,6,5), ('other','ab@d',5,1,5,5), ('g','all',0,1,4,5)");
    mh_list* list = mh_list_init();
    ASSERT_EQ(mh_db_select_by_name("b@", list), 0);
    ASSERT_EQ(mh_db_select(5, 5, "A@D", list), 0);
    ASSERT_EQ(mh_db_select(5, 4, nullptr, list), 0);
    EXPECT_EQ(mh_db_select(5, 4, "joe@d", list), -1);
    EXPECT_EQ(list->head->next->previous, list->head);
    std::string names;
    for (const mh_list_node* node = list->head; node != nullptr; node = node->next) {
        names += std::string(node->data->name) + node->data->executable + node->data->context + " ";
    }
    mh_db_path_set("/tmp/handlers/none.db");
    EXPECT_EQ(mh_db_select(5, 5, "a@d", list), -1);
    EXPECT_FALSE(std::filesystem::exists(mh_db_path));
    EXPECT_EQ(names, "g/bin/gc top/bin/topc mid/bin/midc low/bin/lowc other/bin/otherc ");
    mh_list_free(list);
}

TEST_F(HandlersDatabase, CreationKeepsWhatExistsAndRemovesWhatItsReadersCouldNotRead) {
    EXPECT_EQ(query("SELECT sum(length(sql)) FROM sqlite_master"), "585");
    EXPECT_EQ(mh_db_create(), -1);
    EXPECT_THAT(logged, ElementsAre(HasSubstr("mail handlers database: table handlers already exists")));
    std::filesystem::rename("/etc/group", "/etc/group.saved");
    mh_db_path_set("/tmp/handlers/new.db");
    EXPECT_EQ(mh_db_create(), -1);
    std::filesystem::rename("/etc/group.saved", "/etc/group");
    EXPECT_THAT(logged.back(), HasSubstr("Unable to get mail handlers group uid: "));
    EXPECT_FALSE(std::filesystem::exists(mh_db_path));
}

TEST_F(HandlersDatabase, DomainWideChangesKeepToExactlyThatDomain) {
    insert(
        "('n','a@my_dom.test',7,1,3,2), ('n','b@c@my_dom.test',0,1,5,5), ('n','a@myxdom.test',0,1,5,5),"
        "('n','a@xmy_dom.test',0,1,5,5), ('n','a@my_dom.test.org',0,1,5,5), ('n','a@sub.my_dom.test',0,1,5,5),"
        "('n','my_dom.test@o.test',0,1,5,5), ('n','my_dom.test',0,1,5,5), ('n','all',0,1,4,5)");
    EXPECT_EQ(mh_db_clone(nullptr, "My_Dom.Test", nullptr, "New.Test"), 0);
    for (const char* domain : {"MY_dom.test", "%", "_ew.test", "test", ""}) {
        EXPECT_EQ(mh_db_remove_all(domain), 0);
    }
    EXPECT_EQ(
        addresses(),
        "a@my_dom.test.org a@myxdom.test a@new.test a@sub.my_dom.test a@xmy_dom.test all b@c@new.test my_dom.test "
        "my_dom.test@o.test");
    EXPECT_EQ(query("SELECT priority||type||queue||executable||context FROM handlers WHERE address='a@new.test'"),
              "732/bin/nc");
}

TEST_F(HandlersDatabase, CloneOfANameKeepsAllButTheProtection) {
    insert("('n','a@d',7,0,3,2), ('m','a@d',-1,1,5,5), ('o','aa@d',0,1,5,5)");
    EXPECT_EQ(mh_db_clone("A", "D", "B", "E"), 0);
    EXPECT_EQ(query("SELECT name||priority||enabled||type||queue||executable||context||protected FROM handlers "
                    "WHERE address='b@e' ORDER BY name"),
              "m-1155/bin/mc0 n7032/bin/nc0");
}

TEST_F(HandlersDatabase, AFailureInTheMiddleUndoesTheBatch) {
    insert("('n','a@d',0,1,5,5), ('m','b@d',0,1,5,5), ('o','c@d',0,1,5,5)");
    query(
        "CREATE TRIGGER i BEFORE INSERT ON handlers WHEN NEW.name='m' BEGIN SELECT RAISE(ABORT,'no m'); END;"
        "CREATE TRIGGER d BEFORE DELETE ON handlers WHEN OLD.name='m' BEGIN SELECT RAISE(ROLLBACK,'keep m'); END;");
    EXPECT_EQ(mh_db_clone(nullptr, "d", nullptr, "e"), -1);
    EXPECT_EQ(mh_db_remove_all("d"), -1);
    EXPECT_EQ(addresses(), "a@d b@d c@d");
    EXPECT_EQ(logged.size(), 3U);
}

TEST_F(HandlersDatabase, BatchesWaitForEachOtherAndNotForEver) {
    insert("('n','a@d',0,1,5,5), ('m','b@d',0,1,5,5)");
    for (const char* domain : {"e", "f", "g", "h"}) {
        if (fork() == 0) {
            alarm(60);
            int failures = 0;
            for (int round = 0; round < 20; ++round) {
                failures += mh_db_remove_all(domain) + mh_db_clone(nullptr, "d", nullptr, domain);
            }
            _exit(failures);
        }
    }
    for (int status = -1; wait(&status) != -1;) {
        EXPECT_EQ(status, 0);
    }
    EXPECT_EQ(query("SELECT count(*) FROM handlers"), "10");
}
