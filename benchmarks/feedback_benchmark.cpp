// What it costs to accept a feedback record: from the session manager's door, through the bag's switch, the user GUID
// and the shared session, until it is in its session's file; against encoding the same record and writing it in a bare
// loop. Medians of runs made in turn, this process pinned to one core. Then what a session of 100,000 records takes in
// memory while it is open.

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <fstream>
#include <semaphore>

#include "benchmarks/measuring.h"
#include "core/feedback_record.h"
#include "core/feedback_records.pb.h"
#include "daemon/assembly.h"
#include "daemon/orvex_service.h"
#include "daemon/start_up.h"
#include "feedback/client_session_manager_protocol.h"
#include "network/bag_controller.h"
#include "platform/fakes/fake_platform.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/file_manager.h"
#include "platform/linux/thread_dispatcher.h"

namespace {

using namespace orvex;
using Clock = std::chrono::steady_clock;

constexpr int recordsInARun = 100'000;
constexpr int runs = 7;
constexpr int recordsAtATime = 1'000;  // that are under way

void check(bool good, const char* what) {
    if (good) return;
    fmt::print(stderr, "feedback_benchmark: {}\n", what);
    std::exit(1);
}

/// What a client tells of a result that was chosen.
std::unique_ptr<CXOrvexFeedback> record(std::uint64_t number) {
    CXFeedbackPayload payload;
    payload.set_type(7);
    auto& engagement = *payload.mutable_result_engagement();
    engagement.set_timestamp(number);
    engagement.set_identifier("0F8E6A3C-5B1D-4E7F-9A2C-3D4B5E6F7A8B");
    auto& result = *engagement.mutable_result();
    result.set_identifier("https://example.org/article/17");
    result.set_query_id(number);
    result.set_type(1);
    result.set_user_input("appl");
    result.set_completed_query("apple");
    return orvexFeedbackWithPayload(std::move(payload),
                                    {.queryId = static_cast<std::int64_t>(number), .userAgent = "Lumisk/1"});
}

/// The daemon's own components on threads and a real disk; its server, bus and settings are fakes.
class World {
public:
    explicit World(const std::string& home) : _files(platform::fileManagerBelow(home)) {
        _defaults.store("ORXSessionSizeLimit", std::int64_t{1} << 40);
        _platform.sessions.setScript([](const platform::URLRequest&) {
            return platform::FakeAnswer{.statusCode = 200, .body = R"({"version": "1", "feedback_enabled": true})"};
        });
        _service = assemble(_assembly);
        check(_service->exportObjects().has_value(), "the bus refused the object");
        _dispatcher.start();
        for (int attempt = 0; attempt < 1'000 && !_assembly.bagController()->currentBag(); ++attempt) ::usleep(10'000);
        check(_assembly.bagController()->inMemoryBag() != nullptr, "no bag has come");
    }

    /// Returns when all have ended their road.
    void accept(std::vector<std::unique_ptr<CXOrvexFeedback>> records) {
        auto& manager = *_assembly.clientSessionManager();
        std::counting_semaphore<> underWay(recordsAtATime);
        for (auto& each : records) {
            underWay.acquire();
            manager.addOrvexFeedback(std::move(each), RecordReceipt([&](const std::optional<ORXError>& error) {
                                         check(!error, "a record failed");
                                         underWay.release();
                                     }));
        }
        for (int left = 0; left < recordsAtATime; ++left) underWay.acquire();
    }
    void endSession() {
        std::binary_semaphore ended(0);
        _assembly.clientSessionManager()->flushSession([&] { ended.release(); });
        ended.acquire();
    }
    std::int64_t dropped() const {
        std::int64_t count = 0;
        for (const auto& [name, value] : _platform.counters.snapshot()) {
            if (name.find("feedbackdropped") != std::string::npos) count += value;
        }
        return count;
    }

private:
    const std::unique_ptr<platform::FileManager> _files;
    platform::FakeUserDefaults _defaults;
    platform::ThreadDispatcher _dispatcher;
    platform::FakePlatform _platform{_dispatcher, *_files, _defaults};
    Assembly _assembly{_platform.as<Assembly::Platform>()};
    std::shared_ptr<OrvexService> _service;
};

std::vector<std::unique_ptr<CXOrvexFeedback>> records(int count) {
    std::vector<std::unique_ptr<CXOrvexFeedback>> made;
    for (int number = 1; number <= count; ++number) made.push_back(record(static_cast<std::uint64_t>(number)));
    return made;
}

/// Microseconds a record.
template <class Work>
double measured(Work work) {
    auto made = records(recordsInARun);
    const auto begin = Clock::now();
    work(std::move(made));
    return std::chrono::duration<double, std::micro>(Clock::now() - begin).count() / recordsInARun;
}

void encodeAndWrite(int file, const std::vector<std::unique_ptr<CXOrvexFeedback>>& made) {
    for (const auto& each : made) {
        const auto bytes = each->SerializeAsString();
        check(::write(file, bytes.data(), bytes.size()) == static_cast<ssize_t>(bytes.size()), "cannot write");
    }
}

double residentMiB() {
    std::ifstream statm("/proc/self/statm");
    std::size_t total = 0, resident = 0;
    statm >> total >> resident;
    return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / (1024 * 1024);
}

void measureSpeed(World& world, const std::string& home) {
    const int file = ::open((home + "/floor").c_str(), O_CREAT | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    check(file >= 0, "no file for the floor");
    std::vector<double> accepting, floor;
    for (int run = 0; run < runs; ++run) {
        accepting.push_back(measured([&](auto made) { world.accept(std::move(made)); }));
        world.endSession();
        floor.push_back(measured([&](const auto& made) { encodeAndWrite(file, made); }));
    }
    ::close(file);
    const double ofRecord = median(accepting), ofFloor = median(floor);
    fmt::print("a record accepted        {:6.2f} us   {:9.0f} a second   (at least 200000)\n", ofRecord,
               1'000'000 / ofRecord);
    fmt::print("encoded and written      {:6.2f} us   {:9.0f} a second   {:.2f} x\n", ofFloor, 1'000'000 / ofFloor,
               ofRecord / ofFloor);
}

void measureMemory(World& world) {
    world.accept(records(recordsAtATime));
    const double before = residentMiB();
    for (int added = 0; added < 100'000; added += recordsAtATime) world.accept(records(recordsAtATime));
    fmt::print("100000 records in a session: {:+.2f} MiB resident, {} records dropped\n", residentMiB() - before,
               world.dropped());
}

}  // namespace

int main() {
    pinToOneCore();
    const platform::TemporaryDirectory home;
    World world(home.path());
    measureMemory(world);
    world.endSession();
    measureSpeed(world, home.path());
    return world.dropped() == 0 ? 0 : 1;
}
