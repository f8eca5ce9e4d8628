#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>

#include "core/compressed_output_stream.h"
#include "core/constants.h"
#include "tools/tool/commands.h"
#include "tools/tool/daemon_client.h"

namespace orvex::tool {
namespace {

constexpr std::size_t maxUploadBytes = std::size_t{256} << 20;

enum class Intent : std::uint64_t { listenToUploads = 0, listenToFeedback = 1, stopFlushing = 2, dump = 3 };

/// Prints a line at once, since what is listened to may be followed by nothing for hours.
void printLine(std::string_view text) {
    fmt::print("{}\n", text);
    std::fflush(stdout);
}

/// The tool's end of the channel: one intent, and the signals that follow.
class Channel {
public:
    static std::expected<Channel, ExitStatus> open(const Options& options) {
        auto client = connectAsClient(options);
        if (!client) return std::unexpected(client.error());
        auto path =
            resultOf<std::string>(*client, [&](auto callback) { client->listenToFlusher(std::move(callback)); });
        if (!path) return std::unexpected(tell(options, path.error()));
        return Channel(options, *std::move(client), *std::move(path));
    }

    void on(const char* signal, std::function<void(client::List)> handler) {
        (void)_client.onSignal(_member(signal), std::move(handler));  // refused only once the bus has gone
    }
    /// The listening ends once the channel has said that the work is done.
    void endWithWork() {
        on("WorkDone", [end = _end](const client::List&) { *end = end->value_or(ExitStatus::done); });
    }

    /// Until the end of the listening.
    [[nodiscard]] ExitStatus initiate(Intent intent) {
        const auto answer = resultOf<client::List>(_client, [&](auto callback) {
            _client.call(_member("InitiateConnectionWithIntent"), {static_cast<std::uint64_t>(intent)},
                         std::move(callback));
        });
        if (!answer) return tell(_options, answer.error());
        const auto ran = _client.runUntil([this] { return _end->has_value(); });
        return ran ? **_end : ExitStatus::noDaemon;
    }

private:
    Channel(const Options& options, client::Client client, std::string path)
        : _options(options),
          _client(std::move(client)),
          _path(std::move(path)) {
        _client.onDaemon([end = _end](client::Client::Daemon change) {
            if (change == client::Client::Daemon::went) *end = end->value_or(ExitStatus::noDaemon);
        });
    }

    [[nodiscard]] client::Client::Method _member(const char* member) const {
        return {.interface = std::string(kORXFlusherInterface), .member = member, .path = _path};
    }

    Options _options;
    client::Client _client;
    std::string _path;
    std::shared_ptr<std::optional<ExitStatus>> _end = std::make_shared<std::optional<ExitStatus>>();
};

/// Prints each upload as the JSON text that the server will read.
void printUploads(Channel& channel) {
    channel.on("FlushedData", [](const client::List& arguments) {
        const auto* buffers = arguments.size() == 1 ? arguments.front().as<client::List>() : nullptr;
        if (buffers == nullptr) return;
        for (const auto& buffer : *buffers) {
            const auto* bytes = buffer.as<client::Bytes>();
            if (bytes == nullptr) continue;
            const auto text = inflated(bytes->bytes, maxUploadBytes);
            printLine(text ? *text : "orvex_tool: an upload that cannot be inflated: " + text.error().text);
        }
    });
}

}  // namespace

ExitStatus listenTo(const Options& options, Listening listening) {
    auto channel = Channel::open(options);
    if (!channel) return channel.error();
    if (listening == Listening::uploads) {
        printUploads(*channel);
        return channel->initiate(Intent::listenToUploads);
    }
    channel->on("ReceivedFeedbackDescription", [](const client::List& arguments) {
        const auto* description = arguments.size() == 1 ? arguments.front().as<std::string>() : nullptr;
        if (description != nullptr) printLine(*description);
    });
    return channel->initiate(Intent::listenToFeedback);
}

ExitStatus stopFlushing(const Options& options) {
    auto channel = Channel::open(options);
    if (!channel) return channel.error();
    channel->endWithWork();
    const auto status = channel->initiate(Intent::stopFlushing);
    if (status == ExitStatus::done && options.json) printLine(R"({"done":true})");
    return status;
}

ExitStatus dump(const Options& options) {
    auto channel = Channel::open(options);
    if (!channel) return channel.error();
    printUploads(*channel);
    channel->endWithWork();
    return channel->initiate(Intent::dump);
}

}  // namespace orvex::tool
