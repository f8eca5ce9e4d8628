#include "platform/linux/desktop_applications.h"

#include <gmock/gmock.h>

#include <filesystem>
#include <semaphore>

#include "platform/fakes/temporary_directory.h"
#include "platform/linux/appstream_metainfo.h"

namespace orvex::platform {
namespace {

using testing::ElementsAre;

class DesktopApplicationsTest : public testing::Test {
protected:
    void write(const std::string& path, const std::string& bytes) {
        std::filesystem::create_directories(std::filesystem::path(home / path).parent_path());
        writeFile(home / path, bytes);
    }
    void entry(const std::string& path, const std::string& more = "Type=Application\n") {
        write(path, "# ours\n\n[Desktop Entry]\nName=X\n" + more + "[Desktop Action New]\nType=Link\nHidden=true\n");
    }
    void metainfo(const std::string& path, const std::string& inner) {
        write(path, "<?xml version='1.0'?><component type='desktop-application'>" + inner + "</component>");
    }
    /// "identifier version", sorted.
    [[nodiscard]] std::vector<std::string> installed() const {
        std::vector<std::string> all;
        for (const auto& application : applications.applications())
            all.push_back(application.identifier + ' ' + application.version);
        std::ranges::sort(all);
        return all;
    }

    const TemporaryDirectory home;
    std::counting_semaphore<> changes{0};
    FileWatcher watcher;
    DesktopApplications applications{watcher, {home / "own", home / "system"}};
};

TEST_F(DesktopApplicationsTest, AnEntryHasTheVersionThatMetainfoNamesForIt) {
    EXPECT_THAT(installed(), ElementsAre());
    entry("system/applications/org.maps.desktop");
    entry("system/applications/kde/viewer.desktop");
    entry("system/applications/legacy.desktop");
    entry("system/applications/bare.desktop");
    metainfo("system/metainfo/m.xml",
             "<id>org.maps.Component</id><launchable type='desktop-id'> org.maps.desktop </launchable><launchable "
             "type='service'>bare</launchable><releases><release version='4.2'/><release version='4.1'/></releases>");
    metainfo("system/metainfo/v.xml", "<id>kde-viewer</id><releases><release version='1'/></releases>");
    metainfo("system/appdata/l.xml", "<id>legacy.desktop</id><releases><release version='2&amp;3'/></releases>");
    metainfo("system/metainfo/b.xml", "<id>bare</id>");
    EXPECT_THAT(installed(), ElementsAre("bare ", "kde-viewer 1", "legacy 2&3", "org.maps 4.2"));
}

TEST_F(DesktopApplicationsTest, TheUsersOwnEntryHidesTheSystems) {
    for (const auto* name : {"kept", "hidden", "changed"})
        entry(std::string("system/applications/") + name + ".desktop");
    entry("own/applications/hidden.desktop", "Type=Application\nHidden=true\n");
    entry("own/applications/changed.desktop", "Type = Link\n");
    EXPECT_THAT(installed(), ElementsAre("kept "));
}

TEST_F(DesktopApplicationsTest, WhatIsNoneIsPassedOver) {
    write("own/applications/empty.desktop", "");
    write("own/applications/other.desktop", "[Other]\nType=Application\n[Desktop Entry]\nType=Application\n");
    write("own/applications/large.desktop", std::string(DesktopApplications::maxFileBytes + 1, '\n'));
    entry("own/applications/note.txt");
    std::filesystem::create_directory_symlink(home / "own", home / "own/applications/circle");
    std::filesystem::create_symlink(home / "nowhere", home / "own/applications/dangling.desktop");
    entry("elsewhere/real");
    std::filesystem::create_symlink(home / "elsewhere/real", home / "own/applications/linked.desktop");
    EXPECT_THAT(installed(), ElementsAre("linked "));
}

TEST_F(DesktopApplicationsTest, AnInstallationIsTold) {
    applications.setChangeHandler([&] { changes.release(); });
    entry("own/applications/new.desktop");  // the directory too
    EXPECT_TRUE(changes.try_acquire_for(std::chrono::minutes(1)));
    metainfo("system/metainfo/new.xml", "<id>new</id><releases><release version='1'/></releases>");
    while (installed() != std::vector<std::string>{"new 1"})
        ASSERT_TRUE(changes.try_acquire_for(std::chrono::minutes(1)));
}

TEST(AppstreamMetainfoTest, BadXMLIsNoMetainfo) {
    std::string laughs = "<!DOCTYPE c [<!ENTITY a0 'ha'>";
    for (int i = 1; i < 10; ++i) {
        laughs += "<!ENTITY a" + std::to_string(i) + " '";
        for (int j = 0; j < 10; ++j) laughs += "&a" + std::to_string(i - 1) + ";";
        laughs += "'>";
    }
    laughs += "]><component><id>&a9;</id></component>";
    const auto read = parseAppstreamMetainfo(laughs);
    ASSERT_TRUE(read);
    EXPECT_THAT(read->applications, ElementsAre("&a9;"));

    std::string deep;
    for (int i = 0; i < 300'000; ++i) deep += "<a>";
    const std::string external = "<!DOCTYPE c SYSTEM 'file:///etc/passwd'><other/>";
    for (const std::string& text : {std::string(), std::string("[Desktop Entry]"), std::string("<component><id>x</i>"),
                                    std::string("\xff\xfe\x00", 3), deep, external})
        EXPECT_FALSE(parseAppstreamMetainfo(text)) << text.substr(0, 40);
}

}  // namespace
}  // namespace orvex::platform
