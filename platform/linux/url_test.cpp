#include "platform/url.h"

#include <gtest/gtest.h>

namespace orvex::platform {
namespace {

bool acceptable(std::string_view text) { return parseAcceptableURL(text).has_value(); }
std::string resolved(std::string_view base, std::string_view reference) {
    const auto url = resolveURL(parseURL(base).value(), reference);
    return url ? url->absoluteString() : "refused";
}
std::string redirected(std::string_view from, std::string_view location) {
    const auto url = resolveRedirect(parseURL(from).value(), location);
    return url ? url->absoluteString() : "refused";
}

TEST(URLTest, PartsAreKeptAsWrittenButSchemeAndHostInLowerCase) {
    const auto url = parseURL("HTTPS://User:Pw@Example.COM:8443/a/../B%2f?Q=%C3%a4+b&=#Top");
    ASSERT_TRUE(url);
    EXPECT_EQ(url->scheme, "https");
    EXPECT_EQ(url->user, "User");
    EXPECT_EQ(url->password, "Pw");
    EXPECT_EQ(url->host, "example.com");
    EXPECT_EQ(url->port, "8443");
    EXPECT_EQ(url->path, "/a/../B%2f");
    EXPECT_EQ(url->query, "Q=%C3%a4+b&=");
    EXPECT_EQ(url->fragment, "Top");
    EXPECT_EQ(url->absoluteString(), "https://User:Pw@example.com:8443/a/../B%2f?Q=%C3%a4+b&=#Top");
}

TEST(URLTest, WhatIsNotAURLIsRefused) {
    using namespace std::string_view_literals;
    for (const auto text : {""sv, "example.com/x"sv, "/x"sv, "https://"sv, "https://a b/"sv, "https://a/\tb"sv,
                            "https://a/\0b"sv, "https://a/x\x7f"sv, "https://a:99999/"sv, "https://[::1/"sv})
        EXPECT_FALSE(parseURL(text)) << text;
    EXPECT_TRUE(parseURL("https://a/" + std::string((64 << 10) - 10, 'x')));
    EXPECT_FALSE(parseURL("https://a/" + std::string((64 << 10) - 9, 'x')));
}

TEST(URLTest, TheRegistrableDomainIsWhatAnOwnerHas) {
    EXPECT_EQ(registrableDomain("www.Example.CO.uk"), "example.co.uk");
    EXPECT_EQ(registrableDomain("example.com."), "example.com");
    EXPECT_EQ(registrableDomain("a.b.unknown-suffix"), "b.unknown-suffix");
    for (const auto* none : {"co.uk", "com", "192.0.2.7", "[2001:db8::1]", "localhost", "", "."})
        EXPECT_EQ(registrableDomain(none), std::nullopt) << none;
}

TEST(URLTest, OnlyHTTPSAndLoopbackHTTPAreOpened) {
    for (const auto* text : {"https://example.com/", "HTTPS://127.0.0.1:8443/x", "http://localhost/",
                             "http://LOCALHOST:1/", "http://127.0.0.1/", "http://127.255.3.4/", "http://[::1]:80/"})
        EXPECT_TRUE(acceptable(text)) << text;
    for (const auto* text :
         {"http://example.com/", "http://128.0.0.1/", "http://127.0.0.1.example.com/", "http://localhost.example.com/",
          "http://[::2]/", "http://0.0.0.0/", "ftp://localhost/", "file:///etc/passwd", "https://user@example.com/",
          "https://:pw@example.com/", "http://127.0.0.1@example.com/", "http://example.com#@localhost/",
          "javascript:alert(1)", "nonsense://localhost/"})
        EXPECT_FALSE(acceptable(text)) << text;
}

TEST(URLTest, AnAddressInDisguiseIsJudgedAsWhatIsConnectedTo) {
    EXPECT_EQ(parseAcceptableURL("http://127.1/")->host, "127.0.0.1");
    EXPECT_EQ(parseAcceptableURL("http://0x7f000001/")->host, "127.0.0.1");
    EXPECT_FALSE(acceptable("http://2130706434000/"));
    EXPECT_EQ(parseAcceptableURL("http://%6cocalhost/")->host, "localhost");
    EXPECT_FALSE(acceptable("https://%256cocalhost/"));  // would be another host when read a second time
}

TEST(URLTest, ReferencesAreResolvedAgainstTheirBase) {
    constexpr auto base = "https://a.example/b/c/d?q#f";
    EXPECT_EQ(resolved(base, "g"), "https://a.example/b/c/g");
    EXPECT_EQ(resolved(base, "../g?x=1"), "https://a.example/b/g?x=1");
    EXPECT_EQ(resolved(base, "/g"), "https://a.example/g");
    EXPECT_EQ(resolved(base, "//h.example/g"), "https://h.example/g");
    EXPECT_EQ(resolved(base, "?y"), "https://a.example/b/c/d?y");
    EXPECT_EQ(resolved(base, ""), "https://a.example/b/c/d?q");
    EXPECT_EQ(resolved(base, "http://other.example/x"), "http://other.example/x");
    EXPECT_EQ(resolved(base, "/a b"), "refused");
}

TEST(URLTest, RedirectsFollowTheRuleAndNeverLoseProtection) {
    EXPECT_EQ(redirected("https://a.example/x", "/y"), "https://a.example/y");
    EXPECT_EQ(redirected("https://a.example/x", "https://b.example/y"), "https://b.example/y");
    EXPECT_EQ(redirected("http://localhost/x", "https://b.example/"), "https://b.example/");
    EXPECT_EQ(redirected("http://localhost:1/x", "http://127.0.0.2:2/"), "http://127.0.0.2:2/");

    EXPECT_EQ(redirected("https://a.example/x", "http://a.example/"), "refused");
    EXPECT_EQ(redirected("https://localhost/x", "http://localhost/"), "refused");
    EXPECT_EQ(redirected("https://a.example/x", "https://localhost/"), "refused");
    for (const auto* disguised : {"//127.0.0.1/", "//127.1/", "//0.0.0.0/", "//[::]/", "//[::1%25lo]/",
                                  "//[::ffff:127.0.0.1]/", "//a.localhost/", "//localhost./"})
        EXPECT_EQ(redirected("https://a.example/x", disguised), "refused") << disguised;
    EXPECT_EQ(redirected("https://a.example/x", "https://u:p@b.example/"), "refused");
    EXPECT_EQ(redirected("http://localhost/x", "file:///etc/passwd"), "refused");
}

TEST(URLTest, QueriesAreSplitAndDecodedByUs) {
    const std::vector<QueryItem> expected = {{"a", "1=2"}, {"b c", "+\xc3\xa4"}, {"d", ""}, {"", "e"}, {"f", "%zz%4"}};
    EXPECT_EQ(decodeQuery("a=1=2&b%20c=+%c3%A4&d&&=e&f=%zz%4"), expected);
    EXPECT_TRUE(decodeQuery("").empty());
}

TEST(URLTest, AllButUnreservedCharactersAreEncodedInUpperCase) {
    EXPECT_EQ(percentEncode("aZ09-_.~"), "aZ09-_.~");
    EXPECT_EQ(percentEncode("a b+c&d=e/\xc3\xa4"), "a%20b%2Bc%26d%3De%2F%C3%A4");
    EXPECT_EQ(percentEncode(std::string_view("\0\xff*'", 4)), "%00%FF%2A%27");
}

}  // namespace
}  // namespace orvex::platform
