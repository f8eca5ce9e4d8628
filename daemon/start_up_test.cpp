#include "daemon/start_up.h"

#include <gtest/gtest.h>

#include "core/notifications.h"
#include "daemon/command_line.h"
#include "daemon/daemon_world_test.h"
#include "daemon/idle_exit.h"

namespace orvex {
namespace {

using namespace std::chrono_literals;

TEST(StartUpTest, WithoutDirectoriesItStartsAllTheSame) {
    DaemonWorld world;
    world.files.setAvailable(false);
    world.start();
    EXPECT_TRUE(world.log.contains(platform::LogLevel::error, "-", "failed getting a caches dir: "));
    EXPECT_TRUE(world.configure(":1.1")->arguments);
}

TEST(StartUpTest, FastOpenIsOffWithoutParallax) {
    DaemonWorld with;
    EXPECT_TRUE(dynamic_cast<platform::FakeURLSession&>(with.assembly.urlSession()).configuration().allowsFastOpen);
    DaemonWorld without;
    without.defaults.store("ORXNoParallax", true);
    const auto& configuration = dynamic_cast<platform::FakeURLSession&>(without.assembly.urlSession()).configuration();
    EXPECT_FALSE(configuration.allowsFastOpen);
    EXPECT_EQ(configuration.cacheMemoryCapacity, 4194304u);
    EXPECT_EQ(&without.assembly.urlSession(), &without.assembly.urlSession());
}

class IdleExitTest : public testing::Test {
protected:
    DaemonWorld world;
    std::size_t callsInFlight = 0;
    int left = 0;
};

TEST_F(IdleExitTest, ItLeavesOnceNothingWasOpenForThatLong) {
    const IdleExit idle(world.assembly, 10s, [this] { return callsInFlight; }, [this] { ++left; });
    world.time.advance(9s);
    auto transaction = world.transactions->begin("work");
    world.time.advance(1h);
    EXPECT_EQ(left, 0);
    EXPECT_FALSE(world.time.nextDue());
    transaction.end();
    world.time.advance(9999ms);
    EXPECT_EQ(left, 0);
    world.time.advance(1ms);
    EXPECT_EQ(left, 1);
    world.time.advance(1h);
    EXPECT_EQ(left, 1);
}

TEST_F(IdleExitTest, ACallInFlightIsWaitedFor) {
    const IdleExit idle(world.assembly, 50ms, [this] { return callsInFlight; }, [this] { ++left; });
    callsInFlight = 1;
    world.time.advance(1s);
    EXPECT_EQ(left, 0);
    callsInFlight = 0;
    world.time.advance(50ms);
    EXPECT_EQ(left, 1);
}

// A client's transaction is open for 60 s after its last call; only then does the time of the idle exit begin.
TEST(IdleExitOfClientsTest, ACallIsAnsweredWhetherItComesBeforeTheExitOrAsItHappens) {
    struct Case {
        std::chrono::milliseconds secondCall;
        bool findsItLeaving;
    };
    for (const auto& [secondCall, findsItLeaving] :
         {Case{59'999ms, false}, Case{60'000ms, false}, Case{60'049ms, false}, Case{60'050ms, true}}) {
        DaemonWorld world;
        ASSERT_TRUE(world.bus.requestName("com.kelvar.orvexd"));
        world.start();
        int gone = 0;
        const IdleExit idle(
            world.assembly, 50ms, [&] { return world.service->callsInFlight(); },
            [&] { world.service->leave([&] { ++gone; }); });
        ASSERT_TRUE(world.configure(":1.1")->arguments);
        world.time.advance(secondCall);
        EXPECT_EQ(gone, findsItLeaving ? 1 : 0) << secondCall.count();
        EXPECT_EQ(world.bus.owns("com.kelvar.orvexd"), !findsItLeaving);
        EXPECT_TRUE(world.configure(":1.1")->arguments);
        if (findsItLeaving) continue;
        world.time.advance(60'049ms);
        EXPECT_EQ(gone, 0) << secondCall.count();
        world.time.advance(1ms);
        EXPECT_EQ(gone, 1) << secondCall.count();
    }
}

std::expected<CommandLine, CommandLineEnd> parse(std::vector<const char*> arguments) {
    arguments.insert(arguments.begin(), "orvexd");
    return parseCommandLine(static_cast<int>(arguments.size()), arguments.data());
}

TEST(CommandLineTest, EveryOptionIsTaken) {
    const auto line = parse({"--bus", "unix:path=/x", "--default", "a=1", "--default", "b=x=y", "--idle-exit", "0.05",
                             "--log-level", "debug", "--log-format", "json", "--ca-file", "/dev/null"});
    ASSERT_TRUE(line);
    EXPECT_EQ(line->busAddress, "unix:path=/x");
    EXPECT_EQ(line->defaults, (std::vector<std::pair<std::string, std::string>>{{"a", "1"}, {"b", "x=y"}}));
    EXPECT_EQ(line->idleExit, 50ms);
    EXPECT_EQ(line->logLevel, platform::LogLevel::debug);
    EXPECT_EQ(line->logFormat, "json");
    EXPECT_EQ(line->certificateAuthorityFile, "/dev/null");
    EXPECT_EQ(parse({})->idleExit, 0ns);
}

TEST(CommandLineTest, WrongUsageEndsWithTwoAndHelpWithZero) {
    for (const std::vector<const char*>& wrong : std::vector<std::vector<const char*>>{{"--unknown"},
                                                                                       {"stray"},
                                                                                       {"--default", "novalue"},
                                                                                       {"--default", "=v"},
                                                                                       {"--idle-exit", "-1"},
                                                                                       {"--idle-exit", "nan"},
                                                                                       {"--idle-exit", "1e300"},
                                                                                       {"--log-level", "loud"},
                                                                                       {"--log-format", "xml"},
                                                                                       {"--ca-file", "/dev/null/none"},
                                                                                       {"--bus"}}) {
        const auto line = parse(wrong);
        ASSERT_FALSE(line) << wrong[0];
        EXPECT_EQ(line.error().status, 2) << wrong[0];
        EXPECT_FALSE(line.error().text.empty());
    }
    EXPECT_EQ(parse({"--help"}).error().status, 0);
    EXPECT_EQ(parse({"--version"}).error().status, 0);
}

}  // namespace
}  // namespace orvex
