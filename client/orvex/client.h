#pragma once

#include <chrono>
#include <cstdint>
#include <expected>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "types.h"

namespace orvex::client {

class OutgoingMessage;

/// A program's connection to orvexd. It has no thread: it is used from one thread at a time, and everything that comes
/// from the bus, each callback included, comes inside `process`. No operation waits for the daemon. A program with a
/// main loop watches `descriptor()` for `events()`, wakes up after `timeout()` at the latest, and then calls `process`;
/// all three change with every call, so they are asked before every wait. A program without one uses `runUntil`.
///
///     resting ──a call, or a daemon appears──▶ configuring ──accepted──▶ configured ──the daemon goes──▶ resting
///                                              configuring ──refused──▶ resting: the waiting calls get that error
///
/// The daemon must be told who calls, and each new daemon again. The client does it by itself: a call waits until it is
/// done, the first call starts the daemon where the bus can, and a call that reaches a daemon that was not told yet is
/// repeated. A client that has made a call is told to every later daemon as soon as it appears, so that signals go on.
///
/// Every callback comes exactly once, with a result or an error, except that none comes once the client is destroyed.
/// It may call anything of the client but `process`, `runUntil` and the destructor; what it throws comes out of these
/// two. Callbacks may be empty. Answers are not trusted: what has not the form that it must have is an error
/// (`malformed`), a signal is dropped.
class [[gnu::visibility("default")]] Client {
public:
    template <class T>
    using Callback = std::move_only_function<void(std::expected<T, Error>)>;

    struct Options {
        std::string identifier;  ///< who calls, "com.example.notes" for example: at most 256 bytes
        std::string userAgent;   ///< "notes/1.2": at most 1,024 bytes
        std::string address{};   ///< of the bus, as in DBUS_SESSION_BUS_ADDRESS; empty: the user's session bus
        /// Of one call, from its sending. Longer than the daemon takes for anything.
        std::chrono::milliseconds patience = std::chrono::seconds(90);
    };

    /// Waits for the bus to take us in, not for the daemon: whether there is one shows with the first call.
    [[nodiscard]] static std::expected<Client, Error> connect(Options options);
    Client(Client&&) noexcept;
    Client& operator=(Client&&) noexcept;
    ~Client();

    // The program's main loop.
    [[nodiscard]] int descriptor() const;  ///< the client's own, not to be closed
    [[nodiscard]] short events() const;    ///< as poll(2) takes them
    /// How long to wait at most; none: for ever.
    [[nodiscard]] std::optional<std::chrono::milliseconds> timeout() const;
    /// Does what is due without waiting. The error (`noBus`) says that the bus has gone: every call that was made
    /// before has then had its callback, and the descriptor is no longer to be watched. A later call fails in the next
    /// one.
    std::expected<void, Error> process();
    /// Waits and processes until `finished` is true, which is asked first.
    std::expected<void, Error> runUntil(const std::function<bool()>& finished);

    // Calls as a client.

    /// Tells the daemon who calls, without a call to go with it: starts it, and lets signals come.
    void configure(Callback<void> callback);
    void request(const Request& request, Callback<Reply> callback);
    /// A CXFeedbackPayload, serialized; the result comes when it is stored, or dropped by a rule that counts it.
    void reportFeedback(std::string_view payload, std::uint64_t queryId, Callback<void> callback);
    /// Notes that the user picked `completion` after typing `input`; the result comes when it is stored.
    void addCompletion(std::string_view completion, std::string_view input, Callback<void> callback);
    void clearEngagedCompletions(Date from, Date to, Callback<void> callback);
    /// The server's configuration as JSON text; empty when there is none.
    void bag(Callback<std::string> callback);
    /// The records of the open feedback session, each a CXOrvexFeedback, serialized.
    void feedback(Callback<std::vector<std::string>> callback);
    void listSessions(Callback<std::vector<Session>> callback);
    /// Refused with "com.kelvar.orvexd.Error.NotFound" when there is no such file.
    void resource(std::string_view identifier, Callback<Resource> callback);
    /// Identifier to URL.
    void imageMap(Callback<std::map<std::string, std::string>> callback);
    void updateParameters(const Parameters& parameters, Callback<void> callback);
    /// The object path of the flusher's channel.
    void listenToFlusher(Callback<std::string> callback);

    // Calls to the daemon's other interfaces, which need no configuration and tell the daemon of no client.

    struct Method {
        std::string interface;  ///< "com.kelvar.orvexd.Diagnostics" for example
        std::string member;
        std::string path = "/com/kelvar/orvexd";
        bool startsDaemon = true;  ///< else, where none is there, the call ends with `noDaemon`
    };
    /// The result is the answer's arguments; their types are the caller's to check.
    void call(const Method& method, const List& arguments, Callback<List> callback);
    /// What `request` would send, an item a dictionary; nothing is sent.
    void explain(const Request& request, Callback<List> callback);

    // Signals. Each handler replaces the one before; only signals of the daemon that we are known to come.

    /// The bag, or the error with which it could not be had. Follows every configuration, then each new bag.
    void onBagDidLoad(std::function<void(std::expected<std::string, Error> bag)> handler);
    void onDidDownloadResource(std::function<void(const std::string& identifier)> handler);
    void onDidDeleteResource(std::function<void(const std::string& identifier)> handler);
    /// The daemon came or went. A daemon that has nothing to do goes, and the next call starts it: going is no fault.
    enum class Daemon : std::uint8_t { came, went };
    void onDaemon(std::function<void(Daemon change)> handler);
    /// Any other signal of the daemon, with its arguments. An error (`badCall`) for what is no name of a signal.
    std::expected<void, Error> onSignal(const Method& signal, std::function<void(List arguments)> handler);

private:
    class Link;
    explicit Client(std::unique_ptr<Link> link);
    [[nodiscard]] OutgoingMessage _message(const char* member) const;
    void _onIdentifier(const char* signal, std::function<void(const std::string&)> handler);

    std::unique_ptr<Link> _link;
};

}  // namespace orvex::client
