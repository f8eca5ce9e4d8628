#include "tools/tool/status_page.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <boost/json/value.hpp>
#include <map>
#include <string_view>
#include <vector>

#include "core/counter_vocabulary.h"
#include "tools/tool/shown_text.h"

namespace orvex::tool {
namespace {

namespace json = boost::json;

constexpr int labelWidth = 14;

/// What the daemon's transactions and activities are called by people.
const std::map<std::string_view, std::string_view>& works() {
    static const std::map<std::string_view, std::string_view> words = {
        {"client connection", "serving clients"},
        {"bagFetch", "fetching the bag"},
        {"addFeedback", "taking records"},
        {"archiveObject", "writing records"},
        {"engaged completions", "changing completions"},
        {"appWhitelist", "reading the list of applications"},
        {"_reprocessHintsFiles", "reading lookup hints"},
        {"_handleHintsFile", "reading lookup hints"},
        {"com.kelvar.orvexd.transfer", "transferring files"},
        {"com.kelvar.orvexd.feedbackFlusherTx", "uploading feedback"},
        {"com.kelvar.orvexd.flusher.background", "upload of sessions"},
        {"com.kelvar.orvexd.dp.flush", "upload of reports"},
    };
    return words;
}

std::string work(const std::string& name) {
    const auto found = works().find(name);
    return found != works().end() ? std::string(found->second) : shown(name);
}

std::string textOf(const json::value& value) { return value.is_string() ? std::string(value.get_string()) : ""; }

std::string line(std::string_view label, std::string_view text) {
    return fmt::format("{:<{}}{}\n", label, labelWidth, text);
}

std::string busyWith(const json::object& status) {
    std::map<std::string, int> counts;
    if (const auto* names = listMember(status, "transactions")) {
        for (const auto& name : *names) ++counts[work(textOf(name))];
    }
    if (counts.empty()) return "nothing; it may leave when it has been idle";
    std::vector<std::string> parts;
    for (const auto& [name, count] : counts) parts.push_back(count == 1 ? name : fmt::format("{} ({})", name, count));
    return fmt::format("{}", fmt::join(parts, ", "));
}

std::string activityLines(const json::object& status, double now) {
    std::string lines;
    const auto* activities = listMember(status, "activities");
    if (activities == nullptr) return lines;
    for (const auto& element : *activities) {
        const auto* activity = element.if_object();
        if (activity == nullptr) continue;
        const double due = numberMember(*activity, "due");
        const bool isUnderWay = isTrue(*activity, "under_way");
        if (due == 0 && !isUnderWay) continue;
        const std::string when = due > now ? "next in " + age(due - now) : "due, waits for a network or for mains";
        lines += line(lines.empty() ? "by the clock" : "",
                      work(shownMember(*activity, "name")) + ": " + (isUnderWay ? "under way" : when));
    }
    return lines;
}

std::string bagLines(const json::object& status, double now) {
    const std::string version = shownMember(status, "bag_version");
    const double expires = numberMember(status, "bag_expires");
    if (version.empty() && expires == 0) return line("bag", "none yet: the server's configuration has not come");
    const double fetched = numberMember(status, "bag_fetched");
    const std::string old = fetched != 0 ? fmt::format(", {} old", age(now - fetched)) : std::string();
    const std::string until = expires < now ? "expired since " : "good for ";
    std::string lines = line("bag", fmt::format("version {}{}, {}{}", version.empty() ? "unknown" : version, old, until,
                                                age(expires - now)));
    if (!isTrue(status, "bag_enabled")) lines += line("", "the server has switched the service off");
    if (!isTrue(status, "feedback_enabled")) lines += line("", "the server asks for no feedback");
    return lines;
}

std::string switchedOffLine(const json::object& status) {
    const auto* settings = listMember(status, "switched_off");
    if (settings == nullptr || settings->empty()) return {};
    std::vector<std::string> names;
    for (const auto& setting : *settings) names.push_back(shownValue(setting));
    return line("switched off", fmt::format("by {}", fmt::join(names, ", ")));
}

std::string sessions(const json::object& status) {
    constexpr double pastSoftLimit = 1;
    const double open = numberMember(status, "sessions_open"), waiting = numberMember(status, "sessions_waiting");
    std::string text = "none is open";
    if (open > 0) {
        text = fmt::format("{} open with {}{}", open, countOf(numberMember(status, "records_open"), "record"),
                           numberMember(status, "session_state") == pastSoftLimit ? ", past the soft limit" : "");
    }
    if (waiting == 0) return text + "; none waits for upload";
    return text + fmt::format("; {} for upload, {}", waiting == 1 ? "1 waits" : fmt::format("{} wait", waiting),
                              size(numberMember(status, "sessions_waiting_bytes")));
}

std::string transfers(const json::object& status, double now) {
    const double uploads = numberMember(status, "uploads_pending"),
                 downloads = numberMember(status, "downloads_pending");
    if (uploads + downloads == 0) return "none is pending";
    const double next = numberMember(status, "next_transfer");
    const std::string when = next == 0 ? "the first" : "next in " + age(std::max(next - now, 0.0));
    return fmt::format("{}, {}, {}; {}: {}", countOf(uploads, "upload"), countOf(downloads, "download"),
                       size(numberMember(status, "transfers_bytes")), when, shownMember(status, "next_transfer_why"));
}

std::string cacheLines(const json::object& status) {
    const auto member = [&status](std::string_view name) { return numberMember(status, name); };
    return line("queries", fmt::format("{} kept, cost {}", countOf(member("query_cache_entries"), "answer"),
                                       member("query_cache_cost"))) +
           line("completions", fmt::format("{} stored, {}", member("engaged_completions"),
                                           size(member("engaged_completions_bytes")))) +
           line("resources",
                fmt::format("{}, {}", countOf(member("resources"), "file"), size(member("resources_bytes"))));
}

/// The counters that changed, each on a line of its own, below what they have in common.
class Changes {
public:
    Changes(const json::object& status, const StatusPageOptions& options) {
        const auto* changed = status.if_contains("counters_changed");
        const auto* counters = changed != nullptr ? changed->if_object() : nullptr;
        if (counters == nullptr) return;
        if (options.before != nullptr) _takeBefore(*options.before, numberMember(status, "uptime_seconds"));
        for (const auto& [name, value] : *counters) _add(std::string(name), value);
    }

    [[nodiscard]] std::string page() const {
        const std::string dropped =
            _dropped.empty() ? "nothing was dropped since the start\n" : "dropped since the start\n" + _dropped;
        return (_happened.empty() ? "" : "since the start\n" + _happened + "\n") + dropped;
    }

private:
    void _takeBefore(const json::object& before, double uptime) {
        const auto* changed = before.if_contains("counters_changed");
        const bool isSameRun = numberMember(before, "uptime_seconds") <= uptime;
        if (isSameRun && changed != nullptr) _before = changed->if_object();
    }

    void _add(const std::string& name, const json::value& value) {
        const auto known = knownCounter(name);
        if (known && known->meaning->kind == CounterMeaning::Kind::level) return;
        std::string what = known ? std::string(known->meaning->sentence) : shown(name);
        if (known && !known->parts.empty()) {
            std::vector<std::string> parts;
            for (const auto& part : known->parts) parts.push_back(shown(part));
            what += fmt::format(" ({})", fmt::join(parts, ", "));
        }
        const bool isDrop = known && known->meaning->kind == CounterMeaning::Kind::drop;
        (isDrop ? _dropped : _happened) += fmt::format("{:>9}{:>7}  {}\n", shownValue(value), _news(name, value), what);
    }

    [[nodiscard]] std::string _news(const std::string& name, const json::value& value) const {
        if (_before == nullptr || !value.is_int64()) return {};
        const auto* counted = _before->if_contains(name);
        const std::int64_t old = counted != nullptr && counted->is_int64() ? counted->get_int64() : 0;
        return value.get_int64() == old ? std::string() : fmt::format("{:+}", value.get_int64() - old);
    }

    const json::object* _before = nullptr;
    std::string _happened;
    std::string _dropped;
};

}  // namespace

std::string statusPage(const json::object& status, const StatusPageOptions& options) {
    const double now = options.now;
    return fmt::format("orvexd {} is running, up {}\n\n", shownMember(status, "version"),
                       age(numberMember(status, "uptime_seconds"))) +
           line("clients", fmt::format("{}, {} under way", countOf(numberMember(status, "connections"), "connection"),
                                       countOf(numberMember(status, "calls_in_flight"), "call"))) +
           line("busy with", busyWith(status)) + activityLines(status, now) + bagLines(status, now) +
           switchedOffLine(status) + line("sessions", sessions(status)) + line("transfers", transfers(status, now)) +
           cacheLines(status) + "\n" + Changes(status, options).page();
}

std::string notRunningPage() {
    return "orvexd is not running\n\nThe first call of a program starts it where it is installed; watching does not.\n";
}

std::string statusPage(const json::value& status) {
    return statusPage(status.as_object(), {.now = secondsSince1970Now()});
}

}  // namespace orvex::tool
