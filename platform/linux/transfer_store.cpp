#include "platform/linux/transfer_store.h"

#include <fmt/core.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/parse.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value_to.hpp>
#include <cerrno>
#include <filesystem>

#include "platform/counters.h"
#include "platform/file_manager.h"
#include "platform/log.h"
#include "platform/log_events.h"

namespace orvex::platform {
namespace {

namespace json = boost::json;

constexpr std::chrono::milliseconds busyTimeout{1000};
constexpr const char* databaseFiles[] = {"tasks.db", "tasks.db-wal", "tasks.db-shm"};
constexpr std::string_view droppedCounter = "com.kelvar.orvexd.transfer.dropped.store";

namespace sql {

constexpr char configure[] =
    "PRAGMA journal_mode = WAL; PRAGMA synchronous = FULL; PRAGMA secure_delete = ON; PRAGMA max_page_count = 16384;";
constexpr char quickCheck[] = "PRAGMA quick_check(1)";
constexpr char schema[] =
    "CREATE TABLE IF NOT EXISTS task(number INTEGER PRIMARY KEY AUTOINCREMENT, direction INT NOT NULL, "
    "request TEXT NOT NULL, created REAL NOT NULL, earliest_begin REAL, feedbacks INT NOT NULL, "
    "body_bytes INT NOT NULL, attempts INT NOT NULL, end_state TEXT)";
constexpr char insert[] =
    "INSERT INTO task(number, direction, request, created, earliest_begin, feedbacks, body_bytes, attempts) "
    "VALUES(?1, ?2, ?3, ?4, ?5, ?6, ?7, ?8)";
constexpr char setAttempts[] = "UPDATE task SET attempts = ?2 WHERE number = ?1";
constexpr char setEnd[] = "UPDATE task SET end_state = ?2 WHERE number = ?1";
constexpr char remove[] = "DELETE FROM task WHERE number = ?1";
constexpr char readAll[] =
    "SELECT number, direction, request, created, earliest_begin, feedbacks, body_bytes, attempts, end_state "
    "FROM task ORDER BY number";
constexpr char lastNumber[] = "SELECT seq FROM sqlite_sequence WHERE name = 'task'";

}  // namespace sql

// What was sent and answered need not be UTF-8, and both come back byte by byte.
json::value parsed(std::string_view text) {
    json::parse_options options;
    options.allow_invalid_utf8 = true;
    return json::parse(text, {}, options);
}

json::array headersToJSON(const HTTPHeaders& headers) {
    json::array array;
    for (const auto& [name, value] : headers) array.push_back(json::array{name, value});
    return array;
}

HTTPHeaders headersFromJSON(const json::value& value) {
    HTTPHeaders headers;
    for (const auto& pair : value.as_array())
        headers.emplace_back(pair.as_array().at(0).as_string(), pair.as_array().at(1).as_string());
    return headers;
}

std::string requestText(const URLRequest& request) {
    json::object object{{"url", request.url}, {"method", request.method}, {"headers", headersToJSON(request.headers)}};
    if (request.timeout) object["timeout"] = request.timeout->count();
    if (request.timeWindow) object["window"] = request.timeWindow->count();
    return json::serialize(object);
}

/// Throws what Boost.JSON throws.
URLRequest requestFrom(std::string_view text) {
    const json::value value = parsed(text);
    const json::object& object = value.as_object();
    URLRequest request{.url = std::string(object.at("url").as_string()),
                       .method = std::string(object.at("method").as_string()),
                       .headers = headersFromJSON(object.at("headers"))};
    if (const auto* timeout = object.if_contains("timeout"))
        request.timeout = std::chrono::nanoseconds(timeout->as_int64());
    if (const auto* window = object.if_contains("window"))
        request.timeWindow = std::chrono::seconds(window->as_int64());
    return request;
}

std::string endText(const StoredTransfer::End& end) {
    json::object object;
    if (end.response)
        object["response"] = {{"url", end.response->url},
                              {"status", end.response->statusCode},
                              {"headers", headersToJSON(end.response->headers)}};
    if (end.error) object["error"] = {{"code", int{end.error->code}}, {"reason", end.error->reason}};
    return json::serialize(object);
}

/// Throws what Boost.JSON throws.
StoredTransfer::End endFrom(std::string_view text) {
    const json::value value = parsed(text);
    StoredTransfer::End end;
    if (const auto* response = value.as_object().if_contains("response"))
        end.response = URLResponse{.url = std::string(response->at("url").as_string()),
                                   .isHTTP = true,
                                   .statusCode = response->at("status").as_int64(),
                                   .headers = headersFromJSON(response->at("headers"))};
    if (const auto* error = value.as_object().if_contains("error"))
        end.error = TransportError{.code = static_cast<TransportError::Code>(error->at("code").as_int64()),
                                   .reason = std::string(error->at("reason").as_string())};
    return end;
}

/// None: the row is not one that we wrote.
std::optional<StoredTransfer> transferOf(const SQLiteRun& row) {
    try {
        StoredTransfer transfer{
            .number = static_cast<std::uint64_t>(row.integer(0)),
            .direction = row.integer(1) == 0 ? TransferDirection::upload : TransferDirection::download,
            .request = requestFrom(row.text(2)),
            .created = wallTimeFromSeconds(row.real(3)),
            .numberOfFeedbacks = static_cast<std::uint64_t>(row.integer(5)),
            .bodyBytes = static_cast<std::uint64_t>(row.integer(6)),
            .attempts = static_cast<std::uint32_t>(row.integer(7))};
        if (!row.isNull(4)) transfer.earliestBegin = wallTimeFromSeconds(row.real(4));
        if (!row.isNull(8)) transfer.end = endFrom(row.text(8));
        return transfer;
    } catch (const std::exception& error) {
        defaultLogger().error("task {} cannot be read back: {}", row.integer(0), error.what());
        return std::nullopt;
    }
}

bool saysDamage(int code) { return primaryCode(code) == SQLITE_CORRUPT || primaryCode(code) == SQLITE_NOTADB; }

}  // namespace

TransferStore::TransferStore(std::shared_ptr<Directory> directory, Counters& counters)
    : _directory(std::move(directory)),
      _counters(counters) {}

Result<std::vector<StoredTransfer>> TransferStore::open() {
    auto all = _openOnce();
    if (all || !saysDamage(all.error().code)) return all;
    defaultLogger()
        .as(LogEvent::fileSetAside, {{"ORVEX_FILE", _directory->path()}, {"ORVEX_REASON", all.error().text}})
        .error("the transfers in {} are lost: {}", _directory->path(), all.error().text);
    _setAside();
    return _openOnce();
}

bool TransferStore::holdsTasks() {
    if (const auto attributes = _directory->attributes(databaseFiles[0]);
        !attributes && attributes.error().code == ENOENT)
        return false;
    const auto all = _openOnce();
    return !all || !all->empty();
}

Result<std::vector<StoredTransfer>> TransferStore::_openOnce() {
    const auto path = _readyFile();
    if (!path) return std::unexpected(path.error());
    int code = _database.open(*path, SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE);
    // At start-up another thread may look whether there are tasks.
    if (code == SQLITE_OK) code = sqlite3_busy_timeout(_database.handle(), static_cast<int>(busyTimeout.count()));
    if (code == SQLITE_OK) code = _database.execute(sql::configure);
    if (code == SQLITE_OK) code = _database.execute(sql::schema);
    if (auto opened = _answer("open", code); !opened) {
        _database.close();
        return std::unexpected(opened.error());
    }
    auto all = _readAll();
    if (!all) _database.close();
    return all;
}

/// The path of a file that is ours to open, made if there was none.
Result<std::string> TransferStore::_readyFile() {
    for (const char* name : databaseFiles) {
        const auto attributes = _directory->attributes(name);
        if (!attributes && saysBrokenFile(attributes.error())) setAside(*_directory, name);
    }
    if (!_directory->attributes(databaseFiles[0]))
        if (auto made = _directory->replace(databaseFiles[0], ""); !made) return std::unexpected(made.error());
    std::error_code error;
    const auto path = std::filesystem::canonical(_directory->path(), error);
    if (error) return failure(error.value(), fmt::format("{}: {}", _directory->path(), error.message()));
    return (path / databaseFiles[0]).string();
}

Result<std::vector<StoredTransfer>> TransferStore::_readAll() {
    {
        auto check = _database.run(sql::quickCheck);
        const bool isSound = check.step() && check.text(0) == "ok";
        if (auto checked = _answer("check", check.finish()); !checked) return std::unexpected(checked.error());
        if (!isSound) return failure(SQLITE_CORRUPT, "the file is damaged");
    }
    std::vector<StoredTransfer> all;
    std::vector<std::uint64_t> unreadable;
    {
        auto rows = _database.run(sql::readAll);
        while (rows.step()) {
            if (auto transfer = transferOf(rows))
                all.push_back(*std::move(transfer));
            else
                unreadable.push_back(static_cast<std::uint64_t>(rows.integer(0)));
        }
        const int code = rows.finish();
        if (primaryCode(code) == SQLITE_ERROR) return failure(SQLITE_CORRUPT, "the table of tasks is none of ours");
        if (auto read = _answer("read", code); !read) return std::unexpected(read.error());
    }
    for (const std::uint64_t number : unreadable) {
        _counters.add(droppedCounter);
        (void)remove(number);
    }
    auto last = _database.run(sql::lastNumber);
    if (last.step()) _lastNumber = std::max(_lastNumber, static_cast<std::uint64_t>(last.integer(0)));
    return all;
}

void TransferStore::_setAside() {
    _counters.add(droppedCounter);
    _database.close();
    for (const char* name : databaseFiles) setAside(*_directory, name);
}

Result<void> TransferStore::insert(const StoredTransfer& transfer) {
    const std::string request = requestText(transfer.request);
    auto run = _database.run(sql::insert);
    run.bind(1, static_cast<std::int64_t>(transfer.number))
        .bind(2, std::int64_t{transfer.direction == TransferDirection::upload ? 0 : 1})
        .bind(3, request)
        .bind(4, secondsSince1970(transfer.created));
    if (transfer.earliestBegin) run.bind(5, secondsSince1970(*transfer.earliestBegin));
    run.bind(6, static_cast<std::int64_t>(transfer.numberOfFeedbacks))
        .bind(7, static_cast<std::int64_t>(transfer.bodyBytes))
        .bind(8, std::int64_t{transfer.attempts});
    return _answer("store a task", run.finish());
}

Result<void> TransferStore::setAttempts(std::uint64_t number, std::uint32_t attempts) {
    auto run = _database.run(sql::setAttempts);
    run.bind(1, static_cast<std::int64_t>(number)).bind(2, std::int64_t{attempts});
    return _answer("count an attempt", run.finish());
}

Result<void> TransferStore::setEnd(std::uint64_t number, const StoredTransfer::End& end) {
    const std::string text = endText(end);
    auto run = _database.run(sql::setEnd);
    run.bind(1, static_cast<std::int64_t>(number)).bind(2, text);
    return _answer("store an end", run.finish());
}

Result<void> TransferStore::remove(std::uint64_t number) {
    auto run = _database.run(sql::remove);
    run.bind(1, static_cast<std::int64_t>(number));
    return _answer("forget a task", run.finish());
}

Result<void> TransferStore::_answer(const char* what, int code) {
    if (code == SQLITE_OK) return {};
    return failure(code, fmt::format("cannot {} in {}: {}", what, _directory->path(), sqlite3_errstr(code)));
}

}  // namespace orvex::platform
