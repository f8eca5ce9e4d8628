#pragma once

#include <sqlite3.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <string_view>

namespace orvex::platform {

/// One run of a prepared statement. It leaves the statement reset and unbound, so that it holds no lock and the next
/// run inherits nothing. The first error is kept: what follows it does nothing, and `step` and `finish` answer it.
class SQLiteRun {
public:
    SQLiteRun(sqlite3_stmt* statement, int code) : _statement(statement), _code(code) {}
    ~SQLiteRun();
    SQLiteRun(const SQLiteRun&) = delete;
    SQLiteRun& operator=(const SQLiteRun&) = delete;

    /// Positions are those of ?1, ?2, …. A text is not copied: it lives until the run ends. Its length counts, so it
    /// may hold zero bytes.
    SQLiteRun& bind(int position, std::string_view text);
    SQLiteRun& bind(int position, std::int64_t value);
    SQLiteRun& bind(int position, double value);

    [[nodiscard]] bool prepared() const { return _statement != nullptr; }
    [[nodiscard]] bool step();   ///< true: there is a row to read
    [[nodiscard]] int finish();  ///< steps to the end; SQLITE_OK or the error

    // Of the present row, columns from 0. A text is valid until the next step.
    [[nodiscard]] std::string_view text(int column) const;
    [[nodiscard]] std::int64_t integer(int column) const { return sqlite3_column_int64(_statement, column); }
    [[nodiscard]] double real(int column) const { return sqlite3_column_double(_statement, column); }
    [[nodiscard]] bool isNull(int column) const { return sqlite3_column_type(_statement, column) == SQLITE_NULL; }

private:
    void _keep(int code);

    sqlite3_stmt* const _statement;
    int _code;
    bool _done = false;  ///< another step would begin anew
};

/// A connection and the statements that were prepared on it, each once. Result codes are SQLite's extended ones.
/// Threading: one thread at a time.
class SQLiteDatabase {
public:
    SQLiteDatabase() = default;  ///< closed
    ~SQLiteDatabase() { close(); }
    SQLiteDatabase(const SQLiteDatabase&) = delete;
    SQLiteDatabase& operator=(const SQLiteDatabase&) = delete;

    /// `path` has no symbolic link in it: one is refused. Neither the schema nor a statement is trusted with more than
    /// it needs.
    [[nodiscard]] int open(const std::string& path, int flags);
    void close();
    [[nodiscard]] bool isOpen() const { return _connection != nullptr; }
    [[nodiscard]] sqlite3* handle() const { return _connection; }

    /// `sql` is one of the caller's constants: it is known again by its address.
    [[nodiscard]] SQLiteRun run(const char* sql);
    [[nodiscard]] int execute(const char* sql);  ///< statements whose rows do not matter
    [[nodiscard]] std::string errorMessage() const;

private:
    struct Finalizer {
        void operator()(sqlite3_stmt* statement) const { sqlite3_finalize(statement); }
    };
    sqlite3* _connection = nullptr;
    std::map<const char*, std::unique_ptr<sqlite3_stmt, Finalizer>> _statements;
};

/// The plain code of an extended one.
inline int primaryCode(int code) { return code & 0xFF; }

}  // namespace orvex::platform
