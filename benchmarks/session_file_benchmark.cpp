// What session files cost: a record written through its container against encoding and write(2) in a bare loop, and the
// start of the storage with 1,000 files waiting against listing and looking at them. Medians of runs made in turn, this
// process pinned to one core. A run's records are handed over all at once, and its time ends with the last receipt.

#include <fcntl.h>
#include <fmt/core.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <semaphore>
#include <vector>

#include "benchmarks/measuring.h"
#include "core/feedback_records.pb.h"
#include "daemon/assembly.h"
#include "feedback/file_container.h"
#include "feedback/orvex_persistent_storage.h"
#include "platform/fakes/fake_platform.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/file_manager.h"
#include "platform/linux/thread_dispatcher.h"

namespace {

using namespace orvex;
using Clock = std::chrono::steady_clock;

constexpr int records = 100'000;
constexpr int waitingFiles = 1'000;
constexpr int rounds = 9;

double milliseconds(const std::function<void()>& work) {
    const auto begin = Clock::now();
    work();
    return std::chrono::duration<double, std::milli>(Clock::now() - begin).count();
}

void check(bool good, const char* what) {
    if (good) return;
    fmt::print(stderr, "session_file_benchmark: {}\n", what);
    std::exit(1);
}

/// A results-were-shown record as a client sends it, some 250 bytes.
CXOrvexFeedback shownResults() {
    CXOrvexFeedback record;
    record.mutable_payload()->set_type(8);
    auto& shown = *record.mutable_payload()->mutable_visible_results();
    shown.set_timestamp(1'000'000'000'000);
    for (int i = 0; i < 3; ++i) {
        auto& result = *shown.add_results();
        result.set_identifier(fmt::format("com.example.result.{}", i));
        result.set_type(2);
        result.set_user_input("weath");
        result.set_section_bundle_identifier("com.example.section");
    }
    record.set_query_id(7);
    record.set_user_agent("Lumisk/1");
    record.set_user_guid("6A1C1A60-7C5E-4C5B-9D6C-0123456789AB");
    return record;
}

/// The assembly on real files and threads.
class World {
public:
    World() {
        _defaults.registerDefaults({{"ORXSessionSizeLimit", std::int64_t{1} << 40}, {"ORXSessionMaxAge", 172'800}});
        _dispatcher.start();
    }

    Assembly& assembly() { return _assembly; }
    std::string directory() { return _files->cachesDirectory().value()->path(); }

private:
    const platform::TemporaryDirectory _home;
    const std::unique_ptr<platform::FileManager> _files = platform::fileManagerBelow(_home.path());
    platform::ThreadDispatcher _dispatcher;
    platform::FakeUserDefaults _defaults;
    platform::FakePlatform _platform{_dispatcher, *_files, _defaults};
    Assembly _assembly{_platform.as<Assembly::Platform>()};
};

void writeThroughContainer(OrvexPersistentStorage& storage, const CXOrvexFeedback& record) {
    const auto container = storage.createFileContainerForWriting();
    check(container != nullptr, "no session file");
    std::atomic<int> left = records;
    std::atomic<bool> failed = false;
    std::binary_semaphore written(0);
    for (int i = 0; i < records; ++i) {
        container->writeFeedback(record, RecordReceipt([&](const std::optional<ORXError>& error) {
                                     if (error) failed = true;
                                     if (--left == 0) written.release();
                                 }));
    }
    written.acquire();
    check(!failed, "a record was not written");
    storage.deleteSessionWithFileContainer(container);
}

void writeBare(const std::string& path, const CXOrvexFeedback& record) {
    const platform::FileDescriptor file(
        ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_TRUNC | O_CLOEXEC, 0600));
    std::string bytes;
    for (int i = 0; i < records; ++i) {
        record.SerializeToString(&bytes);
        check(::write(file.get(), bytes.data(), bytes.size()) == std::ssize(bytes), "cannot write");
    }
    std::filesystem::remove(path);
}

void timeRecords(World& world) {
    OrvexPersistentStorage storage(world.assembly());
    const auto record = shownResults();
    const auto bare = world.directory() + "/bare";
    std::vector<double> ofWork, ofFloor;
    for (int i = 0; i < rounds; ++i) {
        ofWork.push_back(milliseconds([&] { writeThroughContainer(storage, record); }));
        ofFloor.push_back(milliseconds([&] { writeBare(bare, record); }));
    }
    const double work = median(ofWork), floor = median(ofFloor);
    fmt::print("record of {} bytes: {:.2f} us, bare encode and write {:.2f} us, {:.2f} x; {:.0f} a second\n",
               record.ByteSizeLong(), 1000 * work / records, 1000 * floor / records, work / floor,
               1000 * records / work);
}

void timeStart(World& world) {
    for (int i = 0; i < waitingFiles; ++i)
        platform::writeFile(fmt::format("{}/session.{}", world.directory(), i), std::string(1000, 'x'));
    std::vector<double> ofWork, ofFloor;
    for (int i = 0; i < rounds; ++i) {
        ofWork.push_back(milliseconds([&] {
            OrvexPersistentStorage storage(world.assembly());
            check(storage.getAvailableSessionHandles().size() == waitingFiles, "not all files were found");
        }));
        ofFloor.push_back(milliseconds([&] {
            std::uintmax_t bytes = 0;
            for (const auto& entry : std::filesystem::directory_iterator(world.directory())) bytes += entry.file_size();
            check(bytes == waitingFiles * 1000u, "not all files were listed");
        }));
    }
    const double work = median(ofWork), floor = median(ofFloor);
    fmt::print("start with {} waiting files: {:.2f} ms, listing them {:.2f} ms, {:.2f} x\n", waitingFiles, work, floor,
               work / floor);
}

}  // namespace

int main() {
    pinToOneCore();
    World world;
    timeRecords(world);
    timeStart(world);
}
