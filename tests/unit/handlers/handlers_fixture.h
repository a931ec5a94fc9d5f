// A handlers database of the test's own, with what was logged and a view of its rows that does not use our code.
#pragma once

#include <gmock/gmock.h>
#include <sqlite3.h>

#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "handlers/handlers_database.h"
#include "util/log.h"

using Lines = std::vector<std::string>;

class HandlersDatabase : public testing::Test {
protected:
    static inline Lines logged;

    void SetUp() override {
        std::filesystem::remove_all("/tmp/handlers");
        std::filesystem::create_directory("/tmp/handlers");
        mh_db_path_set("/tmp/handlers/handlers.db");
        ASSERT_EQ(mh_db_create_no_set_permissions(), 0);
        logged.clear();
        kavro_log = collect;
    }
    void TearDown() override { kavro_log = _kavro_utility_log; }

    static void collect(int, const char* format, ...) {
        char text[1024];
        va_list arguments;
        va_start(arguments, format);
        std::vsnprintf(text, sizeof text, format, arguments);
        va_end(arguments);
        logged.emplace_back(text);
    }
    /// The first column of every row that the statement gives, sorted; NULL as "NULL".
    static Lines query(const char* sql) {
        sqlite3* database = nullptr;
        EXPECT_EQ(sqlite3_open(mh_db_path, &database), SQLITE_OK);
        sqlite3_busy_timeout(database, 10000);
        Lines lines;
        char* error = nullptr;
        sqlite3_exec(
            database, sql,
            [](void* to, int, char** columns, char**) {
                static_cast<Lines*>(to)->emplace_back(columns[0] == nullptr ? "NULL" : columns[0]);
                return 0;
            },
            &lines, &error);
        EXPECT_EQ(error, nullptr) << error;
        sqlite3_close(database);
        std::sort(lines.begin(), lines.end());
        return lines;
    }
    static Lines addresses() { return query("SELECT address FROM handlers"); }
    /// Inserts rows past our code: name, address, priority, enabled, type, queue.
    static void insert(const std::string& values) {
        query(("INSERT INTO handlers(name, address, priority, enabled, type, queue, executable, context, protected) "
               "SELECT column1, column2, column3, column4, column5, column6, '/bin/' || column1, 'c', 1 FROM (VALUES " +
               values + ")")
                  .c_str());
    }
};
