// Changes of many handlers in one transaction: cloning, moving, removal by domain, and the loop that all are made of.
//
// The rows are always read to the end before the transaction begins. A transaction that starts with a read and goes on
// to write holds its read lock while it waits for the write lock; two of those wait for each other for ever.
#include <cerrno>
#include <cstring>
#include <initializer_list>
#include <string>

#include "handlers/handlers_database.h"
#include "handlers/handlers_statements.h"
#include "util/log.h"

using kavro::SqliteConnection;
using kavro::SqliteStatement;
using kavro::handlers::borrow_record;
using kavro::handlers::ListOwner;
using kavro::handlers::OperationConnection;
using kavro::handlers::run_statement;
using kavro::handlers::save_row;
using kavro::handlers::StoredAddress;

namespace {

constexpr const char* kCloneReadFailure = "Unable to select data from handlers database: %s";
constexpr const char* kAddFailure = "Unable to add records into handlers database";

/// A transaction on a connection; rolls back, in the destructor, what was not committed.
class Transaction {
public:
    explicit Transaction(SqliteConnection& connection) : connection_(connection) {}
    Transaction(const Transaction&) = delete;
    Transaction& operator=(const Transaction&) = delete;
    ~Transaction() {
        // SQLite itself has ended the transaction after some errors (a full disk, RAISE(ROLLBACK)).
        if (begun_ && sqlite3_get_autocommit(connection_.get()) == 0) {
            end("ROLLBACK;");
        }
    }

    bool begin() { return begun_ = connection_.execute("BEGIN TRANSACTION;"); }
    bool commit() { return end("COMMIT;"); }

private:
    bool end(const char* script) {
        if (connection_.execute(script)) {
            return true;
        }
        kavro_log(KAVRO_LOG_ERROR, "Unable to end sqlite transaction: %s", connection_.errorText());
        return false;
    }

    SqliteConnection& connection_;
    bool begun_ = false;
};

/// Where the domain of an address begins if that is exactly `domain`, at its "@"; else null. LIKE finds more: longer
/// names, look-alikes, and whatever "_" and "%" stand for.
const char* domain_part(const char* address, const StoredAddress& domain) {
    const char* at = address == nullptr ? nullptr : std::strrchr(address, '@');
    return at != nullptr && std::strcmp(at + 1, domain.get()) == 0 ? at : nullptr;
}

/// name@domain.
std::string full_address(const std::string& name, const char* domain) {
    return name + '@' + domain;
}

/// Reads the handlers of one address into the list, under the new address. As in read_domain, `protected` is not read:
/// a copy is never protected on restore.
int read_address(SqliteConnection* connection, const StoredAddress& address, std::string new_address, mh_list* list) {
    return run_statement(connection, SqliteConnection::Access::ReadWriteCreate,
                         {"SELECT priority, type, queue, name, executable, context, enabled FROM handlers WHERE "
                          "address=?",
                          nullptr, kCloneReadFailure},
                         {{"address", address.get()}}, [&](const SqliteStatement& row) {
                             mh_data record = borrow_record(row, 4);
                             record.address = new_address.data();
                             return save_row(list, record);
                         });
}

/// Reads the handlers of a domain's addresses into the list, each under its name in the new domain.
int read_domain(SqliteConnection* connection, const StoredAddress& domain, const char* new_domain, mh_list* list) {
    return run_statement(connection, SqliteConnection::Access::ReadWriteCreate,
                         {"SELECT priority, type, queue, name, executable, context, enabled, address FROM handlers "
                          "WHERE address LIKE '%' || ? || '%'",
                          nullptr, kCloneReadFailure},
                         {{"address", domain.get()}}, [&](const SqliteStatement& row) {
                             const char* address = row.text(7);
                             const char* at = domain_part(address, domain);
                             if (at == nullptr) {
                                 return 0;
                             }
                             std::string renamed = full_address(std::string(address, at), new_domain);
                             mh_data record = borrow_record(row, 4);
                             record.address = renamed.data();
                             return save_row(list, record);
                         });
}

/// Reads what mh_db_clone copies into the list, as the copies will be. 0, or -1, logged.
int read_as(SqliteConnection* connection, const char* old_name, const char* old_domain, const char* new_name,
            const char* new_domain, mh_list* list) {
    if ((old_name == nullptr) != (new_name == nullptr)) {
        errno = EINVAL;
        kavro_log(KAVRO_LOG_ERROR, kCloneReadFailure, std::strerror(errno));
        return -1;
    }
    return old_name == nullptr ? read_domain(connection, StoredAddress(old_domain), new_domain, list)
                               : read_address(connection, StoredAddress(full_address(old_name, old_domain).c_str()),
                                              full_address(new_name, new_domain), list);
}

/// A list, and what is done with each of its records.
struct Change {
    const mh_list* list;
    int (*operation)(SqliteConnection* connection, const mh_data* record);
    const char* failure;  ///< logged after the operation's own line; may be null
};

/// In one transaction. 0, or -1, logged.
int change_all(SqliteConnection* connection, std::initializer_list<Change> changes) {
    OperationConnection opened(connection, SqliteConnection::Access::ReadWriteCreate);
    Transaction transaction(opened.get());
    const char* failure = changes.begin()->failure;
    bool done = opened.isOpen() && transaction.begin();
    if (!done) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to begin sqlite transaction: %s", opened.get().errorText());
    }
    for (const Change& change : changes) {
        const mh_list_node* node = change.list->head;
        for (failure = done ? change.failure : failure; done && node != nullptr; node = node->next) {
            done = change.operation(&opened.get(), node->data) == 0;
        }
    }
    // What was not committed is rolled back.
    done = done && transaction.commit();
    if (!done && failure != nullptr) {
        kavro_log(KAVRO_LOG_ERROR, "%s", failure);
    }
    return done ? 0 : -1;
}

}  // namespace

int mh_db_do(const mh_list* list, SqliteConnection* connection,
             int (*operation)(SqliteConnection* connection, const mh_data* record)) {
    return change_all(connection, {{list, operation, nullptr}});
}

int mh_db_remove_all(const char* domain) {
    const StoredAddress stored(domain);
    SqliteConnection connection;
    const ListOwner list(mh_list_init());
    const auto in_domain = [&](const char* address) { return domain_part(address, stored) != nullptr; };
    if (list == nullptr || kavro::handlers::select_by_fragment(&connection, SqliteConnection::Access::ReadWriteCreate,
                                                               stored.get(), in_domain, list.get()) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Get handlers list");
        return -1;
    }
    return mh_db_do(list.get(), &connection, kavro::handlers::remove_record);
}

int mh_db_clone(const char* old_name, const char* old_domain, const char* new_name, const char* new_domain) {
    SqliteConnection connection;
    const ListOwner list(mh_list_init());
    if (list == nullptr || read_as(&connection, old_name, old_domain, new_name, new_domain, list.get()) != 0) {
        return -1;
    }
    return change_all(&connection, {{list.get(), mh_db_add, kAddFailure}});
}

int mh_db_move(const char* old_name, const char* old_domain, const char* new_name, const char* new_domain) {
    SqliteConnection connection;
    const ListOwner copies(mh_list_init());
    const ListOwner originals(mh_list_init());
    if (copies == nullptr || originals == nullptr ||
        read_as(&connection, old_name, old_domain, new_name, new_domain, copies.get()) != 0 ||
        read_as(&connection, old_name, old_domain, old_name, old_domain, originals.get()) != 0) {
        return -1;
    }
    return change_all(&connection, {{copies.get(), mh_db_add, kAddFailure},
                                    {originals.get(), kavro::handlers::remove_record, nullptr}});
}
