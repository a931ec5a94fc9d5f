// One statement of the handlers database from opening to closing, and what its rows become. The busy handling is in the
// connection's class.
#include "handlers/handlers_statements.h"

#include "handlers/handlers_database.h"
#include "util/log.h"
#include "util/names.h"

namespace kavro::handlers {

OperationConnection::OperationConnection(SqliteConnection* given, SqliteConnection::Access access)
    : connection_(given != nullptr ? *given : own_),
      open_(connection_.isOpen() || connection_.open(mh_db_path, access)) {
}

int run_statement(SqliteConnection* connection, SqliteConnection::Access access, const StatementTexts& texts,
                  std::initializer_list<Parameter> parameters, const RowReader& read_row) {
    // Made before the statement, so that it is closed after the statement is finalised.
    OperationConnection opened(connection, access);
    const auto fail = [&] {
        kavro_log(KAVRO_LOG_ERROR, texts.failure, opened.get().errorText());
        return -1;
    };
    if (!opened.isOpen()) {
        return fail();
    }
    SqliteStatement statement(opened.get());
    if (!statement.prepare(texts.sql)) {
        return fail();
    }
    int position = 0;  // SQLite counts parameters from 1
    for (const Parameter& parameter : parameters) {
        ++position;
        if (std::visit([&](auto value) { return statement.bind(position, value); }, parameter.value)) {
            continue;
        }
        if (texts.bind_failure == nullptr) {
            return fail();
        }
        kavro_log(KAVRO_LOG_ERROR, texts.bind_failure, parameter.label, opened.get().errorText());
        return -1;
    }
    int answer = statement.step();
    while (answer == SQLITE_ROW) {
        if (read_row && read_row(statement) != 0) {
            return -1;
        }
        answer = statement.step();
    }
    return answer == SQLITE_DONE ? 0 : fail();
}

int run_change(SqliteConnection* connection, const StatementTexts& texts, std::initializer_list<Parameter> parameters) {
    return run_statement(connection, SqliteConnection::Access::ReadWriteCreate, texts, parameters);
}

StoredAddress::StoredAddress(const char* address) : given_(address != nullptr), text_(given_ ? address : "") {
    ascii_lower(text_.data());
}

char* borrow_text(const SqliteStatement& row, int column) {
    return const_cast<char*>(row.text(column));
}

mh_data borrow_record(const SqliteStatement& row, int rest) {
    mh_data record;
    mh_data_init_ex(&record);
    record.priority = static_cast<int>(row.number(0));
    record.type = static_cast<int>(row.number(1));
    record.queue = static_cast<int>(row.number(2));
    record.name = borrow_text(row, 3);
    record.executable = borrow_text(row, rest);
    record.context = borrow_text(row, rest + 1);
    record.enabled = row.number(rest + 2) != 0 ? 1 : 0;
    return record;
}

int save_row(mh_list* list, const mh_data& record) {
    if (mh_list_add(list, &record) != 0) {
        kavro_log(KAVRO_LOG_ERROR, "Unable to save the data from SELECT query");
        return -1;
    }
    return 0;
}

int select_by_fragment(SqliteConnection* connection, SqliteConnection::Access access, const char* fragment,
                       const std::function<bool(const char* address)>& keep, mh_list* list) {
    return run_statement(connection, access,
                         {"SELECT priority, type, queue, name, address, executable, context, enabled FROM handlers "
                          "WHERE address LIKE '%' || ? || '%'",
                          nullptr, kReadFailure},
                         {{"address", fragment}}, [&](const SqliteStatement& row) {
                             mh_data record = borrow_record(row, 5);
                             record.address = borrow_text(row, 4);
                             return keep(record.address) ? save_row(list, record) : 0;
                         });
}

}  // namespace kavro::handlers
