#include "core/counter_vocabulary.h"

#include <array>

#include "platform/counters.h"

namespace orvex {
namespace {

using enum CounterMeaning::Kind;

constexpr auto meanings = std::to_array<CounterMeaning>({
    {"launch", event, "starts of the daemon"},
    {"clientconnection", event, "connections of clients, and sessions that a dump uploaded"},
    {"*.xcpinvalidation", event, "connections that ended"},

    // Queries.
    {"*.keystrokes", event, "searches asked for"},
    {"*.ondevicecachehits", event, "searches answered from memory"},
    {"search", event, "searches sent to the server"},
    {"*.fedapicall.serverstatus*", event, "searches that the server answered", "client", "status"},
    {"*.querysuggestion.engagements", event, "suggestions that were picked"},
    {"*.tophit.engagements", event, "top hits that were picked"},
    {"*.orvex.engagements", event, "results of the server that were picked"},
    {"queries.dropped.networkdisabled", drop, "queries not sent: ORXNetworkSearchDisabled is on"},
    {"calls.denied", drop, "calls refused: they came from another user"},
    {"calls.overlimit", drop, "calls refused: 256 of that client were under way"},
    {"calls.dropped.clientgone", drop, "calls dropped: the client went before their turn"},
    {"clientstates.refused", drop, "clients refused: 1,024 identifiers are known already"},
    {"request.refusedheaders", drop, "request headers left out: they hold characters that must not be sent"},
    {"location.refused", drop, "positions refused: they are not on earth"},
    {"whitelist.dropped.id", drop, "applications left out of the signature: their number is out of range"},

    // The bag.
    {"bag.fetches", event, "fetches of the bag that brought one"},
    {"bag.fetchesfailed", event, "fetches of the bag that failed"},
    {"bag.expired", event, "looks at a bag that was to be renewed"},

    // Completions.
    {"brovia.localCompletionIndex.entries", level, "completions stored, when one was last added or cleared"},
    {"brovia.localCompletionIndex.size", level, "bytes of the completion store, when one was last added or cleared"},
    {"completions.late", drop, "completions left out of answers: the store took too long"},
    {"completions.failed", drop, "completions not stored or cleared: the store failed"},
    {"completions.repaired", drop, "completion stores set aside: they were damaged"},

    // Records and sessions.
    {"userguid", event, "changes of the user's identifier"},
    {"*.dailyactiveusers", event, "days of use"},
    {"*.sessions", event, "feedback sessions begun"},
    {"feedbackdropped.disabled", drop, "records dropped: feedback is switched off, here or by the server"},
    {"feedbackdropped.noagent", drop, "records dropped: they name no user agent"},
    {"feedbackdropped.nofile", drop, "records dropped: no session file could be made"},
    {"feedbackdropped.filefull", drop, "records dropped: the session's file is full"},
    {"feedbackdropped.sessionfinished", drop, "records dropped: their session had ended"},
    {"feedbackdropped.nodictionary", drop, "records left out of uploads: their kind has no form to send"},
    {"feedbackdropped.errorsessions", drop, "reports of errors dropped: there were 20 in an hour"},
    {"feedbackdropped.bagfetchsessions", drop, "reports of bag fetches dropped: there were 20 in an hour"},
    {"filesizeexceeded", event, "session files that became full"},
    {"filesyncfailed", event, "session files that the disk would not sync"},
    {"filedeleted", event, "session files removed after upload, refusal or erasure"},
    {"filewritefailed", drop, "records not kept: the disk refused the write"},
    {"filedamaged", drop, "records lost: their place in the session file is damaged"},
    {"filetoolarge", drop, "sessions not read: the file is larger than the limit"},
    {"fileversionmismatch", drop, "sessions discarded: another version of the daemon wrote them"},
    {"filetooold", drop, "sessions discarded: they are older than ORXSessionMaxAge"},
    {"filesoverlimit", drop, "sessions discarded: 2,000 or 256 MiB of newer ones wait"},
    {"sessions.dropped.unreadable", drop, "sessions not uploaded: their file cannot be read"},

    // Uploads.
    {"feedbacksent", event, "parts of feedback that the server took"},
    {"feedbacknotsent", drop, "parts of feedback not sent: the server refused them, or they have no form to send"},
    {"fbrequesttimedout", drop, "uploads given up: none of their attempts came through in time"},
    {"upload.dropped.notempfile", drop, "uploads dropped: no temporary file could be made"},
    {"upload.dropped.noendpoint", drop, "uploads dropped: the bag names no address for them"},
    {"upload.dropped.compression", drop, "uploads dropped: they could not be compressed"},
    {"upload.dropped.norequest", drop, "uploads dropped: no request could be made"},
    {"upload.dropped.pending", drop, "uploads dropped: too many were pending"},
    {"upload.dropped.notstored", drop, "uploads dropped: the disk did not take them"},
    {"customfeedback.engaged_completion.toomanyresults", drop, "results not reported: a record had too many"},
    {"customfeedback.*.filetoolarge", drop, "reports dropped: larger than the bag allows", "type"},
    {"customfeedback.*.unreadable", drop, "reports dropped: the file may not be read", "type"},

    // Transfers and resources.
    {"transfer.retried", event, "attempts of a transfer that failed and are tried again"},
    {"transfer.dropped.timeout", drop, "transfers given up: none of their attempts came through in time"},
    {"transfer.dropped.tasks", drop, "transfers dropped: too many were pending, the oldest goes"},
    {"transfer.dropped.spool", drop, "transfers dropped: pending bodies took too much room, the oldest goes"},
    {"transfer.dropped.body", drop, "transfers dropped: their body cannot be read"},
    {"transfer.dropped.store", drop, "transfers lost: their row or their whole store was damaged"},
    {"bag.resourcefilesfetched", event, "steps of resource downloads that succeeded"},
    {"resources.errors", event, "downloads of resources that failed"},
    {"resources.refused.identifier", drop, "resources refused: their identifier is no acceptable file name"},
    {"resources.refused.url", drop, "resources refused: their URL is not acceptable"},
    {"resources.dropped.norequest", drop, "downloads of resources dropped: no request could be made"},
    {"resources.dropped.notstarted", drop, "downloads of resources dropped: the disk did not take them"},
    {"resources.dropped.notinstalled", drop, "downloads of resources dropped: the file could not be put in place"},

    // The daemon itself.
    {"activity.ended", drop, "background runs ended: they took longer than 10 minutes"},
    {"counters.broken_lines", drop, "stored counters lost: their line is damaged"},
    {"other", drop, "counts without their name: too many names, or one that cannot be kept"},
});

/// Those that the platform's own parts count under have no beginning.
bool hasPrefix(const CounterMeaning& meaning) {
    return meaning.pattern != "activity.ended" && meaning.pattern != platform::Counters::otherName;
}

/// Takes the beginning of `rest` off up to `pattern`'s next `*`, which has at least one character.
bool matches(std::string_view pattern, std::string_view text, std::vector<std::string>& parts) {
    const auto star = pattern.find('*');
    if (star == pattern.npos) return pattern == text;
    if (!text.starts_with(pattern.substr(0, star))) return false;
    const auto after = pattern.substr(star + 1);
    const auto literal = after.substr(0, after.find('*'));
    text.remove_prefix(star);
    const auto end = literal.empty() ? text.size() : text.rfind(literal);
    if (end == text.npos || end == 0) return false;
    parts.emplace_back(text.substr(0, end));
    return matches(after, text.substr(end), parts);
}

}  // namespace

std::span<const CounterMeaning> counterMeanings() { return meanings; }

std::optional<KnownCounter> knownCounter(std::string_view name) {
    const bool isPrefixed = name.starts_with(counterPrefix);
    if (isPrefixed) name.remove_prefix(counterPrefix.size());
    for (const auto& meaning : meanings) {
        std::vector<std::string> parts;
        if (isPrefixed == hasPrefix(meaning) && matches(meaning.pattern, name, parts))
            return KnownCounter{&meaning, std::move(parts)};
    }
    return std::nullopt;
}

}  // namespace orvex
