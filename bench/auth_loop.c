/* The least that a password change or a domain alias can cost: the statements of the authentication database alone,
 * each row on connections of its own, over SQLite as it comes (its own allocator, its default configuration).
 *   auth_loop set DATABASE                       rows "name domain value" on standard input
 *   auth_loop clone DATABASE DOMAIN ALIAS        names on standard input, one a line
 * "set" stores each value; "clone" reads the name's row in DOMAIN and stores it in ALIAS, as two connections. */
#include <sqlite3.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>

enum { BUSY_TIMEOUT_MS = 50, WORD_SIZE = 1024 };

static const char* database;

static void require(int fulfilled, const char* what) {
    if (!fulfilled) {
        fprintf(stderr, "auth_loop: %s failed\n", what);
        exit(1);
    }
}

static sqlite3* connect_database(int flags) {
    sqlite3* connection = NULL;
    require(sqlite3_open_v2(database, &connection, flags, NULL) == SQLITE_OK, "open");
    sqlite3_busy_timeout(connection, BUSY_TIMEOUT_MS);
    return connection;
}

static sqlite3_stmt* prepare(sqlite3* connection, const char* sql) {
    sqlite3_stmt* statement = NULL;
    require(sqlite3_prepare_v2(connection, sql, -1, &statement, NULL) == SQLITE_OK, "prepare");
    return statement;
}

static void bind_text(sqlite3_stmt* statement, int position, const char* text) {
    require(sqlite3_bind_text(statement, position, text, -1, SQLITE_STATIC) == SQLITE_OK, "bind");
}

static void run_to_end(sqlite3_stmt* statement) {
    require(sqlite3_step(statement) == SQLITE_DONE, "change");
    sqlite3_finalize(statement);
}

/* The domain's id; makes its row where there is none. */
static sqlite3_int64 domain_id(sqlite3* connection, const char* domain) {
    sqlite3_stmt* statement = prepare(connection, "SELECT id FROM domains WHERE name=LOWER(?)");
    bind_text(statement, 1, domain);
    const int found = sqlite3_step(statement) == SQLITE_ROW;
    const sqlite3_int64 id = found ? sqlite3_column_int64(statement, 0) : 0;
    sqlite3_finalize(statement);
    if (found) {
        return id;
    }
    statement = prepare(connection, "INSERT INTO domains (name, status) VALUES(LOWER(?), 0)");
    bind_text(statement, 1, domain);
    run_to_end(statement);
    return sqlite3_last_insert_rowid(connection);
}

static void set(const char* name, const char* domain, const char* value) {
    sqlite3* connection = connect_database(SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    const sqlite3_int64 id = domain_id(connection, domain);
    sqlite3_stmt* statement = prepare(
        connection, "INSERT OR REPLACE INTO users (name, userPassword, status, dom_id) VALUES (LOWER(?), ?, ?, ?)");
    bind_text(statement, 1, name);
    bind_text(statement, 2, value);
    sqlite3_bind_int64(statement, 3, 0);
    sqlite3_bind_int64(statement, 4, id);
    run_to_end(statement);
    sqlite3_close(connection);
}

static void clone_name(const char* name, const char* domain, const char* alias) {
    char value[WORD_SIZE];
    sqlite3* connection = connect_database(SQLITE_OPEN_READONLY);
    sqlite3_stmt* source = prepare(connection, "SELECT id, status FROM domains WHERE name=LOWER(?)");
    bind_text(source, 1, domain);
    require(sqlite3_step(source) == SQLITE_ROW, "domain look-up");
    sqlite3_stmt* user =
        prepare(connection,
                "SELECT name, userPassword, cmusaslsecretPLAIN, status FROM users WHERE dom_id=? AND name=LOWER(?)");
    sqlite3_bind_int64(user, 1, sqlite3_column_int64(source, 0));
    bind_text(user, 2, name);
    require(sqlite3_step(user) == SQLITE_ROW, "user look-up");
    snprintf(value, sizeof value, "%s", (const char*)sqlite3_column_text(user, 1));
    sqlite3_finalize(user);
    sqlite3_finalize(source);
    sqlite3_close(connection);
    set(name, alias, value);
}

int main(int argc, char** argv) {
    char name[WORD_SIZE];
    char domain[WORD_SIZE];
    char value[WORD_SIZE];
    if (argc == 3 && strcmp(argv[1], "set") == 0) {
        database = argv[2];
        while (scanf("%1023s %1023s %1023s", name, domain, value) == 3) {
            set(name, domain, value);
        }
        return 0;
    }
    if (argc == 5 && strcmp(argv[1], "clone") == 0) {
        database = argv[2];
        while (scanf("%1023s", name) == 1) {
            clone_name(name, argv[3], argv[4]);
        }
        return 0;
    }
    fputs("usage: auth_loop set DATABASE | auth_loop clone DATABASE DOMAIN ALIAS\n", stderr);
    return 2;
}
