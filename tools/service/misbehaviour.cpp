#include "tools/service/misbehaviour.h"

#include <fmt/core.h>
#include <zlib.h>

#include <algorithm>
#include <array>
#include <boost/json.hpp>
#include <chrono>
#include <cstdint>
#include <limits>

#include "platform/text.h"

namespace orvex {
namespace {

namespace json = boost::json;
using platform::failure;

constexpr std::int64_t untilPeerLeaves = 24L * 60 * 60 * 1000;
constexpr int gzipWindow = 15 + 16;

enum class Value { none, number, text, any };
struct Action {
    std::string_view name;
    Value value;
    bool isOptional;
};
constexpr Action actions[] = {
    {"status", Value::number, false},  {"stall", Value::number, true},   {"reset", Value::none, true},
    {"truncate", Value::number, true}, {"redirect", Value::text, false}, {"bomb", Value::number, false},
    {"body", Value::any, false},       {"gzip", Value::none, true},      {"force_fetch", Value::any, false},
    {"headers", Value::none, true},    {"cut", Value::number, true},
};

// `text` as a gzip stream (RFC 1952), `repetitions` times over.
std::string gzip(std::string_view text, std::size_t repetitions) {
    z_stream stream{};
    deflateInit2(&stream, Z_BEST_COMPRESSION, Z_DEFLATED, gzipWindow, 8, Z_DEFAULT_STRATEGY);
    std::string result;
    std::array<Bytef, 16384> block;
    for (std::size_t i = 1; i <= repetitions; ++i) {
        stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text.data()));
        stream.avail_in = static_cast<uInt>(text.size());
        do {
            stream.next_out = block.data();
            stream.avail_out = block.size();
            deflate(&stream, i == repetitions ? Z_FINISH : Z_NO_FLUSH);
            result.append(reinterpret_cast<const char*>(block.data()), block.size() - stream.avail_out);
        } while (stream.avail_out == 0);
    }
    deflateEnd(&stream);
    return result;
}

// Blanks without end: to a JSON parser, a value that never begins.
std::string bomb(std::size_t bytes) {
    const std::string block(1u << 20, ' ');
    return gzip(block, std::max<std::size_t>(bytes / block.size(), 1));
}

std::string asText(const json::value& value) {
    return value.is_string() ? std::string(value.get_string()) : json::serialize(value);
}

std::optional<std::int64_t> numberIn(const json::object& object, std::string_view name) {
    const json::value* value = object.if_contains(name);
    if (value == nullptr || !value->is_int64() || value->get_int64() < 0) return {};
    return value->get_int64();
}

std::optional<std::string> textIn(const json::object& object, std::string_view name) {
    const json::value* value = object.if_contains(name);
    return value != nullptr && value->is_string() ? std::optional(std::string(value->get_string())) : std::nullopt;
}

}  // namespace

struct Misbehaviour::Rule {
    std::string path;  // or "*"
    std::string action;
    json::value value;
    std::int64_t number = 0;  // the value, where it is one
    std::int64_t timesLeft = 1;
    std::int64_t delayMilliseconds = 0;
    std::optional<int> status;
    std::vector<std::pair<std::string, std::string>> headers;

    platform::Result<void> read(const json::object& rule);
    void apply(ServerAnswer& answer) const;
    [[nodiscard]] bool isRefusal() const { return action == "status" || action == "redirect" || status >= 300; }

private:
    platform::Result<void> _readValue(const json::object& rule);
    platform::Result<void> _readHeaders(const json::object& rule);
    [[nodiscard]] std::int64_t _heldMilliseconds() const;
};

platform::Result<void> Misbehaviour::Rule::read(const json::object& rule) {
    path = textIn(rule, "path").value_or("*");
    action = textIn(rule, "action").value_or("");
    timesLeft = numberIn(rule, "times").value_or(1);
    if (timesLeft == 0) timesLeft = std::numeric_limits<std::int64_t>::max();
    delayMilliseconds = std::min(numberIn(rule, "delay_ms").value_or(0), untilPeerLeaves);
    if (const auto given = numberIn(rule, "status"))
        status = static_cast<int>(std::clamp<std::int64_t>(*given, 200, 599));
    if (auto good = _readValue(rule); !good) return good;
    return _readHeaders(rule);
}

platform::Result<void> Misbehaviour::Rule::_readValue(const json::object& rule) {
    const auto* const known = std::ranges::find(actions, std::string_view(action), &Action::name);
    if (known == std::end(actions)) return failure(400, fmt::format("there is no action \"{}\"", action));
    const json::value* given = rule.if_contains("value");
    if (given == nullptr) {
        number = -1;
        return known->isOptional ? platform::Result<void>() : failure(400, fmt::format("{} needs a value", action));
    }
    value = *given;
    if (known->value == Value::text && !value.is_string()) return failure(400, fmt::format("{} needs a text", action));
    if (known->value != Value::number) return {};
    const auto whole = numberIn(rule, "value");
    if (!whole) return failure(400, fmt::format("{} needs a whole number", action));
    number = *whole;
    if (action == "status" && (number < 200 || number > 599)) return failure(400, "no such status");
    if (action == "bomb" && number > static_cast<std::int64_t>(maxBombBytes))
        return failure(400, "the bomb is too large");
    return {};
}

platform::Result<void> Misbehaviour::Rule::_readHeaders(const json::object& rule) {
    const json::value* given = rule.if_contains("headers");
    if (given == nullptr) return {};
    if (!given->is_object()) return failure(400, "headers are no object");
    for (const auto& [name, text] : given->get_object()) {
        headers.emplace_back(name, asText(text));
        if (platform::hasControlCharacter(headers.back().first) || platform::hasControlCharacter(headers.back().second))
            return failure(400, "a header with a control character");
    }
    return {};
}

std::int64_t Misbehaviour::Rule::_heldMilliseconds() const {
    if (action != "stall") return delayMilliseconds;
    return number < 0 ? untilPeerLeaves : std::min(number, untilPeerLeaves);
}

void Misbehaviour::Rule::apply(ServerAnswer& answer) const {
    if (action == "reset" || action == "cut") answer.fault.reset = true;
    if (action == "truncate")
        answer.fault.bodyBytes = number < 0 ? answer.body.size() / 2 : static_cast<std::size_t>(number);
    if (action == "status") answer = {.status = static_cast<int>(number), .body = R"({"error":"as it was told"})"};
    if (action == "redirect") answer = {.status = 302, .headers = {{"Location", asText(value)}}};
    if (action == "body") answer = {.body = asText(value)};
    if (action == "gzip") answer.body = gzip(answer.body, 1);
    if (action == "bomb") answer = {.body = bomb(static_cast<std::size_t>(number))};
    if (action == "gzip" || action == "bomb") answer.headers.emplace_back("Content-Encoding", "gzip");
    if (action == "force_fetch") answer.headers.emplace_back("X-Kelvar-ForceFetch", asText(value));
    if (status) answer.status = *status;
    answer.fault.holdFor = std::chrono::milliseconds(_heldMilliseconds());
    answer.headers.insert(answer.headers.end(), headers.begin(), headers.end());
}

Misbehaviour::Misbehaviour() = default;
Misbehaviour::~Misbehaviour() = default;

platform::Result<void> Misbehaviour::add(const json::value& rule) {
    if (!rule.is_object()) return failure(400, "a rule is an object");
    Rule read;
    if (auto good = read.read(rule.get_object()); !good) return good;
    const platform::MutexLock lock(_mutex);
    if (_rules.size() >= maxRules) return failure(400, "there are too many rules");
    _rules.push_back(std::move(read));
    return {};
}

void Misbehaviour::clear() {
    const platform::MutexLock lock(_mutex);
    _rules.clear();
}

ServerAnswer Misbehaviour::answer(std::string_view path,
                                  const std::function<ServerAnswer(bool isReplaced)>& rightAnswer) {
    const auto rule = _take(path, false);
    ServerAnswer answer = rightAnswer(rule && rule->isRefusal());
    if (rule) rule->apply(answer);
    return answer;
}

std::optional<std::size_t> Misbehaviour::cut(std::string_view path, std::size_t bodyBytes) {
    const auto rule = _take(path, true);
    if (!rule) return {};
    return rule->number < 0 ? bodyBytes / 2 : static_cast<std::size_t>(rule->number);
}

std::optional<Misbehaviour::Rule> Misbehaviour::_take(std::string_view path, bool onlyCut) {
    const platform::MutexLock lock(_mutex);
    const auto found =
        std::ranges::find_if(_rules, [&](const Rule& rule) { return rule.path == path || rule.path == "*"; });
    if (found == _rules.end() || (onlyCut && found->action != "cut")) return {};
    Rule rule = *found;
    if (--found->timesLeft == 0) _rules.erase(found);
    return rule;
}

std::size_t Misbehaviour::pendingRules() const {
    const platform::MutexLock lock(_mutex);
    return _rules.size();
}

}  // namespace orvex
