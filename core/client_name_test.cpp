#include "core/client_name.h"

#include <gtest/gtest.h>

namespace orvex {
namespace {

TEST(ClientNameTest, TheFirstNameOfTheListWinsWhereverItStands) {
    EXPECT_EQ(extractClientNameFromString("com.kelvar.Lumisk"), "lumisk");
    EXPECT_EQ(extractClientNameFromString("lookup for BROVIA"), "brovia");
    EXPECT_EQ(extractClientNameFromString("orvexd/1 lumisk"), "lumisk");
    EXPECT_EQ(extractClientNameFromString("editor"), std::nullopt);
    EXPECT_EQ(extractClientNameFromString(""), std::nullopt);
}

TEST(ClientNameTest, OnlyTwoClientsAreKnownByTheirAgent) {
    EXPECT_EQ(getClientFromUserAgent("Brovia/9"), "brovia");
    EXPECT_EQ(getClientFromUserAgent("Lumisk/1 (via brovia)"), "brovia");
    EXPECT_EQ(getClientFromUserAgent("LUMISK/1"), "lumisk");
    EXPECT_EQ(getClientFromUserAgent("gazel/1"), "unknown");
    EXPECT_EQ(getClientFromUserAgent(std::nullopt), "unknown");
}

}  // namespace
}  // namespace orvex
