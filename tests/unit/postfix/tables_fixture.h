// The four lookup tables, empty before each test, and a postmap that can be made to fail.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>

#include "postfix/tables.h"
#include "session/session_mail_data.h"

namespace kavro::mail::postfix {

using Table = std::map<std::string, std::string>;

inline const std::filesystem::path kTablesDirectory = "/var/spool/postfix/kavro";
inline const std::string kRealPostmap = "/usr/sbin/postmap-real/postmap";

inline std::string outputOf(const std::string& command) {
    std::string output;
    std::FILE* const stream = ::popen(command.c_str(), "r");
    for (int c = std::getc(stream); c != EOF; c = std::getc(stream)) {
        output += static_cast<char>(c);
    }
    ::pclose(stream);
    return output;
}

class TablesTest : public ::testing::Test {
protected:
    void SetUp() override {
        std::filesystem::create_directories(kTablesDirectory);
        std::filesystem::create_directories("/var/lock/files");
        std::filesystem::create_directories("/usr/sbin/postmap-real");
        std::filesystem::copy_file(kPostmap, kRealPostmap, std::filesystem::copy_options::skip_existing);
        usePostmap("");
        for (const char* table : {kVirtualDomainsTable, kVmailboxTable, kVirtualTable, kAliasesTable}) {
            fill(table, {});
        }
    }

    void TearDown() override {
        free_session_mail_db_info();
        for (const char* textSource : {"virtual_domains", "vmailbox", "virtual", "aliases"}) {
            EXPECT_FALSE(std::filesystem::exists(kTablesDirectory / textSource)) << textSource;
        }
    }

    /// Every run is logged; `script` may end it (with $n, its number from 1, and its arguments), else postmap does it.
    static void usePostmap(const std::string& script) {
        std::filesystem::remove("/tmp/postmap.log");
        std::filesystem::remove(kPostmap);
        std::ofstream(kPostmap) << "#!/bin/sh\necho \"$*\" >>/tmp/postmap.log\nn=$(wc -l </tmp/postmap.log)\n"
                                << script << "\nexec " << kRealPostmap << " \"$@\"\n";
        ::chmod(kPostmap, 0755);
    }

    /// The arguments of each run since then, one line each.
    static std::string runs() { return outputOf("cat /tmp/postmap.log 2>/dev/null"); }

    static void fill(const std::string& table, const Table& records) {
        const std::string path = table.substr(table.find(':') + 1);
        std::ofstream text(path);
        for (const auto& [key, value] : records) {
            text << key << ' ' << value << '\n';
        }
        text.close();
        ASSERT_EQ(std::system((kRealPostmap + " " + table).c_str()), 0);
        std::filesystem::remove(path);
    }

    static Table dump(const std::string& table) {
        Table records;
        std::istringstream lines(outputOf(kRealPostmap + " -s " + table));
        for (std::string line; std::getline(lines, line);) {
            const std::size_t tab = line.find('\t');
            EXPECT_TRUE(records.emplace(line.substr(0, tab), line.substr(tab + 1)).second) << "twice: " << line;
        }
        return records;
    }

    static void loadSession(std::string json) {
        std::FILE* const stream = ::fmemopen(json.data(), json.size(), "r");
        ASSERT_EQ(read_session_mail_db_info(stream, 0), 0);
        std::fclose(stream);
    }
};

}  // namespace kavro::mail::postfix
