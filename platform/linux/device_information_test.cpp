#include "platform/linux/device_information.h"

#include <gtest/gtest.h>

#include "platform/fakes/temporary_directory.h"

namespace orvex::platform {
namespace {

class LinuxDeviceInformationTest : public testing::Test {
protected:
    void write(const std::string& name, const std::string& text) const { writeFile(directory / name, text); }
    LinuxDeviceInformation device() const {
        return LinuxDeviceInformation({.productName = directory / "product_name",
                                       .osRelease = {directory / "etc-os-release", directory / "usr-os-release"}});
    }
    std::string name(const std::string& assignment) const {
        write("etc-os-release", "NAME=" + assignment + "\n");
        return device().answer("ProductName");
    }

    const TemporaryDirectory directory;
};

TEST_F(LinuxDeviceInformationTest, FirmwareAndSystemAnswer) {
    write("product_name", "Machine 5,1\n");
    write("etc-os-release",
          "# a comment=\n\nNAME=\"Some System\"\n  VERSION_ID='12'\nBUILD_ID=20260101.2\nVERSION_CODENAME=tree\n");
    EXPECT_EQ(device().answer("ProductType"), "Machine 5,1");
    EXPECT_EQ(device().answer("ProductName"), "Some System");
    EXPECT_EQ(device().answer("ProductVersion"), "12");
    EXPECT_EQ(device().answer("BuildVersion"), "20260101.2");
    EXPECT_EQ(deviceDescription(device()), "Machine 5,1; Some System 12 20260101.2");
}

TEST_F(LinuxDeviceInformationTest, WithoutABuildTheCodenameStandsForIt) {
    write("etc-os-release", "BUILD_ID=\nVERSION_CODENAME=tree\n");
    EXPECT_EQ(device().answer("BuildVersion"), "tree");
}

TEST_F(LinuxDeviceInformationTest, WhatTheSystemDoesNotSayIsLinux) {
    EXPECT_EQ(deviceDescription(device()), "Linux; Linux Linux Linux");
    EXPECT_EQ(device().answer("SerialNumber"), "Linux");
    write("product_name", " \n");
    write("etc-os-release", "NAME=\"\"\nVERSION_ID");
    EXPECT_EQ(deviceDescription(device()), "Linux; Linux Linux Linux");
}

TEST_F(LinuxDeviceInformationTest, TheSecondFileIsReadOnlyWithoutTheFirst) {
    write("usr-os-release", "NAME=Vendor\nVERSION_ID=1\n");
    EXPECT_EQ(device().answer("ProductName"), "Vendor");
    write("etc-os-release", "NAME=Local\n");
    EXPECT_EQ(device().answer("ProductName"), "Local");
    EXPECT_EQ(device().answer("ProductVersion"), "Linux");
}

TEST_F(LinuxDeviceInformationTest, ValuesAreUnquotedAsAShellWould) {
    EXPECT_EQ(name(R"("a \"b\" \$c \\ \`d\` \e")"), R"(a "b" $c \ `d` \e)");
    EXPECT_EQ(name(R"('a \"b')"), R"(a \"b)");
    EXPECT_EQ(name(R"(a\ b)"), "a b");
    EXPECT_EQ(name(R"("unfinished)"), "unfinished");
    EXPECT_EQ(name(R"(end\)"), R"(end\)");
    EXPECT_EQ(name("\"it's\""), "it's");
    EXPECT_EQ(name("first\nNAME=last"), "last");
}

TEST_F(LinuxDeviceInformationTest, NoAnswerCanBreakAHeader) {
    EXPECT_EQ(name("\"a\x01\x7F\tb\r\""), "ab");
    EXPECT_EQ(name("\"\xFF\""), "Linux");
    write("product_name", "M\r\nX-Forged: 1\n");
    EXPECT_EQ(device().answer("ProductType"), "MX-Forged: 1");
}

}  // namespace
}  // namespace orvex::platform
