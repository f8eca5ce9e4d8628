#pragma once

#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>
#include <string>

#include "daemon/assembly.h"
#include "daemon/orvex_service.h"
#include "daemon/start_up.h"
#include "platform/fakes/fake_platform.h"
#include "platform/process_identity.h"

namespace orvex {

/// The whole daemon, its real components on a platform of fakes, as tests talk to it: over the bus, with the test as
/// the server, in time that stands still until it is moved.
class DaemonWorld : public platform::TestPlatform {
public:
    using Outcome = std::shared_ptr<const platform::FakeBus::Outcome>;

    /// A bag with a search endpoint, the kind of bag that most tests want.
    static constexpr std::string_view plainBag =
        R"({"version": "7", "search_url": "https://search.example/search", "warm_url": "https://search.example/warm"})";

    DaemonWorld() {
        defaults.store("download_resources", platform::PropertyArray{});  // not the first launch
        serveBag(std::string(plainBag));
    }

    /// What waits for the server fails while everyone who hears of it is still there.
    ~DaemonWorld() {
        for (const auto* name : {"com.kelvar.orvexd.urlSession", "com.kelvar.orvexd.bagSession"}) {
            const auto session = sessions.session(name);
            while (session && session->held() > 0) {
                session->answer({.error = platform::TransportError{platform::TransportError::cancelled, "the end"}});
                time.runPending();
            }
        }
        time.runPending();
    }
    DaemonWorld(const DaemonWorld&) = delete;
    DaemonWorld& operator=(const DaemonWorld&) = delete;

    /// Starts the daemon; what is set before counts for its start.
    void start() {
        service = assemble(assembly);
        if (!service->exportObjects()) std::abort();
        beginService(assembly);
        time.runPending();
    }

    /// What the bag endpoint answers from now on; none: it does not answer. Queries are always held.
    void serveBag(std::optional<std::string> body, std::int64_t status = 200) {
        const auto script = [body = std::move(body),
                             status](const platform::URLRequest& request) -> std::optional<platform::FakeAnswer> {
            if (request.url.find("/bag") == std::string::npos || !body) return std::nullopt;
            return platform::FakeAnswer{.statusCode = status, .body = *body};
        };
        sessions.setScript(script);
        if (const auto session = sessions.session("com.kelvar.orvexd.bagSession")) session->setScript(script);
    }
    [[nodiscard]] std::size_t bagFetches() const {
        const auto session = sessions.session("com.kelvar.orvexd.bagSession");
        return session ? session->sent().size() : 0;
    }

    Outcome call(const std::string& client, std::string_view interface, std::string_view member,
                 platform::BusArguments arguments) {
        auto outcome = bus.call(client, std::string(interface), std::string(member), std::move(arguments));
        time.runPending();
        return outcome;
    }
    Outcome callDaemon(const std::string& client, std::string_view member, platform::BusArguments arguments = {}) {
        return call(client, "com.kelvar.orvexd.Daemon", member, std::move(arguments));
    }
    platform::BusDictionary status() {
        const auto outcome = call(":1.9", "com.kelvar.orvexd.Diagnostics", "Status", {});
        return *outcome->arguments->at(0).as<platform::BusDictionary>();
    }
    Outcome configure(const std::string& client, platform::BusValue identifier = "com.kelvar.lumisk",
                      platform::BusValue userAgent = "Lumisk/1") {
        platform::BusDictionary configuration;
        configuration.set("identifier", std::move(identifier)).set("user_agent", std::move(userAgent));
        return callDaemon(client, "Configure", {std::move(configuration)});
    }
    Outcome search(const std::string& client, const std::string& text, platform::BusDictionary entries = {}) {
        entries.set("query_string", text);
        return callDaemon(client, "Request", {"search", std::move(entries)});
    }
    platform::FakeURLSession& server() { return *sessions.session("com.kelvar.orvexd.urlSession"); }
    void answer(platform::FakeAnswer answer) {
        server().answer(std::move(answer));
        time.runPending();
    }

    Assembly assembly{as<Assembly::Platform>()};
    std::shared_ptr<OrvexService> service;
};

}  // namespace orvex
