#include "network/whitelist_document.h"

#include <gmock/gmock.h>

#include <boost/json/object.hpp>
#include <boost/json/serialize.hpp>
#include <boost/json/value.hpp>

#include "core/json.h"
#include "core/whitelist_signature.h"
#include "platform/counters.h"
#include "platform/installed_applications.h"

namespace orvex {
namespace {

namespace json = boost::json;
using Ids = std::vector<std::uint32_t>;
using testing::ElementsAre;

std::string framed(const std::string& inner, const char* compression = "RLE", const char* encoding = "bitmap") {
    return json::serialize(json::object{{"compression", compression}, {"encoding", encoding}, {"apps", inner}});
}
std::optional<std::string> signatureFor(const std::string& document) {
    return processWhitelist(document, [](const json::object&) { return Ids{3, 9}; });
}

TEST(WhitelistDocumentTest, OnlyAWholeDocumentGivesASignature) {
    const std::string inner = R"({"version": "0a1b2c", "apps": {}})";
    EXPECT_EQ(signatureFor(framed(inner)), "+eoP1xssAALtKoWbEEA=");
    EXPECT_EQ(processWhitelist(framed(inner), [](const json::object&) { return Ids{}; }), std::nullopt);
    std::string deep = R"({"version": "0a1b2c", "apps": )";
    for (int i = 0; i < 100'000; ++i) deep += R"({"a":)";
    for (const std::string& bad :
         {std::string(), std::string("[]"), std::string("not JSON"), framed(inner).substr(0, 40), framed(inner, "rle"),
          framed(inner, "RLE", "list"), framed(""), framed("not JSON"), framed("[]"), framed(inner.substr(1)),
          framed(R"({"version": 7, "apps": {}})"), framed(R"({"version": "0a1b2", "apps": {}})"),
          framed(R"({"version": "xxxx", "apps": {}})"), framed(R"({"version": "0a1b2c", "apps": []})"),
          framed(R"({"apps": {}})"), framed(deep), deep,
          std::string(R"({"compression": "RLE", "encoding": "bitmap", "apps": {"version": "0a1b2c", "apps": {}}})")})
        EXPECT_EQ(signatureFor(bad), std::nullopt) << bad.substr(0, 100);
}

TEST(WhitelistDocumentTest, AnIdIsThatOfTheLastElementAndFitsASignature) {
    const auto apps = parseJSON(R"({"plain": [{"encoding_id": 9}], "last": [{"encoding_id": 1}, {"encoding_id": 3}],
                                    "same": [{"encoding_id": 9, "more": 1}], "greatest": [{"encoding_id": 524279}],
                                    "double": [{"encoding_id": 5.0}], "no version": [{"encoding_id": 7}],
                                    "too great": [{"encoding_id": 524280}], "huge": [{"encoding_id": 1e300}],
                                    "unsigned": [{"encoding_id": 18446744073709551615}],
                                    "negative": [{"encoding_id": -1}], "infinite": [{"encoding_id": 1e999}],
                                    "text": [{"encoding_id": "4"}], "none": [{}], "empty": [], "object": {},
                                    "not last": [{"encoding_id": 2}, 7]})",
                                8)
                          .value();
    std::vector<platform::InstalledApplication> installed = {{"", "1"}, {"not whitelisted", "1"}};
    for (const auto& [identifier, variants] : apps.get_object())
        installed.push_back({std::string(identifier), identifier == "no version" ? "" : "1"});
    platform::Counters counters;
    EXPECT_THAT(findWhitelistedApplications(apps.get_object(), installed, counters),
                ElementsAre(3, 5, 9, 9, WhitelistSignature::maxId));
    EXPECT_EQ(counters.value("com.kelvar.orvexd.whitelist.dropped.id"), 4);
}

}  // namespace
}  // namespace orvex
