// SQLite access while another process holds the database, and what statements answer.
#include <array>

#include "util/sqlite_connection.h"
#include "util/support.h"

namespace {

using kavro::SqliteConnection;
using kavro::SqliteStatement;

class Sqlite : public ScratchTest {
protected:
    Sqlite() {
        EXPECT_EQ(sqlite_db_create(database().c_str(), "CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT);", "test"), 0);
    }
    std::string database() const { return path("db"); }

    /// Runs `body` while a child, which adds a row, holds the database for longer than SQLite waits by itself.
    void whileHeld(const std::function<void()>& body) {
        std::array<int, 2> ready{};
        ASSERT_EQ(::pipe(ready.data()), 0);
        const pid_t holder = ::fork();
        if (holder == 0) {
            SqliteConnection connection;
            connection.open(database().c_str(), SqliteConnection::Access::ReadWriteCreate);
            connection.execute("BEGIN EXCLUSIVE; INSERT INTO t(v) VALUES('held');");
            const ssize_t told = ::write(ready[1], "r", 1);
            ::usleep(200000);
            ::_exit(connection.execute("COMMIT") && told == 1 ? 0 : 1);
        }
        char byte = 0;
        ASSERT_EQ(::read(ready[0], &byte, 1), 1);
        body();
        int status = 0;
        ::waitpid(holder, &status, 0);
        EXPECT_EQ(status, 0);
    }
    sqlite3_int64 count() {
        SqliteConnection connection;
        EXPECT_TRUE(connection.open(database().c_str(), SqliteConnection::Access::ReadOnly));
        SqliteStatement statement(connection);
        EXPECT_TRUE(statement.prepare("SELECT COUNT(*) FROM t"));
        EXPECT_EQ(statement.step(), SQLITE_ROW);
        return statement.number(0);
    }
};

TEST_F(Sqlite, BusyDatabaseIsWaitedForAndAScriptRepeatedFromItsBeginning) {
    SqliteConnection connection;
    ASSERT_TRUE(connection.open(database().c_str(), SqliteConnection::Access::ReadWriteCreate));
    SqliteStatement prepared(connection);
    ASSERT_TRUE(prepared.prepare("INSERT INTO t(v) VALUES('mine')"));
    whileHeld([&] { EXPECT_EQ(prepared.step(), SQLITE_DONE) << connection.errorText(); });
    EXPECT_EQ(connection.lastInsertId(), 2);
    whileHeld([this] { EXPECT_EQ(count(), 3); });
    whileHeld([&] {
        EXPECT_TRUE(connection.execute("BEGIN TRANSACTION;INSERT INTO t(v) VALUES('a');CREATE TABLE u(k);COMMIT;"))
            << connection.errorText();
    });
    EXPECT_EQ(count(), 5);
}

/// A child ends in the middle of a transaction that has begun to change the file.
void leaveHotJournal(const std::string& database) {
    const auto run = runInChild([&]() -> int {
        SqliteConnection connection;
        connection.open(database.c_str(), SqliteConnection::Access::ReadWriteCreate);
        ::_exit(
            connection.execute("PRAGMA cache_size=1; BEGIN; INSERT INTO t(v) WITH RECURSIVE c(x) AS (SELECT 1 UNION "
                               "ALL SELECT x + 1 FROM c WHERE x < 20000) SELECT 'half' FROM c;")
                ? 0
                : 1);
    });
    EXPECT_EQ(run.status, 0);
    EXPECT_GT(std::filesystem::file_size(database + "-journal"), 0U);
}

TEST_F(Sqlite, AKilledWritersJournalIsRolledBackForReadersToo) {
    leaveHotJournal(database());
    EXPECT_EQ(count(), 0);
    EXPECT_FALSE(std::filesystem::exists(database() + "-journal"));
    SqliteConnection reader;
    ASSERT_TRUE(reader.open(database().c_str(), SqliteConnection::Access::ReadOnly));
    EXPECT_TRUE(reader.execute("SELECT * FROM t"));
    leaveHotJournal(database());
    EXPECT_TRUE(reader.execute("SELECT * FROM t"));
    EXPECT_FALSE(reader.execute("INSERT INTO t(v) VALUES('x')"));
}

TEST_F(Sqlite, AKeptConnectionServesTheFileThatStandsThere) {
    const auto descriptors = [this] {
        int found = 0;
        for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
            std::error_code gone;
            found += std::filesystem::read_symlink(entry, gone).string().starts_with(database()) ? 1 : 0;
        }
        return found;
    };
    const auto change = [this](const char* script) {
        SqliteConnection connection;
        return connection.open(database().c_str(), SqliteConnection::Access::ReadWrite) && connection.execute(script);
    };
    {
        const kavro::KeptConnections kept;
        EXPECT_EQ(count(), 0);
        EXPECT_EQ(descriptors(), 1);
        EXPECT_TRUE(change("INSERT INTO t(v) VALUES('after a reader')"));
        EXPECT_TRUE(change("BEGIN; INSERT INTO t(v) VALUES('given up')"));
        EXPECT_EQ(count(), 1);
        EXPECT_FALSE(change("BEGIN; INSERT INTO nowhere VALUES(1)"));
        EXPECT_TRUE(change("BEGIN; COMMIT"));
        std::filesystem::copy(database(), path("new"));
        EXPECT_TRUE(change("DELETE FROM t"));
        std::filesystem::rename(path("new"), database());
        EXPECT_EQ(count(), 1);
        EXPECT_EQ(descriptors(), 1);
    }
    EXPECT_EQ(descriptors(), 0);
}

/// What ends a journal of a transaction over several databases: SQLite deletes the file of that name.
std::string superJournalRecord(const std::string& name) {
    const auto bigEndian = [](std::size_t number) {
        std::string bytes;
        for (int shift = 24; shift >= 0; shift -= 8) {
            bytes += static_cast<char>(number >> shift);
        }
        return bytes;
    };
    std::size_t sum = 0;
    for (const char c : name) {
        sum += static_cast<unsigned char>(c);
    }
    return bigEndian(0x40000000 / 4096 + 1) + name + bigEndian(name.size()) + bigEndian(sum) +
           "\xd9\xd5\x05\xf9\x20\xa1\x63\xd7";
}

TEST_F(Sqlite, NothingButTheDatabaseAndItsJournalIsTouched) {
    const LogCapture log;
    const std::string journal = database() + "-journal";
    const auto change = [this] {
        SqliteConnection connection;
        return connection.open(database().c_str(), SqliteConnection::Access::ReadWriteCreate) &&
               connection.execute("INSERT INTO t(v) VALUES('x')");
    };
    leaveHotJournal(database());
    writeFile(path("precious"), "kept");
    std::ofstream(journal, std::ios::binary | std::ios::app) << superJournalRecord(path("precious"));
    const std::string planted = readFile(journal);
    EXPECT_FALSE(change());
    EXPECT_EQ(readFile(path("precious")), "kept");
    EXPECT_EQ(readFile(journal), planted);
    EXPECT_EQ(LogCapture::messages.back(),
              "3 A database's journal names another file, " + path("precious") + ": refused");
    std::filesystem::remove(journal);

    sqlite_db_create(database().c_str(), "DROP TABLE t; CREATE TABLE t(k INTEGER PRIMARY KEY, v TEXT);", "test");
    const std::string whole = readFile(database());
    for (const std::string& name : {journal, database()}) {
        const std::vector<std::function<void()>> plants = {
            [&] { std::filesystem::create_symlink(path("precious"), name); },
            [&] { std::filesystem::create_symlink(path("made"), name); },
            [&] { ::mkfifo(name.c_str(), S_IRUSR | S_IWUSR); },
        };
        for (const auto& plant : plants) {
            std::filesystem::remove(name);
            plant();
            EXPECT_FALSE(change());
            EXPECT_EQ(LogCapture::messages.back(), "3 " + name + " is not a regular file, refused");
        }
        std::filesystem::remove(name);
        writeFile(database(), whole);
    }
    EXPECT_EQ(readFile(path("precious")), "kept");
    EXPECT_EQ(entryCount(), 2);

    EXPECT_TRUE(change());
    // A database in WAL mode would bring two files more.
    std::string bytes = readFile(database());
    bytes[18] = bytes[19] = 2;
    writeFile(database(), bytes);
    EXPECT_FALSE(change());
    EXPECT_EQ(entryCount(), 2);
    // A link on the way to the directory is the operator's.
    std::filesystem::create_directory_symlink(path("."), path("way"));
    EXPECT_EQ(sqlite_db_create(path("way/other").c_str(), "CREATE TABLE t(k);", "test"), 0);
    EXPECT_TRUE(std::filesystem::exists(path("other")));
}

TEST_F(Sqlite, AnswersTellNullFromEmptyAndFailuresTheirText) {
    SqliteConnection none;
    EXPECT_STREQ(none.errorText(), "general DB errror");
    EXPECT_FALSE(none.execute("SELECT 1") || SqliteStatement(none).prepare("SELECT 1"));
    EXPECT_FALSE(none.open(path("missing").c_str(), SqliteConnection::Access::ReadOnly));
    EXPECT_STREQ(none.errorText(), "unable to open database file");
    EXPECT_FALSE(none.isOpen() || std::filesystem::exists(path("missing")));

    SqliteConnection connection;
    ASSERT_TRUE(connection.open(database().c_str(), SqliteConnection::Access::ReadOnly));
    EXPECT_FALSE(connection.execute("INSERT INTO t(v) VALUES('x')"));
    SqliteStatement statement(connection);
    ASSERT_TRUE(statement.prepare("SELECT ?, ?, ?"));
    ASSERT_TRUE(statement.bind(1, static_cast<const char*>(nullptr)) && statement.bind(2, "") &&
                statement.bind(3, sqlite3_int64{1} << 40));
    ASSERT_EQ(statement.step(), SQLITE_ROW);
    EXPECT_EQ(statement.text(0), nullptr);
    EXPECT_STREQ(statement.text(1), "");
    EXPECT_EQ(statement.number(2), sqlite3_int64{1} << 40);
}

TEST_F(Sqlite, CreationMakesTheDirectoriesAndReportsAnExistingTable) {
    const LogCapture log;
    EXPECT_EQ(sqlite_create_db_path(path("a/b/db").c_str(), "test"), 0);
    EXPECT_EQ(accessOf(path("a/b")), "0755 0:0");
    EXPECT_EQ(sqlite_db_create(database().c_str(), "BEGIN TRANSACTION;CREATE TABLE t(k);COMMIT;", "test"), -1);
    EXPECT_EQ(LogCapture::messages.at(0), "3 Unable to re-create test database: table t already exists");
}

}  // namespace
