#pragma once

#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>

#include "core/compressed_output_stream.h"
#include "feedback/client_session.h"
#include "feedback/feedback_world_test.h"
#include "feedback/upload_manager.h"
#include "network/bag_controller.h"
#include "network/orx_network_request_factory.h"

namespace orvex {

/// The feedback world with a way out: an upload manager, whose server is the fake session, and a bag when a test
/// installs one. Uploads are held until they are answered.
class UploadWorld : public FeedbackWorld {
public:
    static constexpr std::string_view openBag =
        R"({"feedback_enabled":true,"feedback_url":"https://f.example/fb?a=1",
            "crowdsourcing_url":"https://f.example/c"})";

    UploadWorld() {
        assembly.setRequestFactory(ORXNetworkRequestFactory::create(assembly));
        uploads = UploadManager::create(assembly);
        assembly.setUploadManager(uploads);
        assembly.setUploadDelegate(uploads);
        (void)assembly.uploadURLSession();
        server = backgroundSessions.session("com.kelvar.orvexd.flusher.nsurlsession");
    }

    /// The server's next bag; of its fetch there is no feedback.
    void install(std::string_view bag) {
        defaults.store("ORXFeedbackDisabled", true);
        (void)assembly.bagSession();
        if (!assembly.bagController()) assembly.setBagController(makeBagController(assembly));
        auto text = boost::json::parse(bag).as_object();
        text["version"] = ++bagVersion;
        (void)assembly.bagController()->currentBag();
        assembly.bagController()->forceFetchBag({{"bag", bagVersion}});
        time.runPending();
        sessions.session("com.kelvar.orvexd.bagSession")->answer({.body = boost::json::serialize(text)});
        time.runPending();
        defaults.store("ORXFeedbackDisabled", false);
    }
    /// A session of one record that waits for upload.
    void finishSession(std::int64_t queryId, std::string agent = "Lumisk/1") {
        ClientSession session(assembly, record(1, queryId, std::move(agent)), receipt());
        session.sessionComplete();
        time.runPending();
    }
    /// Uploads that the session has, and that are not answered.
    void fillPending(std::size_t count) {
        for (std::size_t i = 0; i < count; ++i) {
            (void)uploads->uploadJSONFeedback({{"n", i}}, UploadManager::Endpoint::feedback, nullptr);
        }
        time.runPending();
        ASSERT_EQ(server->held().size(), count);
    }
    /// The bodies that the server got, as they were before compression.
    std::vector<std::string> bodies() const {
        std::vector<std::string> found;
        for (const auto& sent : server->sent()) found.push_back(inflated(sent.body, 1u << 30).value_or("(no deflate)"));
        return found;
    }
    /// The agents of the sessions that the server got.
    std::vector<std::string> agents() const {
        std::vector<std::string> found;
        for (const auto& body : bodies()) found.emplace_back(boost::json::parse(body).at("agent").as_string());
        return found;
    }
    static std::string header(const platform::URLRequest& request, std::string_view name) {
        for (const auto& [field, value] : request.headers) {
            if (field == name) return value;
        }
        return "(none)";
    }
    std::vector<std::string> temporaryFiles() { return files.stateDirectory().value()->list("tmp").value(); }
    std::size_t logged(platform::LogLevel level, std::string_view text) const {
        return static_cast<std::size_t>(std::ranges::count_if(log.lines(), [&](const auto& line) {
            return line.level == level && line.text.find(text) != std::string::npos;
        }));
    }

    std::shared_ptr<UploadManager> uploads;
    std::shared_ptr<platform::FakeBackgroundSession> server;
    int bagVersion = 0;
};

}  // namespace orvex
