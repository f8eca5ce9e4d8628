#include "platform/linux/linux_settings_file.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <condition_variable>
#include <filesystem>
#include <mutex>

#include "platform/fakes/fake_bus.h"
#include "platform/fakes/temporary_directory.h"
#include "platform/linux/dictionary_directories.h"
#include "platform/linux/system_settings.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

class Bell {
public:
    void ring() {
        const std::lock_guard lock(_mutex);
        ++_rings;
        _rang.notify_all();
    }
    bool wait() {
        std::unique_lock lock(_mutex);
        const bool rang = _rang.wait_for(lock, 60s, [this] { return _rings > 0; });
        _rings = 0;
        return rang;
    }

private:
    std::mutex _mutex;
    std::condition_variable _rang;
    int _rings = 0;
};

TEST(LinuxSettingsFileTest, OnlyAPlainSmallFileOfOursIsRead) {
    const TemporaryDirectory directory;
    const std::filesystem::path path = directory.path();
    FileWatcher watcher;
    const auto read = [&](const std::string& name) { return LinuxSettingsFile(watcher, path.string(), name).read(); };
    EXPECT_EQ(read("missing").error().code, ENOENT);
    writeFile(path / "plain", "{}");
    EXPECT_EQ(read("plain").value(), "{}");
    writeFile(path / "large", std::string(maxSettingsFileBytes + 1, ' '));
    EXPECT_EQ(read("large").error().code, EFBIG);
    std::filesystem::create_symlink(path / "plain", path / "link");
    EXPECT_EQ(read("link").error().code, ELOOP);
    ASSERT_EQ(::mkfifo((path / "fifo").c_str(), 0600), 0);
    EXPECT_EQ(read("fifo").error().code, EINVAL);
    if (::geteuid() == 0) {
        ASSERT_EQ(::chown((path / "plain").c_str(), 65534, 65534), 0);
        EXPECT_EQ(read("plain").error().code, EPERM);
    }
}

TEST(DictionaryDirectoriesTest, DictionariesAreKnownByTheirLanguage) {
    const TemporaryDirectory directory;
    const std::filesystem::path path = directory.path();
    FileWatcher watcher;
    Bell bell;
    DictionaryDirectories dictionaries(watcher,
                                       {.hunspell = (path / "hunspell").string(), .dictd = (path / "dictd").string()});
    EXPECT_TRUE(dictionaries.languages().empty());
    dictionaries.setChangeHandler([&] { bell.ring(); });
    for (const auto* name : {"hunspell", "dictd"}) std::filesystem::create_directory(path / name);
    for (const auto* name : {"hunspell/de_DE.dic", "hunspell/de_AT.dic", "hunspell/en_GB.aff", "hunspell/README.dic",
                             "dictd/freedict-eng-fra.index", "dictd/wn.index", "dictd/a-b-c.index"})
        writeFile(path / name, "1");
    EXPECT_TRUE(bell.wait());
    EXPECT_EQ(dictionaries.languages(), (std::vector<std::string>{"de", "en"}));
}

TEST(SystemSettingsTest, WhatIsAnnouncedWinsOverTheEnvironment) {
    FakeBus bus;
    std::string layout = "de,us";
    bus.addService("org.freedesktop.locale1", [&](BusCall call) {
        const bool keyboard = *call.arguments[1].as<std::string>() == "X11Layout";
        BusArray locale{.elementSignature = "s", .items = {"LANG=it_IT.UTF-8"}};
        call.reply.answer({keyboard ? BusValue(layout) : BusValue(std::move(locale))});
    });
    SystemSettings settings;
    IcuLocale locale(settings.environment());
    settings.follow(bus, [&] { locale.refresh(); });
    EXPECT_EQ(locale.current().keyboardLayout, "de");
    const auto announceByName = [&](const std::string& name, const std::string& property) {
        bus.emitSignal("org.freedesktop." + name, "/org/freedesktop/" + name, "org.freedesktop.DBus.Properties",
                       "PropertiesChanged",
                       {"org.freedesktop." + name, BusDictionary{.valueSignature = "v", .entries = {}},
                        BusArray{.elementSignature = "s", .items = {property}}});
    };
    const auto announce = [&](const std::string& name, const std::string& property, BusValue value) {
        BusDictionary changed;
        changed.set(property, std::move(value));
        bus.emitSignal("org.freedesktop." + name, "/org/freedesktop/" + name, "org.freedesktop.DBus.Properties",
                       "PropertiesChanged",
                       {"org.freedesktop." + name, std::move(changed), BusArray{.elementSignature = "s", .items = {}}});
    };
    announce("locale1", "Locale", BusArray{.elementSignature = "s", .items = {"LANG=fr_FR.UTF-8", "LC_TIME=de", "x"}});
    EXPECT_EQ(locale.current().identifier, "fr_FR");
    announce("timedate1", "Timezone", "Asia/Tokyo");
    EXPECT_EQ(locale.current().timeZoneName, "Asia/Tokyo");
    EXPECT_EQ(locale.current().countryCode, "JP");
    announce("locale1", "Locale", BusArray{.elementSignature = "s", .items = {"LANG=zz_nowhere!!"}});
    announce("locale1", "Locale", std::uint32_t{7});
    layout = "fr";
    announceByName("locale1", "X11Layout");
    EXPECT_EQ(locale.current().keyboardLayout, "fr");
    announceByName("locale1", "Locale");
    EXPECT_EQ(locale.current().identifier, "it_IT");
    announceByName("timedate1", "Timezone");  // which does not answer
    EXPECT_EQ(locale.current().timeZoneName, "Asia/Tokyo");
}

}  // namespace
}  // namespace orvex::platform
