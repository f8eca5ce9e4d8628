// What forced flushes cost: 1,000 sessions of 100 kB, from their files on a real disk to a server that drains a hundred
// at a time, against compressing and digesting the same bodies alone; and by how much the process grew meanwhile. All
// on one thread; the platform but for the session files is that of the tests.

#include <fmt/core.h>
#include <sys/resource.h>

#include <chrono>
#include <cstdlib>

#include "feedback/orvex_feedback_flusher.h"
#include "feedback/upload_world_test.h"
#include "platform/fakes/temporary_directory.h"

namespace {

using namespace orvex;
using Clock = std::chrono::steady_clock;

constexpr int sessionCount = 1'000;
constexpr std::size_t sessionBytes = 100'000;

void check(bool good, const char* what) {
    if (good) return;
    fmt::print(stderr, "flush_benchmark: {}\n", what);
    std::exit(1);
}

double secondsSince(Clock::time_point begin) { return std::chrono::duration<double>(Clock::now() - begin).count(); }

/// The most that this process ever had resident.
long peakKilobytes() {
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    return usage.ru_maxrss;
}

/// A results-were-shown record, some 250 bytes.
std::unique_ptr<CXOrvexFeedback> shownResults(std::int64_t queryId) {
    auto record = FeedbackWorld::record(8, queryId);
    auto& shown = *record->mutable_payload()->mutable_visible_results();
    shown.set_timestamp(static_cast<std::uint64_t>(queryId) * 1'000'000'000);
    for (int i = 0; i < 3; ++i) {
        auto& result = *shown.add_results();
        result.set_identifier(fmt::format("com.example.result.{}", queryId * 7919 + i));
        result.set_type(2);
        result.set_user_input("weath");
        result.set_section_bundle_identifier("com.example.section");
    }
    return record;
}

void finishLargeSession(UploadWorld& world) {
    ClientSession session(world.assembly, shownResults(1), world.receipt());
    const auto recordBytes = shownResults(1)->ByteSizeLong();
    for (std::size_t i = 1; i < sessionBytes / recordBytes; ++i) {
        session.addFeedback(shownResults(static_cast<std::int64_t>(i + 1)), world.receipt());
    }
    session.sessionComplete();
    world.time.runPending();
}

}  // namespace

int main() {
    const platform::TemporaryDirectory home;
    const auto realFiles = platform::fileManagerBelow(home.path());
    UploadWorld world;
    const platform::RecordingLog quiet(platform::LogLevel::error);
    world.files.serveCachesFrom(*realFiles);
    world.install(UploadWorld::openBag);
    for (int i = 0; i < sessionCount; ++i) finishLargeSession(world);

    int uploaded = 0;
    std::string body;
    world.server->setScript([&](const platform::FakeBackgroundSession::Sent& sent) {
        ++uploaded;
        if (body.empty()) body = inflated(sent.body, 1u << 30).value();
        world.server->forgetSent();
        return platform::FakeAnswer{};
    });
    const auto before = peakKilobytes();
    const auto begin = Clock::now();
    for (int left = sessionCount; left > 0; left -= static_cast<int>(UploadManager::maxPendingUploads)) {
        OrvexFeedbackFlusher::create(world.assembly)->forceFlushWithCompletion({});
        world.time.runPending();
    }
    const double work = secondsSince(begin);
    const auto grown = peakKilobytes() - before;
    check(uploaded == sessionCount, "not every session arrived");
    check(world.assembly.persistentStorage()->getAvailableSessionHandles().empty(), "a session is left");

    const auto floorBegin = Clock::now();
    for (int i = 0; i < sessionCount; ++i) check(!uploadDigest(body).empty(), "no digest");
    const double floor = secondsSince(floorBegin);
    fmt::print(
        "flush of {} sessions: {:.2f} s, {:.0f} a second; compressing {} bytes of JSON each alone {:.2f} s, "
        "{:.2f} x; grown by {} KiB\n",
        sessionCount, work, sessionCount / work, body.size(), floor, work / floor, grown);
}
