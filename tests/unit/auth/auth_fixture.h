// What the tests of this floor share: a directory of their own with database and key, plain SQL beside the operations,
// and the log lines as "<priority>: <text>".
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>

#include <cstdarg>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "auth/auth_paths.h"
#include "auth/auth_setup.h"
#include "auth/password_cipher.h"
#include "util/c_memory.h"
#include "util/log.h"

inline std::string textOf(const kavro::CString& owned) {
    return owned == nullptr ? "(null)" : owned.get();
}

class AuthTest : public ::testing::Test {
protected:
    AuthTest() {
        useFiles(directory + "/passwd.db", directory + "/passwd_db_key");
        logged().clear();
        kavro_log = keepLine;
    }
    ~AuthTest() override {
        kavro_log = _kavro_utility_log;
        std::filesystem::remove_all(directory);
    }

    static void useFiles(const std::string& database, const std::string& key) {
        mailAuthDBSetPath(database.c_str());
        mailAuthKeySetPath(key.c_str());
    }
    static void writeKey(std::size_t size, unsigned char first = 0) {
        std::ofstream file(mailAuthKey, std::ios::binary);
        for (std::size_t i = 0; i < size; ++i) {
            file.put(static_cast<char>(first + i));
        }
    }
    static std::vector<std::string>& logged() {
        static std::vector<std::string> lines;
        return lines;
    }
    static void keepLine(int priority, const char* format, ...) {
        va_list args;
        va_start(args, format);
        logged().push_back(std::to_string(priority) + ": " + textOf(kavro::CString(vasprintf_safe(format, args))));
        va_end(args);
    }

    /// All rows, columns joined by "|", rows by a blank; the error's text when it fails.
    static std::string sql(const std::string& statement) {
        sqlite3* database = nullptr;
        std::string rows;
        sqlite3_open(mailAuthDB, &database);
        const auto append = [](void* target, int count, char** values, char** /*names*/) {
            auto& all = *static_cast<std::string*>(target);
            for (int i = 0; i < count; ++i) {
                all += (i > 0 ? "|" : all.empty() ? "" : " ") + std::string(values[i] != nullptr ? values[i] : "NULL");
            }
            return 0;
        };
        if (sqlite3_exec(database, statement.c_str(), append, &rows, nullptr) != SQLITE_OK) {
            rows = sqlite3_errmsg(database);
        }
        sqlite3_close(database);
        return rows;
    }

    char name_[23] = "/tmp/auth-test-XXXXXX";
    const std::string directory = ::mkdtemp(name_);
};

/// With an empty database and a key.
class AuthDatabaseTest : public AuthTest {
protected:
    AuthDatabaseTest() {
        EXPECT_EQ(mailAuthDBInit(), 0);
        writeKey(40);
    }
};
