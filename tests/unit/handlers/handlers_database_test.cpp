// Single changes, selection, creation and permissions of the handlers database.
#include <grp.h>
#include <sys/stat.h>

#include <fstream>

#include "handlers/handlers_fixture.h"

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;

namespace {

mh_data record(const char* name, const char* address, int type = 5) {
    mh_data result;
    mh_data_init_ex(&result);
    result.type = type;
    result.name = const_cast<char*>(name);
    result.address = const_cast<char*>(address);
    result.executable = const_cast<char*>("/bin/x");
    return result;
}

}  // namespace

TEST_F(HandlersDatabase, AddStoresEveryFieldAndReplacesTheSameHandler) {
    mh_data added = record("spam", "Joe@Dom.Test");
    added.protect_on_restore = 1;
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    added.priority = 7;
    added.queue = 5;
    added.enabled = 1;
    added.protect_on_restore = 0;
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    added.context = const_cast<char*>("");
    added.protect_on_restore = 1;
    added.queue = 6;
    ASSERT_EQ(mh_db_add(nullptr, &added), 0);
    EXPECT_THAT(query("SELECT queue||type||enabled||priority||'|'||name||'|'||address||'|'||executable||'|'||context"
                      "||'|'||protected FROM handlers"),
                ElementsAre("5517|spam|joe@dom.test|/bin/x|none|0", "6517|spam|joe@dom.test|/bin/x||1"));
}

TEST_F(HandlersDatabase, GlobalHandlersTakeOnlyTheirOwnRecipients) {
    for (const char* address : {static_cast<const char*>(nullptr), "", "all", "all-recipients"}) {
        const mh_data added = record(address == nullptr ? "null" : "given", address, MH_TYPE_GLOBAL);
        EXPECT_EQ(mh_db_add(nullptr, &added), 0);
    }
    const mh_data refused = record("given", "joe@dom.test", MH_TYPE_GLOBAL);
    EXPECT_EQ(mh_db_add(nullptr, &refused), -1);
    EXPECT_THAT(logged, ElementsAre("Incorrect recipient address for global handler, expected "
                                    "[NULL|EMPTY_STRING|all|all-recipients]"));
    EXPECT_THAT(addresses(), ElementsAre("all", "all", "all-recipients"));
    mh_list list{};
    EXPECT_EQ(mh_db_select(5, MH_TYPE_GLOBAL, "joe@dom.test", &list), -1);
    EXPECT_EQ(logged.back(),
              "Incorrect recipient address for global handler `joe@dom.test', expected [NULL|all|all-recipients]");
}

TEST_F(HandlersDatabase, RemovalTouchesOnlyWhatItNames) {
    insert("('n','a@d',0,1,5,5), ('n','b@d',0,1,5,5), ('m','a@d',0,1,5,5), ('n','a@d',0,1,6,5), ('n','a@d',0,1,5,6)");
    const auto rest = [] { return query("SELECT name||type||queue||address FROM handlers"); };
    EXPECT_EQ(mh_db_remove("n", 5, "A@D", 5), 0);
    EXPECT_THAT(rest(), ElementsAre("m55a@d", "n55b@d", "n56a@d", "n65a@d"));
    EXPECT_EQ(mh_db_remove("n", 5, nullptr, 5), 0);
    EXPECT_THAT(rest(), ElementsAre("m55a@d", "n56a@d", "n65a@d"));
    EXPECT_EQ(mh_db_remove_name("m"), 0);
    EXPECT_EQ(mh_db_remove_addr("b@d"), 0);
    EXPECT_THAT(rest(), ElementsAre("n56a@d", "n65a@d"));
    EXPECT_EQ(mh_db_remove_addr("A@d"), 0);
    EXPECT_THAT(rest(), IsEmpty());
}

TEST_F(HandlersDatabase, SwitchingTouchesOnlyWhatItNames) {
    insert("('n','a@d',0,0,5,6), ('n','b@d',0,0,5,6), ('m','a@d',0,0,5,6), ('n','c@d',0,0,6,5)");
    const auto enabled = [] { return query("SELECT name||address FROM handlers WHERE enabled=1"); };
    EXPECT_EQ(mh_db_enable("n", 5, 6, "A@D"), 0);
    EXPECT_THAT(enabled(), ElementsAre("na@d"));
    EXPECT_EQ(mh_db_enable("n", 5, 6, nullptr), 0);
    EXPECT_THAT(enabled(), ElementsAre("na@d", "nb@d"));
    EXPECT_EQ(mh_db_disable("n", 5, 6, "a@d"), 0);
    EXPECT_EQ(mh_db_switch_by_name("m", 1), 0);
    EXPECT_THAT(enabled(), ElementsAre("ma@d", "nb@d"));
    EXPECT_EQ(mh_db_switch_by_addr("A@D", 0), 0);
    EXPECT_EQ(mh_db_switch_by_addr("c@d", 1), 0);
    EXPECT_THAT(enabled(), ElementsAre("nb@d", "nc@d"));
}

TEST_F(HandlersDatabase, MoveReplacesEqualHandlersOfTheNewAddress) {
    insert("('n','a@d',7,1,5,5), ('m','a@d',0,1,5,5), ('n','b@d',3,1,5,5), ('n','aa@d',0,1,5,5)");
    EXPECT_EQ(mh_db_move_addr("A@d", "B@D"), 0);
    EXPECT_THAT(query("SELECT name||priority||address FROM handlers"), ElementsAre("m0b@d", "n0aa@d", "n7b@d"));
}

TEST_F(HandlersDatabase, SelectGivesEnabledHandlersHighestPriorityFirst) {
    insert(
        "('low','a@d',1,1,5,5), ('top','a@d',10,1,5,5), ('mid','a@d',9,1,5,5), ('off','a@d',5,0,5,5),"
        "('queue','a@d',5,1,5,6), ('type','a@d',5,1,6,5), ('other','ab@d',5,1,5,5)");
    mh_list* list = mh_list_init();
    ASSERT_EQ(mh_db_select(5, 5, "A@D", list), 0);
    Lines names;
    const mh_list_node* previous = nullptr;
    for (const mh_list_node* node = list->head; node != nullptr; previous = node, node = node->next) {
        EXPECT_EQ(node->previous, previous);
        names.emplace_back(std::string(node->data->name) + node->data->executable + node->data->context);
    }
    EXPECT_THAT(names, ElementsAre("top/bin/topc", "mid/bin/midc", "low/bin/lowc"));
    ASSERT_EQ(mh_db_select_by_name("b@", list), 0);
    EXPECT_STREQ(list->head->data->name, "other");
    EXPECT_STREQ(list->head->next->data->name, "top");
    mh_list_free(list);
}

TEST_F(HandlersDatabase, AMissingDatabaseFailsEveryOperationWithSqlitesText) {
    mh_db_path_set("/tmp/handlers/none.db");
    mh_list list{};
    EXPECT_EQ(mh_db_select(5, 5, "a@d", &list), -1);
    EXPECT_FALSE(std::filesystem::exists(mh_db_path));
    EXPECT_EQ(mh_db_remove_addr("a@d"), -1);
    EXPECT_EQ(mh_db_remove_all("d"), -1);
    EXPECT_EQ(mh_db_clone("a", "d", "b", "d"), -1);
    EXPECT_TRUE(std::filesystem::exists(mh_db_path));
    mh_db_path_set("/tmp/handlers/no/such.db");
    EXPECT_EQ(mh_db_do(&list, nullptr, mh_db_add), -1);
    EXPECT_THAT(logged, ElementsAre("Unable to get data from mail handlers database: unable to open database file",
                                    "Unable to select mail handlers",
                                    "Unable to execute do action on handlers database: no such table: handlers",
                                    "Unable to get data from mail handlers database: no such table: handlers",
                                    "Get handlers list",
                                    "Unable to select data from handlers database: no such table: handlers",
                                    "Unable to begin sqlite transaction: unable to open database file"));
}

TEST_F(HandlersDatabase, CreationSetsOwnerAndModeAndKeepsAnExistingDatabase) {
    mh_db_path_set("/tmp/handlers/new/deep/handlers.db");
    ASSERT_EQ(mh_db_create(), 0);
    struct stat status {};
    ASSERT_EQ(stat(mh_db_path, &status), 0);
    EXPECT_EQ(status.st_mode & 07777, 0640U);
    EXPECT_EQ(status.st_uid, 0U);
    EXPECT_EQ(status.st_gid, getgrnam("popuser")->gr_gid);
    EXPECT_THAT(query("SELECT sql FROM sqlite_master WHERE type='table'"),
                ElementsAre(HasSubstr("CONSTRAINT uniq_entries_constaraint PRIMARY KEY (queue, type, name, address, "
                                      "executable, context)")));
    EXPECT_THAT(query("SELECT name FROM sqlite_master WHERE sql LIKE 'CREATE INDEX%'"),
                ElementsAre("idx1", "idx2", "idx3", "idx4"));
    insert("('n','a@d',0,1,5,5)");
    EXPECT_EQ(mh_db_create(), -1);
    EXPECT_THAT(logged, ElementsAre(HasSubstr("mail handlers database: table handlers already exists")));
    EXPECT_THAT(addresses(), ElementsAre("a@d"));
}

TEST_F(HandlersDatabase, CreationRemovesAFileThatItsReadersCouldNotRead) {
    std::filesystem::copy_file("/etc/group", "/tmp/handlers/group");
    std::ofstream("/etc/group") << "root:x:0:\n";
    mh_db_path_set("/tmp/handlers/new.db");
    EXPECT_EQ(mh_db_create(), -1);
    std::filesystem::copy_file("/tmp/handlers/group", "/etc/group", std::filesystem::copy_options::overwrite_existing);
    EXPECT_THAT(logged, ElementsAre(HasSubstr("Unable to get mail handlers group uid: ")));
    EXPECT_FALSE(std::filesystem::exists(mh_db_path));
}
