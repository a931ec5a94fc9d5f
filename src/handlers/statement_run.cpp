// One statement of the handlers database from opening to closing. The busy handling is in the connection's class.
#include "handlers/statement_run.h"

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

StoredAddress::StoredAddress(const char* address) : given_(address != nullptr), text_(given_ ? address : "") {
    ascii_lower(text_.data());
}

}  // namespace kavro::handlers
