#include "feedback/session_file.h"

#include <google/protobuf/stubs/logging.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "core/feedback_records.pb.h"

namespace orvex {
namespace {

class SessionFileTest : public testing::Test {
protected:
    static CXOrvexFeedback record(std::uint64_t queryId, std::string text = "") {
        CXOrvexFeedback made;
        made.mutable_payload()->set_type(12);
        auto& start = *made.mutable_payload()->mutable_start_search();
        start.set_timestamp(1000);
        start.set_identifier(std::move(text));
        made.set_query_id(static_cast<std::int64_t>(queryId));
        made.set_user_agent("Lumisk/1");
        return made;
    }
    static CXClientSession header() {
        CXClientSession session;
        session.set_session_start(1.5);
        session.set_version("orvexd/1");
        session.set_agent("Lumisk/1");
        (*session.mutable_resource_versions())["hints"] = "7";
        return session;
    }
    /// A file of this header and records 0, 1, 2 …; `begins` are where their frames do, and the end.
    std::string file(std::size_t records) {
        std::string bytes = encodeSessionHeader(header());
        begins = {bytes.size()};
        for (std::size_t i = 0; i < records; ++i) {
            bytes += encodeSessionRecord(record(i, std::string(i * 60, 'x')));
            begins.push_back(bytes.size());
        }
        return bytes;
    }
    /// The query ids of the records that are read.
    std::vector<std::size_t> read(std::string_view bytes) {
        session.Clear();
        damaged = decodeSessionFile(bytes, session);
        std::vector<std::size_t> ids;
        for (const auto& found : session.feedbacks()) ids.push_back(static_cast<std::size_t>(found.query_id()));
        return ids;
    }

    const google::protobuf::LogSilencer quiet;  // about texts that are not UTF-8
    std::vector<std::size_t> begins;
    CXClientSession session;
    std::size_t damaged = 0;
};

/// The example of docs/session-file.md.
TEST_F(SessionFileTest, TheWorkedExampleIsThatByteForByte) {
    CXClientSession session;
    session.set_session_start(1.5);
    session.set_version("orvexd/1");
    session.set_agent("Lumisk/1");
    const std::string example(
        "\x09\x00\x00\x00\x00\x00\x00\xF8\x3F"  // session_start
        "\x12\x08orvexd/1"                      // version
        "\x1A\x08Lumisk/1"                      // agent
        "\xA2\x06\x1A"                          // a record of 26 bytes:
        "\x0A\x0C"                              //   payload, 12 bytes:
        "\x08\x0C"                              //     type 12
        "\xE2\x01\x07"                          //     field 28, start_search, 7 bytes:
        "\x08\xE8\x07"                          //       timestamp 1000
        "\x12\x00"                              //       identifier ""
        "\x18\x07"                              //       query_id 7
        "\x10\x07"                              //   query_id 7
        "\x1A\x08Lumisk/1",                     //   user_agent
        9 + 10 + 10 + 3 + 26);
    auto made = record(7);
    made.mutable_payload()->mutable_start_search()->set_query_id(7);
    EXPECT_EQ(encodeSessionHeader(session) + encodeSessionRecord(made), example);
    EXPECT_EQ(read(example), std::vector<std::size_t>{7});
    EXPECT_EQ(damaged, 0u);
}

TEST_F(SessionFileTest, AFileIsOneMessage) {
    CXClientSession whole;
    ASSERT_TRUE(whole.ParseFromString(file(5)));
    EXPECT_EQ(read(file(5)), (std::vector<std::size_t>{0, 1, 2, 3, 4}));
    EXPECT_EQ(session.DebugString(), whole.DebugString());
}

TEST_F(SessionFileTest, ATornTailCostsOnlyItself) {
    const std::string bytes = file(5);
    for (std::size_t length = begins[0]; length <= bytes.size(); ++length) {
        const auto whole = std::ranges::count_if(begins, [&](auto end) { return end <= length; }) - 1;
        EXPECT_EQ(std::ssize(read(bytes.substr(0, length))), whole) << length;
        EXPECT_EQ(damaged, std::ranges::count(begins, length) == 0 ? 1u : 0u) << length;
        EXPECT_EQ(session.version(), "orvexd/1");
    }
}

/// Every byte of every record, and of the header, with each of its bits turned and with all of them.
TEST_F(SessionFileTest, DamageCostsTheRecordItLiesIn) {
    const std::string bytes = file(5);
    for (std::size_t at = 0; at < bytes.size(); ++at) {
        const auto hit = static_cast<std::size_t>(std::ranges::upper_bound(begins, at) - begins.begin());  // 0: header
        for (const int bits : {0x01, 0x02, 0x04, 0x08, 0x10, 0x20, 0x40, 0x80, 0xFF}) {
            std::string broken = bytes;
            broken[at] = static_cast<char>(broken[at] ^ bits);
            auto expected = std::vector<std::size_t>{0, 1, 2, 3, 4};
            auto found = read(broken);
            if (hit > 0) {
                // The record itself may be there, with another value in it.
                expected.erase(expected.begin() + static_cast<std::ptrdiff_t>(hit - 1));
                if (found.size() == 5) found.erase(found.begin() + static_cast<std::ptrdiff_t>(hit - 1));
            }
            EXPECT_EQ(found, expected) << "byte " << at << " of record " << hit << ", bits " << bits;
        }
    }
}

TEST_F(SessionFileTest, WhatIsLostIsFoundAgainAtTheNextWholeRecord) {
    std::string bytes = file(4);
    bytes.replace(begins[1], 2, "??");  // a key
    bytes[begins[2] + 3] = '\x7F';      // a length; its record is longer than 127 bytes
    EXPECT_EQ(read(bytes), (std::vector<std::size_t>{0, 3}));
    EXPECT_EQ(damaged, 1u);

    EXPECT_EQ(read(file(3) + "\x12\x05other"), (std::vector<std::size_t>{0, 1, 2}));  // a header's field, after records
    EXPECT_EQ(session.version(), "orvexd/1");
    EXPECT_EQ(damaged, 1u);
    EXPECT_EQ(read("no session at all"), std::vector<std::size_t>{});
    EXPECT_GT(damaged, 0u);
    EXPECT_EQ(read(""), std::vector<std::size_t>{});
    EXPECT_EQ(damaged, 0u);
}

/// Bytes that look like a frame at every second place, each of almost the whole file, must not cost its square.
TEST_F(SessionFileTest, ASearchThatLeadsNowhereIsGivenUp) {
    std::string bytes = "\xFF";
    while (bytes.size() < (std::size_t{2} << 20)) bytes += "\xA2\x06\xFA\xFF\x3F\x0A\xF0\xFF\x1F";
    EXPECT_EQ(read(bytes), std::vector<std::size_t>{});
    EXPECT_GT(damaged, 0u);
}

}  // namespace
}  // namespace orvex
