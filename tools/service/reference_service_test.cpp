#include "tools/service/reference_service.h"

#include <fmt/core.h>
#include <gmock/gmock.h>
#include <httplib.h>
#include <stdlib.h>
#include <zlib.h>

#include <boost/json.hpp>
#include <cstdint>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <memory>
#include <string>
#include <thread>

#include "core/compressed_output_stream.h"
#include "tools/service/http_server.h"
#include "tools/service/word_net.h"

namespace orvex {
namespace {

namespace json = boost::json;
using ::testing::HasSubstr;

const std::string word = "/search?card=1&key=tabbycat5208&locale=en_US&q=";
const std::string feedback = "/feedback?key=tabbycat5208&locale=en_US&v=2";

std::string deflated(std::string_view body) {
    std::string result(compressBound(body.size()) + 64, '\0');
    z_stream stream{};
    deflateInit2(&stream, 6, Z_DEFLATED, -15, 8, Z_DEFAULT_STRATEGY);
    stream.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(body.data()));
    stream.avail_in = static_cast<uInt>(body.size());
    stream.next_out = reinterpret_cast<Bytef*>(result.data());
    stream.avail_out = static_cast<uInt>(result.size());
    deflate(&stream, Z_FINISH);
    result.resize(stream.total_out);
    deflateEnd(&stream);
    return result;
}

// The service behind its real server on a port of its own, and a client whose connection is kept.
class ReferenceServiceTest : public ::testing::Test {
protected:
    static void SetUpTestSuite() { words = WordNet::open(WordNet::defaultDirectory).value().release(); }
    static void TearDownTestSuite() { delete words; }

    ReferenceServiceTest() {
        std::string pattern = ::testing::TempDir() + "service.XXXXXX";
        directory = mkdtemp(pattern.data());
        service = std::make_unique<ReferenceService>(*words, ReferenceService::Options{.feedbackDirectory = directory});
        server = HTTPServer::listen(
                     {.maxBodyBytes = 1u << 20}, [this](const auto& request) { return service->answer(request); },
                     [this](const auto& head) { return service->cut(head); })
                     .value();
        service->setConnectionCount([this] { return server->connectionsAccepted(); });
        running = std::jthread([this] { server->run(); });
        client = std::make_unique<httplib::Client>("127.0.0.1", server->port());
        client->set_keep_alive(true);
        client->set_decompress(false);
    }
    ~ReferenceServiceTest() override {
        server->stop();
        running.join();
        std::filesystem::remove_all(directory);
    }

    httplib::Result get(const std::string& target, httplib::Headers headers = {}) {
        headers.emplace("User-Agent", "orvexd/1 (PC; Linux 1 2) orvexd/1");
        return client->Get(target, headers);
    }
    json::value answer(const std::string& target) {
        const auto result = get(target);
        return result ? json::parse(result->body) : json::value(nullptr);
    }
    std::string refusal(const std::string& target, const httplib::Headers& headers = {}) {
        const auto result = get(target, headers);
        if (!result || result->status != 400) return "";
        return std::string(json::parse(result->body).at("error").as_string());
    }
    int upload(const std::string& body, const std::string& digest) {
        const httplib::Headers headers = {
            {"Content-Encoding", "deflate"}, {"X-Kelvar-Digest", digest}, {"User-Agent", "orvexd/1"}};
        const auto result = client->Post(feedback, headers, body, "application/x-www-form-urlencoded");
        return result ? result->status : 0;
    }
    void tell(const std::string& rule) {
        EXPECT_EQ(client->Post("/control", rule, "application/json")->status, 200) << rule;
    }
    std::string stored(const std::string& name) const {
        std::ifstream file(directory + "/" + name, std::ios::binary);
        return {std::istreambuf_iterator<char>(file), {}};
    }

    static inline WordNet* words = nullptr;
    std::string directory;
    std::unique_ptr<ReferenceService> service;
    std::unique_ptr<HTTPServer> server;
    std::jthread running;
    std::unique_ptr<httplib::Client> client;
};

TEST_F(ReferenceServiceTest, ASearchAnswersResultSetsThatACacheCanKeep) {
    const json::value sets = answer(word + "Weat");
    ASSERT_GT(sets.as_array().size(), 1u);
    for (const auto& set : sets.as_array()) {
        EXPECT_EQ(set.at("status"), "OK");
        EXPECT_TRUE(set.at("query").as_string().starts_with("weat"));
        EXPECT_GT(set.at("max_age").to_number<int>(), 0);
        EXPECT_TRUE(set.at("completion_score").is_number());
    }
    EXPECT_TRUE(sets.at(0).at("duration").is_number());
    const auto& card = sets.at(0).at("results").at(0);
    EXPECT_EQ(card.at("title"), "weather");
    EXPECT_THAT(std::string(card.at("url").as_string()),
                HasSubstr("http://127.0.0.1:" + std::to_string(server->port())));
}

TEST_F(ReferenceServiceTest, TheOtherKindsAnswerTheirOwn) {
    EXPECT_EQ(answer(word + "xqzzy").at(0).at("query"), "xqzzy");
    EXPECT_GT(answer("/search?key=tabbycat5208&locale=en&qtype=zkw").as_array().size(), 1u);
    EXPECT_EQ(answer("/search?key=tabbycat5208&locale=en&ltype=hint&q=mice").at(0).at("query"), "mouse");
    EXPECT_EQ(answer("/more?key=tabbycat5208&locale=en&q=run").at(0).at("results").at(0).at("identifier"), "run#4");
    EXPECT_GT(answer("/card?key=tabbycat5208&locale=en&word=run").as_array().size(), 4u);
    const std::string flight = "/flight?key=tabbycat5208&locale=en&q=AA-100&timestamp=1700000000";
    EXPECT_EQ(answer(flight).at(0).at("flight_number"), "100");
    const auto bytes = get(flight, {{"Accept", "application/x-protobuf"}});
    ASSERT_TRUE(bytes);
    EXPECT_TRUE(
        bytes->body.starts_with("\x0a\x24\x0a\x02"
                                "AA\x12\x03"
                                "100"));
    EXPECT_EQ(answer("/flight?key=tabbycat5208&locale=en&q=nowhere"), json::array());
}

TEST_F(ReferenceServiceTest, TheBagNamesTheAddressThatWasAsked) {
    const auto bag = get("/bag?cindora=1&key=tabbycat5208&locale=en", {{"Host", "localhost:7"}});
    ASSERT_TRUE(bag);
    EXPECT_EQ(json::parse(bag->body).at("search_url"), "http://localhost:7/search");
}

TEST_F(ReferenceServiceTest, ARequestThatBreaksARuleIsToldWhich) {
    EXPECT_EQ(refusal("/search?card=1&locale=en&q=a"), "item \"key\" is missing");
    EXPECT_EQ(refusal("/search?key=tabbycat5208&card=1&locale=en&q=a"), "item \"card\" comes after \"key\"");
    EXPECT_EQ(refusal("/search?card=1&card=1&key=tabbycat5208&locale=en&q=a"), "item \"card\" comes twice");
    EXPECT_THAT(refusal(word + "%61"), HasSubstr("not encoded"));
    EXPECT_THAT(refusal(word + "%c3%a4"), HasSubstr("not encoded"));
    EXPECT_THAT(refusal(word + "%FF"), HasSubstr("UTF-8"));
    EXPECT_THAT(refusal("/more?key=wrong&locale=en"), HasSubstr("no such value"));
    EXPECT_THAT(refusal(word + "a", {{"X-Kelvar-UI-Scale", "2"}}), HasSubstr("Scale"));
    EXPECT_THAT(refusal(word + "a", {{"X-Kelvar-UserGuid", "me"}}), HasSubstr("no UUID"));
    EXPECT_THAT(refusal("/card?key=tabbycat5208&locale=en", {{"X-Kelvar-UserGuid", "me"}}), HasSubstr("not for this"));
    EXPECT_EQ(get("/nowhere")->status, 404);
    EXPECT_EQ(client->Post(word + "a")->status, 405);
    EXPECT_EQ(answer("/control").at("violations"), 12);
    EXPECT_EQ(get(word + "a&unknown=1")->status, 200);
}

TEST_F(ReferenceServiceTest, AResourceIsGivenAgainOnlyWhenItChanged) {
    const httplib::Headers headers = {{"X-Kelvar-Download-Identifier", "lookup_hints_weekly"},
                                      {"User-Agent", "orvexd/1 (PC; Linux 1 2) Lumisk/1"}};
    const auto redirect = client->Get("/resources/lookup_hints_weekly?key=tabbycat5208", headers);
    ASSERT_TRUE(redirect);
    EXPECT_EQ(redirect->status, 302);
    const auto file = client->Get(redirect->get_header_value("Location"));
    ASSERT_TRUE(file);
    EXPECT_EQ(file->status, 200);
    const auto again = get(redirect->get_header_value("Location"), {{"If-None-Match", file->get_header_value("ETag")}});
    EXPECT_EQ(again->status, 304);
}

TEST_F(ReferenceServiceTest, AnUploadIsInflatedCheckedAndKept) {
    const std::string body = R"({"feedback":[1,2,3]})";
    EXPECT_EQ(upload(deflated(body), uploadDigest(body)), 200);
    EXPECT_EQ(stored("upload.1.body"), body);
    EXPECT_EQ(json::parse(stored("upload.1.json")).at("bytes"), body.size());
    EXPECT_EQ(upload(deflated(body), std::string(128, '0')), 400);
    EXPECT_EQ(upload(deflated(body) + "x", uploadDigest(body)), 400);
    EXPECT_EQ(upload(deflated(body).substr(0, 8), uploadDigest(body)), 400);
    EXPECT_EQ(upload(std::string(2u << 20, 'x'), uploadDigest(body)), 413);
    EXPECT_EQ(stored("upload.2.json"), "");
}

TEST_F(ReferenceServiceTest, AnUploadIsKeptUnlessTheClientIsToldThatItFailed) {
    std::string body(200'000, '\0');
    std::uint32_t state = 1;
    for (char& c : body) c = static_cast<char>((state = state * 1664525 + 1013904223) >> 24);
    const std::string deflatedBody = deflated(body), digest = uploadDigest(body);
    tell(R"([{"path": "/feedback", "action": "status", "value": 503, "headers": {"Retry-After": "1"}},
             {"path": "/feedback", "action": "status", "value": 500}, {"path": "/feedback", "action": "cut"},
             {"path": "/feedback", "action": "cut", "value": 0}, {"path": "/feedback", "action": "reset"}])");
    EXPECT_EQ(upload("no deflate", digest), 400) << "uses up no rule";
    for (const int status : {503, 500, 0, 0}) EXPECT_EQ(upload(deflatedBody, digest), status);
    EXPECT_EQ(stored("upload.1.json"), "");
    EXPECT_EQ(upload(deflatedBody, digest), 0);
    EXPECT_EQ(stored("upload.1.body"), body) << "only the answer was lost";
    const auto control = answer("/control");
    EXPECT_EQ(control.at("rules"), 0);
    EXPECT_EQ(control.at("violations"), 1);
    EXPECT_EQ(control.at("last_requests").at(3).at("status"), 0) << "cut short";
}

TEST_F(ReferenceServiceTest, ItMisbehavesAsOftenAsItWasTold) {
    tell(R"({"path": "/warm", "action": "status", "value": 503, "headers": {"Retry-After": "7"}, "times": 2})");
    EXPECT_EQ(get("/warm")->get_header_value("Retry-After"), "7");
    EXPECT_EQ(get("/warm")->status, 503);
    EXPECT_EQ(get("/warm")->status, 200);

    tell(R"([{"path": "/warm", "action": "reset"}, {"path": "/warm", "action": "truncate", "value": 1}])");
    EXPECT_FALSE(get("/warm"));
    EXPECT_FALSE(get("/warm"));

    tell(R"({"path": "/bag", "action": "body", "value": {"enabled": false}})");
    EXPECT_EQ(get("/bag?cindora=1&key=tabbycat5208&locale=en")->body, R"({"enabled":false})");

    tell(R"({"action": "bomb", "value": 5000000})");
    EXPECT_LT(get("/warm")->body.size(), 50000u);

    tell(R"({"action": "force_fetch", "value": {"bag": 12}})");
    EXPECT_EQ(get("/warm")->get_header_value("X-Kelvar-ForceFetch"), R"({"bag":12})");
    EXPECT_EQ(answer("/control").at("rules"), 0);
}

TEST_F(ReferenceServiceTest, AStallEndsWithTheServer) {
    tell(R"({"path": "/warm", "action": "stall"})");
    std::jthread waiting([port = server->port()] { EXPECT_FALSE(httplib::Client("127.0.0.1", port).Get("/warm")); });
    while (answer("/control").at("requests").as_object().empty()) std::this_thread::yield();
    server->stop();
}

TEST_F(ReferenceServiceTest, ARuleThatIsNoneIsRefused) {
    for (const char* rule :
         {"", "3", R"({"action": "fly"})", R"({"action": "status", "value": 7})", R"({"action": "redirect"})",
          R"({"action": "headers", "headers": {"A": "b\r\nC: d"}})", R"({"action": "bomb", "value": 1e12})"})
        EXPECT_EQ(client->Post("/control", rule, "application/json")->status, 400) << rule;
}

TEST_F(ReferenceServiceTest, AConnectionServesManyRequests) {
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(get("/warm"));
    EXPECT_EQ(answer("/control").at("connections"), 1);
    const auto refused = get("/" + std::string(9000, 'a'));
    ASSERT_TRUE(refused);
    EXPECT_EQ(refused->status, 414);
    EXPECT_EQ(refused->get_header_value("Connection"), "close") << "it was not read to its end";
    EXPECT_TRUE(get("/warm"));
}

}  // namespace
}  // namespace orvex
