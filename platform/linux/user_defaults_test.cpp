#include "platform/linux/user_defaults.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <cerrno>
#include <cmath>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <thread>

#include "platform/fakes/fake_user_defaults.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/property_list.h"

namespace orvex::platform {
namespace {

namespace fs = std::filesystem;
using namespace std::chrono_literals;

struct RealDefaults {
    TemporaryDirectory home;
    LinuxFileManager files{{.home = home.path()}};
    FileWatcher watcher;
    LinuxUserDefaults defaults{files, watcher};
};

struct FakeDefaults {
    FakeUserDefaults defaults;
};

template <class World>
class UserDefaultsContract : public testing::Test {
protected:
    bool set(std::string_view key, PropertyValue value) {
        return world.defaults.setObject(key, std::move(value)).has_value();
    }

    World world;
    UserDefaults& defaults = world.defaults;
};

using Worlds = testing::Types<RealDefaults, FakeDefaults>;
TYPED_TEST_SUITE(UserDefaultsContract, Worlds);

TYPED_TEST(UserDefaultsContract, AStoredValueReplacesTheRegisteredOneUntilItIsRemoved) {
    this->defaults.registerDefaults({{"k", 1}});
    ASSERT_TRUE(this->set("k", 2));
    EXPECT_EQ(this->defaults.integer("k"), 2);
    ASSERT_TRUE(this->defaults.removeObject("k"));
    ASSERT_TRUE(this->defaults.removeObject("k"));
    EXPECT_EQ(this->defaults.integer("k"), 1);
    EXPECT_TRUE(this->world.defaults.stored().empty());
}

TYPED_TEST(UserDefaultsContract, EveryTypeIsKept) {
    const PropertyValue value = PropertyDictionary{{"a", PropertyArray{true, -1, 0.1, "x", PropertyData{"\xff"}}}};
    ASSERT_TRUE(this->set("k", value) && this->set("date", WallTime(1'700'000'000s + 750ms)));
    EXPECT_EQ(this->defaults.object("k"), value);
    EXPECT_EQ(this->defaults.object("date"), PropertyValue(WallTime(1'700'000'000s)));  // whole seconds
}

TYPED_TEST(UserDefaultsContract, WhatAListCannotHoldIsRefusedAndLosesNothing) {
    ASSERT_TRUE(this->set("k", 1));
    EXPECT_EQ(this->defaults.setObject("k", std::nan("")).error().code, EINVAL);
    EXPECT_EQ(this->defaults.setObject("k", PropertyArray{std::string("a\0b", 3)}).error().code, EINVAL);
    EXPECT_EQ(this->defaults.setObject(std::string_view("\0", 1), 1).error().code, EINVAL);
    EXPECT_EQ(this->world.defaults.stored(), (PropertyDictionary{{"k", 1}}));
}

class LinuxUserDefaultsTest : public testing::Test {
protected:
    LinuxUserDefaultsTest() { fs::create_directories(fs::path(file).parent_path()); }

    std::string read() { return readFile(file); }
    void write(const PropertyDictionary& values) {
        writeFile(file + ".new", writeXMLPropertyList(values).value());
        fs::rename(file + ".new", file);
    }
    /// The handler of a watch of ours comes after that of the defaults, which were there before.
    void waitForChange(const std::function<bool()>& seen) {
        std::unique_lock lock(_mutex);
        _changed.wait(lock, seen);
    }
    std::unique_ptr<FileWatcher::Watch> watchToo() {
        return watcher.watch(fs::path(file).parent_path(), "defaults.plist", [this] {
            const std::lock_guard lock(_mutex);
            _changed.notify_all();
        });
    }

    TemporaryDirectory home;
    const std::string file = home / ".config/com.kelvar.orvexd/defaults.plist";
    LinuxFileManager files{{.home = home.path()}};
    FileWatcher watcher;

private:
    std::mutex _mutex;
    std::condition_variable _changed;
};

TEST_F(LinuxUserDefaultsTest, TheFileIsAnXMLListOfOurOwn) {
    LinuxUserDefaults defaults(files, watcher);
    ASSERT_TRUE(defaults.setObject("k", 7));
    EXPECT_TRUE(read().starts_with("<?xml"));
    EXPECT_EQ(parsePropertyList(read()).value(), PropertyValue(PropertyDictionary{{"k", 7}}));
    EXPECT_EQ(fs::status(file).permissions(), fs::perms::owner_read | fs::perms::owner_write);
    EXPECT_EQ(LinuxUserDefaults(files, watcher).integer("k"), 7);
}

TEST_F(LinuxUserDefaultsTest, WritersOfSeveralProgramsLoseNothingOfEachOther) {
    LinuxUserDefaults one(files, watcher);
    LinuxUserDefaults two(files, watcher);
    constexpr int turns = 20;
    const auto fill = [](LinuxUserDefaults& defaults, const std::string& prefix) {
        for (int turn = 0; turn < turns; ++turn) EXPECT_TRUE(defaults.setObject(prefix + std::to_string(turn), turn));
    };
    {
        const std::jthread first([&] { fill(one, "a"); });
        const std::jthread second([&] { fill(two, "b"); });
    }
    EXPECT_EQ(parsePropertyList(read()).value().as<PropertyDictionary>()->size(), 2u * turns);
    EXPECT_EQ(LinuxUserDefaults(files, watcher).stored().size(), 2u * turns);
}

TEST_F(LinuxUserDefaultsTest, AChangeByAnotherProgramIsSeen) {
    LinuxUserDefaults defaults(files, watcher);
    const auto watch = watchToo();
    write({{"k", 1}});
    waitForChange([&] { return defaults.integer("k") == 1; });
    fs::remove(file);
    waitForChange([&] { return defaults.integer("k") == 0; });
    fs::remove_all(fs::path(file).parent_path());
    fs::create_directories(fs::path(file).parent_path());
    write({{"k", 2}});
    waitForChange([&] { return defaults.integer("k") == 2; });
}

TEST_F(LinuxUserDefaultsTest, ABrokenFileIsSetAsideAndWrittenAnew) {
    const auto setAsideAs = [&] { return readFile(file + ".corrupt"); };
    for (const std::string& broken : {std::string(), std::string("garbage"), std::string("bplist00"),
                                      writeXMLPropertyList(PropertyArray{1}).value(), std::string(5 << 20, 'x')}) {
        writeFile(file, broken);
        LinuxUserDefaults defaults(files, watcher);
        defaults.registerDefaults({{"k", 1}});
        EXPECT_EQ(defaults.integer("k"), 1);
        EXPECT_EQ(setAsideAs(), broken);
        EXPECT_FALSE(fs::exists(file));
        ASSERT_TRUE(defaults.setObject("k", 2));
        EXPECT_EQ(LinuxUserDefaults(files, watcher).integer("k"), 2);
    }
}

TEST_F(LinuxUserDefaultsTest, WhatIsNoFileIsSetAsideToo) {
    const auto place = [&](int kind) {
        fs::remove_all(file);
        fs::remove_all(file + ".corrupt");
        if (kind == 0) fs::create_directory(file);
        if (kind == 1) {
            EXPECT_EQ(::mkfifo(file.c_str(), 0600), 0);
        }
        if (kind == 2) fs::create_symlink(home / "elsewhere", file);
    };
    writeFile(home / "elsewhere", writeXMLPropertyList(PropertyDictionary{{"k", 5}}).value());
    for (const int kind : {0, 1, 2}) {
        place(kind);
        LinuxUserDefaults defaults(files, watcher);
        EXPECT_EQ(defaults.integer("k"), 0);
        EXPECT_TRUE(defaults.setObject("k", 2)) << kind;
        EXPECT_EQ(LinuxUserDefaults(files, watcher).integer("k"), 2) << kind;
    }
    EXPECT_NE(readFile(home / "elsewhere").find("<integer>5"), std::string::npos);
}

TEST_F(LinuxUserDefaultsTest, AFailedWriteKeepsTheOldFileAndValues) {
    LinuxUserDefaults defaults(files, watcher);
    ASSERT_TRUE(defaults.setObject("k", 1));
    const std::string before = read();
    EXPECT_EQ(defaults.setObject("large", PropertyData{std::string(5 << 20, 'x')}).error().code, EFBIG);
    EXPECT_EQ(read(), before);
    EXPECT_EQ(defaults.stored(), (PropertyDictionary{{"k", 1}}));

    LinuxFileManager homeless({.home = std::nullopt});
    EXPECT_FALSE(LinuxUserDefaults(homeless, watcher).setObject("k", 1));
}

}  // namespace
}  // namespace orvex::platform
