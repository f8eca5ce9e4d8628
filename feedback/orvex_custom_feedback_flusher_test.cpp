#include "feedback/orvex_custom_feedback_flusher.h"

#include <fmt/core.h>
#include <sys/stat.h>

#include <filesystem>
#include <fstream>

#include "core/constants.h"
#include "feedback/upload_world_test.h"
#include "platform/fakes/temporary_directory.h"

namespace orvex {
namespace {

using platform::LogLevel;
using Names = std::vector<std::string>;

/// On a real disk, for what a report may be instead of a file.
class CustomFeedbackFlusherTest : public testing::Test, protected UploadWorld {
protected:
    static constexpr std::string_view bag =
        R"({"feedback_enabled":true,"feedback_url":"https://f.example/fb","maximum_size_for_feedback_type":
            {"velloc":1000,"brovia_autofill":0}})";

    CustomFeedbackFlusherTest() {
        files.serveCachesFrom(*realFiles);
        const auto caches = files.cachesDirectory().value();
        EXPECT_TRUE(caches->makeDirectory("CustomFeedback"));
        for (const int type : customFeedbackTypes) {
            EXPECT_TRUE(caches->makeDirectory(fmt::format("CustomFeedback/{}", customFeedbackDirectoryName(type))));
        }
        root = caches->path() + "/CustomFeedback/";
        install(bag);
    }
    void put(const std::string& name, std::size_t bytes = 10) const {
        platform::writeFile(root + name, std::string(bytes, 'r'));
    }
    void flush() {
        OrvexCustomFeedbackFlusher(assembly).flushCustomFeedbackWithCompletionHandler([this] { ++completed; });
        time.runPending();
    }
    /// The types of the reports that the server got, and their sizes.
    Names sent() const {
        Names found;
        const auto texts = bodies();
        for (std::size_t i = 0; i < texts.size(); ++i) {
            const auto url = server->sent()[i].request.url;
            const auto type = url.substr(url.find("type=") + 5);
            found.push_back(fmt::format("{} {}", type.substr(0, type.find('&')), texts[i].size()));
        }
        return found;
    }
    Names left() const {
        Names found;
        for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
            const auto name = entry.path().string().substr(root.size());
            if (name.find('/') != std::string::npos) found.push_back(name);
        }
        std::ranges::sort(found);
        return found;
    }

    const platform::TemporaryDirectory home;
    const std::unique_ptr<platform::FileManager> realFiles = platform::fileManagerBelow(home.path());
    std::string root;
    int completed = 0;
};

TEST_F(CustomFeedbackFlusherTest, EachTypeInItsTurnUpToItsGreatestSize) {
    put("engaged_completion/e");
    put("proactive_event_tracker/p");
    put("velloc/exact", 1000);
    put("velloc/over", 1001);
    put("brovia_autofill/exact", 2'097'152);  // zero, as a size, is none
    put("brovia_autofill/over", 2'097'153);
    flush();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(sent(),
              (Names{"brovia_autofill 2097152", "velloc 1000", "proactive_event_tracker 10", "engaged_completion 10"}));
    EXPECT_EQ(left(), Names{});
    EXPECT_EQ(logged(LogLevel::info, "No lumisk_result_features custom feedback available for flushing"), 1u);
    EXPECT_EQ(logged(LogLevel::info, "No brovia_autoplay custom feedback available for flushing"), 1u);

    EXPECT_EQ(count("customfeedback.velloc.filetoolarge"), 1);
    EXPECT_EQ(count("customfeedback.brovia_autofill.filetoolarge"), 1);
    EXPECT_EQ(logged(LogLevel::error, "Custom feedback item velloc too big to process: 1001"), 1u);
    const auto rejections = finished();
    ASSERT_EQ(rejections.size(), 2u);
    const auto& error = rejections[1].feedbacks(0).payload().error().error();
    EXPECT_EQ(error.domain(), "ORXErrorDomain");
    EXPECT_EQ(error.code(), 4);
    EXPECT_EQ(error.user_info().at("size").int64_value(), 1001);
    EXPECT_EQ(error.user_info().at("type").string_value(), "velloc");
}

TEST_F(CustomFeedbackFlusherTest, WhatIsNoReportStays) {
    put("velloc/report");
    put("velloc/.hidden");
    std::filesystem::create_directories(root + "velloc/directory");
    put("velloc/directory/nested");
    std::filesystem::create_symlink(root + "velloc/report", root + "velloc/link");
    ASSERT_EQ(::mkfifo((root + "velloc/fifo").c_str(), 0600), 0);
    put("velloc/unreadable");
    std::filesystem::permissions(root + "velloc/unreadable", std::filesystem::perms::none);
    const bool readable = std::ifstream(root + "velloc/unreadable").good();  // for root
    flush();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(sent(), readable ? (Names{"velloc 10", "velloc 10"}) : Names{"velloc 10"});
    EXPECT_EQ(count("customfeedback.velloc.unreadable"), readable ? 0 : 1);
    EXPECT_EQ(left(),
              (Names{"velloc/.hidden", "velloc/directory", "velloc/directory/nested", "velloc/fifo", "velloc/link"}));
}

TEST_F(CustomFeedbackFlusherTest, AMissingDirectoryEndsTheRunWithoutAWord) {
    put("lumisk_result_features/l");
    put("brovia_autofill/a");
    put("velloc/v");
    std::filesystem::remove(root + "brovia_autoplay");
    flush();
    EXPECT_EQ(completed, 0);
    EXPECT_EQ(sent(), (Names{"lumisk_result_features 10", "brovia_autofill 10"}));
    EXPECT_EQ(left(), Names{"velloc/v"});
    EXPECT_EQ(logged(LogLevel::info, "No crowdsourcing reports available for flushing"), 0u);

    std::filesystem::create_directory(root + "brovia_autoplay");
    install(R"({"feedback_enabled":false})");
    flush();  // delivered at most once: without an endpoint it is gone
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(sent().size(), 2u);
    EXPECT_EQ(left(), Names{});
    EXPECT_EQ(count("upload.dropped.noendpoint"), 1);
    EXPECT_EQ(logged(LogLevel::info, "No crowdsourcing reports available for flushing"), 1u);

    std::filesystem::remove_all(root);
    flush();
    EXPECT_EQ(completed, 1);
    EXPECT_EQ(logged(LogLevel::info, "No custom feedback found. Nothing to flush."), 1u);
}

}  // namespace
}  // namespace orvex
