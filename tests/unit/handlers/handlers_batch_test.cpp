// Changes of many handlers: scope of the domain-wide forms, all or nothing, and a database that others keep busy.
#include <sys/wait.h>
#include <unistd.h>

#include "handlers/handlers_fixture.h"

using testing::ElementsAre;
using testing::ElementsAreArray;

TEST_F(HandlersDatabase, DomainWideChangesKeepToExactlyThatDomain) {
    insert(
        "('n','a@my_dom.test',0,1,5,5), ('n','b.c@my_dom.test',0,1,5,5), ('n','a@myxdom.test',0,1,5,5),"
        "('n','a@xmy_dom.test',0,1,5,5), ('n','a@my_dom.test.org',0,1,5,5), ('n','a@sub.my_dom.test',0,1,5,5),"
        "('n','my_dom.test@o.test',0,1,5,5), ('n','my_dom.test',0,1,5,5), ('n','all',0,1,4,5)");
    Lines others = addresses();
    std::erase(others, "a@my_dom.test");
    std::erase(others, "b.c@my_dom.test");
    EXPECT_EQ(mh_db_clone(nullptr, "My_Dom.Test", nullptr, "New.Test"), 0);
    EXPECT_EQ(mh_db_remove_all("MY_dom.test"), 0);
    Lines expected = others;
    expected.insert(expected.end(), {"a@new.test", "b.c@new.test"});
    std::sort(expected.begin(), expected.end());
    EXPECT_THAT(addresses(), ElementsAreArray(expected));
    for (const char* nothing : {"%", "_ew.test", "test", "absent.test", ""}) {
        EXPECT_EQ(mh_db_remove_all(nothing), 0);
    }
    EXPECT_THAT(addresses(), ElementsAreArray(expected));
    EXPECT_THAT(logged, testing::IsEmpty());
}

TEST_F(HandlersDatabase, CloneOfANameKeepsAllButTheProtection) {
    insert("('n','a@d',7,0,3,2), ('m','a@d',-1,1,5,5), ('o','aa@d',0,1,5,5)");
    EXPECT_EQ(mh_db_clone("A", "D", "B", "E"), 0);
    EXPECT_THAT(query("SELECT name||priority||enabled||type||queue||executable||context||protected FROM handlers "
                      "WHERE address='b@e'"),
                ElementsAre("m-1155/bin/mc0", "n7032/bin/nc0"));
    EXPECT_EQ(mh_db_clone("a", "d", nullptr, "e"), -1);
    EXPECT_THAT(query("SELECT count(*) FROM handlers"), ElementsAre("5"));
}

TEST_F(HandlersDatabase, AFailureInTheMiddleUndoesTheBatch) {
    insert("('n','a@d',0,1,5,5), ('m','b@d',0,1,5,5), ('o','c@d',0,1,5,5)");
    const Lines before = addresses();
    query(
        "CREATE TRIGGER i BEFORE INSERT ON handlers WHEN NEW.name='m' BEGIN SELECT RAISE(ABORT,'no m'); END;"
        "CREATE TRIGGER d BEFORE DELETE ON handlers WHEN OLD.name='m' BEGIN SELECT RAISE(ROLLBACK,'keep m'); END;");
    EXPECT_EQ(mh_db_clone(nullptr, "d", nullptr, "e"), -1);
    EXPECT_EQ(mh_db_remove_all("d"), -1);
    EXPECT_THAT(logged, ElementsAre("Unable to execute insert record into handlers database: no m",
                                    "Unable to add records into handlers database",
                                    "Unable to execute delete record from handlers database: keep m"));
    EXPECT_EQ(addresses(), before);
}

TEST_F(HandlersDatabase, BatchesWaitForABusyDatabaseAndForEachOther) {
    insert("('n','a@d',0,1,5,5), ('m','b@d',0,1,5,5)");
    int locked[2];
    ASSERT_EQ(pipe(locked), 0);
    constexpr int kCloners = 4;
    std::vector<pid_t> children;
    for (int number = 0; number <= kCloners; ++number) {
        children.push_back(fork());
        if (children.back() != 0) {
            char byte = 0;
            ASSERT_TRUE(number > 0 || read(locked[0], &byte, 1) == 1);
            continue;
        }
        alarm(100);  // two that wait for each other would wait for ever
        if (number == 0) {
            sqlite3* database = nullptr;
            sqlite3_open(mh_db_path, &database);
            const bool held = sqlite3_exec(database, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr) == SQLITE_OK &&
                              write(locked[1], "", 1) == 1;
            usleep(400000);
            sqlite3_close(database);
            _exit(held ? 0 : 1);
        }
        int failures = 0;
        for (int round = 0; round < 10; ++round) {
            const std::string domain = "e" + std::to_string(number) + std::to_string(round);
            failures += mh_db_clone(nullptr, "d", nullptr, domain.c_str()) != 0 ? 1 : 0;
            failures += round % 2 == 0 && mh_db_remove_all(domain.c_str()) != 0 ? 1 : 0;
        }
        _exit(failures);
    }
    for (const pid_t child : children) {
        int status = -1;
        EXPECT_EQ(waitpid(child, &status, 0), child);
        EXPECT_EQ(status, 0);
    }
    EXPECT_THAT(query("SELECT count(*) FROM handlers"), ElementsAre(std::to_string(2 + kCloners * 5 * 2)));
    EXPECT_THAT(query("PRAGMA integrity_check"), ElementsAre("ok"));
}
