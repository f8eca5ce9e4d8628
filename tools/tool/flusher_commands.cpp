#include <fmt/format.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <chrono>
#include <cstdio>
#include <future>

#include "core/compressed_output_stream.h"
#include "core/constants.h"
#include "tools/tool/commands.h"
#include "tools/tool/daemon_client.h"

namespace orvex::tool {
namespace {

using platform::BusArguments;
using Answer = std::expected<BusArguments, platform::BusError>;

constexpr std::size_t maxUploadBytes = std::size_t{256} << 20;

enum class Intent : std::uint64_t { listenToUploads = 0, listenToFeedback = 1, stopFlushing = 2, dump = 3 };

/// Prints a line at once, since what is listened to may be followed by nothing for hours.
void printLine(std::string_view text) {
    fmt::print("{}\n", text);
    std::fflush(stdout);
}

/// The tool's end of the channel: one intent, and the signals that follow. Signals are printed on the bus thread.
class Channel {
public:
    static std::expected<Channel, ExitStatus> open(const Options& options) {
        auto client = connectAsClient(options);
        if (!client) return std::unexpected(client.error());
        auto path = client->call(kORXDaemonInterface, "ListenToFlusher", "", {});
        if (!path) return std::unexpected(tell(path.error()));
        Channel channel(*std::move(client), path->front().as<platform::BusObjectPath>()->path);
        if (const auto watched = channel._watchDaemon(); !watched) return std::unexpected(tell(watched.error()));
        return channel;
    }

    void on(const char* signal, platform::BusSignalHandler handler) {
        _client.bus().subscribe(std::string(kORXBusName), _path, std::string(kORXFlusherInterface), signal,
                                std::move(handler));
    }
    /// What `wait` returns once the channel has said that the work is done.
    void endWithWork() {
        on("WorkDone", [end = _end](const std::string&, const BusArguments&) { end->come(ExitStatus::done); });
    }

    [[nodiscard]] ExitStatus initiate(Intent intent) {
        const auto answer = _call(std::string(kORXBusName), _path, std::string(kORXFlusherInterface),
                                  "InitiateConnectionWithIntent", "t", {static_cast<std::uint64_t>(intent)});
        return answer ? _end->wait() : tell(answer.error());
    }

private:
    /// The end of the listening, which comes once or more; the first counts.
    struct End {
        std::promise<ExitStatus> promise;
        std::once_flag once;

        void come(ExitStatus status) {
            std::call_once(once, [&] { promise.set_value(status); });
        }
        ExitStatus wait() { return promise.get_future().get(); }
    };

    Channel(DaemonClient client, std::string path) : _client(std::move(client)), _path(std::move(path)) {}

    std::expected<void, platform::BusError> _watchDaemon() {
        const std::string driver = "org.freedesktop.DBus";
        auto owner = _call(driver, "/org/freedesktop/DBus", driver, "GetNameOwner", "s", {std::string(kORXBusName)});
        if (!owner) return std::unexpected(owner.error());
        _client.bus().watchPeer(*owner->front().as<std::string>(), [end = _end] { end->come(ExitStatus::noDaemon); });
        return {};
    }

    Answer _call(std::string destination, std::string path, std::string interface, std::string member,
                 std::string signature, BusArguments arguments) {
        auto answered = std::make_shared<std::promise<Answer>>();
        auto answer = answered->get_future();
        _client.bus().call(std::move(destination), std::move(path), std::move(interface), std::move(member),
                           std::move(signature), std::move(arguments), DaemonClient::patience,
                           [answered](Answer result) { answered->set_value(std::move(result)); });
        return answer.get();
    }

    DaemonClient _client;
    std::string _path;
    std::shared_ptr<End> _end = std::make_shared<End>();
};

/// Prints each upload as the JSON text that the server will read.
void printUploads(Channel& channel) {
    channel.on("FlushedData", [](const std::string&, const BusArguments& arguments) {
        for (const auto& buffer : arguments.front().as<platform::BusArray>()->items) {
            const auto text = inflated(buffer.as<platform::BusBytes>()->view(), maxUploadBytes);
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
    channel->on("ReceivedFeedbackDescription", [](const std::string&, const BusArguments& arguments) {
        printLine(*arguments.front().as<std::string>());
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
