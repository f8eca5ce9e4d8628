#include "tools/search_provider/search_provider.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "platform/bus_name.h"
#include "platform/log.h"

namespace orvex::search_provider {
namespace {

using platform::BusArguments;
using platform::BusReply;
using platform::BusValue;

constexpr std::size_t maxUnderWay = 128;  // fewer than the daemon takes of one client
constexpr std::chrono::seconds portalPatience{25};

/// https://developer.gnome.org/documentation/tutorials/search-provider.html
platform::BusInterface providerInterface() {
    return {.name = "org.gnome.Shell.SearchProvider2",
            .methods = {{"GetInitialResultSet", "as", {"terms"}, "as", {"results"}},
                        {"GetSubsearchResultSet", "asas", {"previous_results", "terms"}, "as", {"results"}},
                        {"GetResultMetas", "as", {"identifiers"}, "aa{sv}", {"metas"}},
                        {"ActivateResult", "sasu", {"identifier", "terms", "timestamp"}, "", {}},
                        {"LaunchSearch", "asu", {"terms", "timestamp"}, "", {}}},
            .signals = {}};
}

/// The texts of an array; none when there are too many.
std::optional<std::vector<std::string>> textsOf(const BusValue& value) {
    const auto* array = value.as<platform::BusArray>();
    if (array == nullptr || array->items.size() > maxAskedTexts) return std::nullopt;
    std::vector<std::string> texts;
    for (const auto& item : array->items) {
        if (const auto* text = item.as<std::string>()) texts.push_back(*text);
    }
    return texts;
}

void refuse(BusReply& reply) {
    platform::defaultLogger().error("a call with more than {} texts is refused", maxAskedTexts);
    reply.fail(platform::bus_error::limitsExceeded, "too many texts");
}

BusArguments identifiersOf(const std::vector<Result>& results) {
    platform::BusArray identifiers{.elementSignature = "s", .items = {}};
    for (const auto& result : results) identifiers.items.emplace_back(identifierOf(result));
    return {std::move(identifiers)};
}

std::uint64_t firstQueryId(platform::WallTime now) {
    return static_cast<std::uint64_t>(
        std::chrono::duration_cast<std::chrono::microseconds>(now.time_since_epoch()).count());
}

}  // namespace

SearchProvider::SearchProvider(platform::Dispatcher& dispatcher, platform::Bus& bus, DaemonLink& daemon,
                               Options options, std::function<void()> onLeave)
    : _dispatcher(dispatcher),
      _bus(bus),
      _daemon(daemon),
      _options(options),
      _onLeave(std::move(onLeave)),
      _queue(dispatcher, "com.kelvar.orvexd.SearchProvider"),
      _lastQuery(firstQueryId(dispatcher.wallNow())),
      _idleTimer(_queue) {}

platform::Result<void> SearchProvider::serve() {
    const auto exported =
        _bus.exportObject(std::string(objectPath), {providerInterface()}, [this](platform::BusCall call) {
            _queue.async([this, call = std::move(call)]() mutable {
                _queue.assertCurrent();
                _receive(call);
            });
        });
    if (!exported) return exported;
    _queue.async([this] {
        _queue.assertCurrent();
        _restartIdleTime();
    });
    return _bus.requestName(std::string(busName));
}

void SearchProvider::_receive(platform::BusCall& call) {
    _restartIdleTime();
    if (call.member == "GetInitialResultSet") {
        _findFor(call.arguments[0], std::move(call.reply));
    } else if (call.member == "GetSubsearchResultSet") {
        // The daemon's memory knows better than the earlier results what goes on as the text does.
        _findFor(call.arguments[1], std::move(call.reply));
    } else if (call.member == "GetResultMetas") {
        _describe(call.arguments[0], std::move(call.reply));
    } else if (call.member == "ActivateResult") {
        _activate(call.arguments, std::move(call.reply));
    } else if (call.member == "LaunchSearch") {
        _launch(call.arguments[0], std::move(call.reply));
    }
}

void SearchProvider::_findFor(const BusValue& terms, BusReply reply) {
    const auto texts = textsOf(terms);
    if (!texts) return refuse(reply);
    _search(*texts, [reply = std::move(reply)](const std::vector<Result>& results) mutable {
        reply.answer(identifiersOf(results));
    });
}

void SearchProvider::_describe(const BusValue& identifiers, BusReply reply) {
    const auto texts = textsOf(identifiers);
    if (!texts) return refuse(reply);
    std::vector<Result> results;
    platform::BusArray metas{.elementSignature = "a{sv}", .items = {}};
    for (const auto& text : *texts) {
        auto result = resultOf(text);
        if (!result) continue;
        metas.items.emplace_back(metaOf(*result));
        results.push_back(*std::move(result));
    }
    if (results.size() < texts->size()) {
        platform::defaultLogger().error("{} identifiers are no results", texts->size() - results.size());
    }
    reply.answer({std::move(metas)});
    _report(shown(results, _dispatcher.now()));
}

void SearchProvider::_activate(const BusArguments& arguments, BusReply reply) {
    const auto result = resultOf(*arguments[0].as<std::string>());
    const auto terms = textsOf(arguments[1]);
    if (!terms) return refuse(reply);
    if (!result) {
        platform::defaultLogger().error("what was picked is no result, or its URL must not be opened");
        return reply.fail(platform::bus_error::invalidArgs, "identifier: no result of this provider");
    }
    reply.answer({});
    if (!result->url.empty()) _open(result->url);
    _report({picked(*result, queryOf(*terms), _dispatcher.now())});
}

/// There is no window of ours to list more in; the first page is as near as it gets.
void SearchProvider::_launch(const BusValue& terms, BusReply reply) {
    const auto texts = textsOf(terms);
    if (!texts) return refuse(reply);
    reply.answer({});
    _search(*texts, [this](const std::vector<Result>& results) {
        _queue.assertCurrent();
        const auto page = std::ranges::find_if(results, [](const Result& result) { return !result.url.empty(); });
        if (page != results.end()) _open(page->url);
    });
}

void SearchProvider::_search(const std::vector<std::string>& terms, Found found) {
    auto query = queryOf(terms);
    if (query.empty()) return found({});
    if (_underWay >= maxUnderWay) {
        platform::defaultLogger().error("{} calls have no answer yet, a search finds nothing", _underWay);
        return found({});
    }
    const auto queryId = ++_lastQuery;
    platform::defaultLogger().debug("query[{}] {}", queryId, platform::privately(query));
    _waiting.emplace(queryId, std::move(found));
    ++_underWay;
    _daemon.search(queryId, query, [this, queryId, query](DaemonLink::Reply reply) {
        _queue.async([this, queryId, query, reply = std::move(reply)] {
            _queue.assertCurrent();
            _answered(queryId, query, reply);
            _ended();
        });
    });
    _queue.after(_options.deadline, [this, queryId] {
        _queue.assertCurrent();
        _giveUp(queryId);
    });
}

void SearchProvider::_answered(std::uint64_t queryId, const std::string& query, const DaemonLink::Reply& reply) {
    std::vector<Result> results;
    if (!reply.body.empty()) {
        results = resultsIn({.queryId = queryId, .typed = query, .body = reply.body, .fromMemory = reply.fromMemory});
    }
    const auto waiting = _waiting.extract(queryId);
    if (waiting.empty()) return _report(foundTooLate(results, _dispatcher.now()));
    _report(found(results, _dispatcher.now()));
    waiting.mapped()(std::move(results));
}

void SearchProvider::_giveUp(std::uint64_t queryId) {
    const auto waiting = _waiting.extract(queryId);
    if (waiting.empty()) return;
    platform::defaultLogger().log("query[{}] has no answer in time", queryId);
    waiting.mapped()({});
}

void SearchProvider::_open(const std::string& url) {
    ++_underWay;
    _bus.call("org.freedesktop.portal.Desktop", "/org/freedesktop/portal/desktop", "org.freedesktop.portal.OpenURI",
              "OpenURI", "ssa{sv}", {"", url, platform::BusDictionary{}}, portalPatience, [this](const auto& answer) {
                  if (!answer) platform::defaultLogger().error("no page was opened: {}", answer.error().message);
                  _queue.async([this] {
                      _queue.assertCurrent();
                      _ended();
                  });
              });
}

void SearchProvider::_report(std::vector<Report> reports) {
    for (auto& report : reports) {
        ++_underWay;
        _daemon.report(std::move(report), [this] {
            _queue.async([this] {
                _queue.assertCurrent();
                _ended();
            });
        });
    }
}

void SearchProvider::_ended() {
    --_underWay;
    _leaveWhenDone();
}

void SearchProvider::_restartIdleTime() {
    if (_options.idleTime.count() == 0 || _state != State::serving) return;
    _idleTimer.armAfter(_options.idleTime, [this] {
        _queue.assertCurrent();
        _idle();
    });
}

void SearchProvider::_idle() {
    if (_underWay > 0) return _restartIdleTime();
    _become(State::leaving);
    platform::giveBackName(_bus, std::string(busName), [this] {
        _queue.async([this] {
            _queue.assertCurrent();
            _become(State::drained);
            _leaveWhenDone();
        });
    });
}

void SearchProvider::_leaveWhenDone() {
    if (_state != State::drained || _underWay > 0) return;
    _become(State::left);
    _onLeave();
}

void SearchProvider::_become(State state) {
    static constexpr std::string_view names[] = {"serving", "leaving", "drained", "left"};
    platform::defaultLogger().info("{}, was {}", names[std::to_underlying(state)], names[std::to_underlying(_state)]);
    _state = state;
}

}  // namespace orvex::search_provider
