#include "platform/sqlite_database.h"

namespace orvex::platform {

SQLiteRun::~SQLiteRun() {
    if (_statement == nullptr) return;
    sqlite3_reset(_statement);  // its code is that of the last step, which was seen
    sqlite3_clear_bindings(_statement);
}

void SQLiteRun::_keep(int code) {
    if (_code == SQLITE_OK) _code = code;
}

SQLiteRun& SQLiteRun::bind(int position, std::string_view text) {
    if (_code != SQLITE_OK) return *this;
    // A null pointer would bind NULL, which is not the empty text.
    const char* bytes = text.data() != nullptr ? text.data() : "";
    _keep(sqlite3_bind_text64(_statement, position, bytes, text.size(), SQLITE_STATIC, SQLITE_UTF8));
    return *this;
}

SQLiteRun& SQLiteRun::bind(int position, std::int64_t value) {
    if (_code == SQLITE_OK) _keep(sqlite3_bind_int64(_statement, position, value));
    return *this;
}

SQLiteRun& SQLiteRun::bind(int position, double value) {
    if (_code == SQLITE_OK) _keep(sqlite3_bind_double(_statement, position, value));
    return *this;
}

bool SQLiteRun::step() {
    if (_done || _code != SQLITE_OK) return false;
    const int code = sqlite3_step(_statement);
    _done = code == SQLITE_DONE;
    if (code != SQLITE_ROW && !_done) _keep(code);
    return code == SQLITE_ROW;
}

int SQLiteRun::finish() {
    while (step()) continue;
    return _code;
}

std::string_view SQLiteRun::text(int column) const {
    const auto* bytes = sqlite3_column_text(_statement, column);
    if (bytes == nullptr) return {};
    return {reinterpret_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_column_bytes(_statement, column))};
}

int SQLiteDatabase::open(const std::string& path, int flags) {
    close();
    constexpr int always = SQLITE_OPEN_FULLMUTEX | SQLITE_OPEN_NOFOLLOW | SQLITE_OPEN_EXRESCODE;
    const int code = sqlite3_open_v2(path.c_str(), &_connection, flags | always, nullptr);
    if (code != SQLITE_OK) return code;
    sqlite3_db_config(_connection, SQLITE_DBCONFIG_DEFENSIVE, 1, nullptr);
    sqlite3_db_config(_connection, SQLITE_DBCONFIG_TRUSTED_SCHEMA, 0, nullptr);
    return SQLITE_OK;
}

void SQLiteDatabase::close() {
    _statements.clear();
    sqlite3_close_v2(_connection);
    _connection = nullptr;
}

SQLiteRun SQLiteDatabase::run(const char* sql) {
    auto& statement = _statements[sql];
    if (statement) return {statement.get(), SQLITE_OK};
    sqlite3_stmt* prepared = nullptr;
    const int code = _connection == nullptr
                         ? SQLITE_MISUSE
                         : sqlite3_prepare_v3(_connection, sql, -1, SQLITE_PREPARE_PERSISTENT, &prepared, nullptr);
    statement.reset(prepared);
    return {prepared, code};
}

int SQLiteDatabase::execute(const char* sql) { return sqlite3_exec(_connection, sql, nullptr, nullptr, nullptr); }

std::string SQLiteDatabase::errorMessage() const { return sqlite3_errmsg(_connection); }

}  // namespace orvex::platform
