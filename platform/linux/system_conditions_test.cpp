#include "platform/linux/system_conditions.h"

#include <gtest/gtest.h>

#include "platform/fakes/fake_bus.h"

namespace orvex::platform {
namespace {

constexpr const char* networkManager = "org.freedesktop.NetworkManager";
constexpr const char* upower = "org.freedesktop.UPower";

class SystemConditionsTest : public testing::Test {
protected:
    static BusDictionary network(std::uint32_t metered, std::uint32_t connectivity) {
        BusDictionary properties;
        properties.set("Metered", metered).set("Connectivity", connectivity).set("Version", "1.42");
        return properties;
    }
    static BusDictionary power(bool onBattery) {
        BusDictionary properties;
        properties.set("OnBattery", onBattery);
        return properties;
    }
    void announce(const std::string& service, const std::string& path, const std::string& interface,
                  BusDictionary properties) {
        bus.emitSignal(service, path, "org.freedesktop.DBus.Properties", "PropertiesChanged",
                       {interface, std::move(properties), BusArray{.elementSignature = "s", .items = {}}});
    }

    FakeBus bus;
    DeviceConditions conditions;
    int changes = 0;
    std::unique_ptr<DeviceConditions::Observation> observation = conditions.observe([this] { ++changes; });
};

TEST_F(SystemConditionsTest, WithoutTheServicesTheBestIsAssumed) {
    followSystemConditions(bus, conditions);
    EXPECT_EQ(conditions.current(), Conditions{});
    EXPECT_EQ(changes, 0);
}

TEST_F(SystemConditionsTest, WhatTheServicesSayIsFollowed) {
    bus.addService(networkManager, [](BusCall call) { call.reply.answer({network(3, 4)}); });
    bus.addService(upower, [](BusCall call) { call.reply.answer({power(true)}); });
    followSystemConditions(bus, conditions);
    EXPECT_EQ(conditions.current(), (Conditions{.isConnected = true, .isMetered = true, .isOnMains = false}));
    EXPECT_EQ(changes, 2);

    announce(upower, "/org/freedesktop/UPower", upower, power(false));
    announce(upower, "/org/freedesktop/UPower", upower, power(false));
    EXPECT_EQ(changes, 3);
    announce(upower, "/org/freedesktop/UPower", "org.freedesktop.UPower.Other", power(true));
    EXPECT_EQ(conditions.current(), Conditions{.isMetered = true});

    const struct {
        std::uint32_t metered, connectivity;
        bool isMetered, isConnected;
    } cases[] = {
        {0, 0, false, true}, {1, 4, true, true}, {2, 1, false, false}, {4, 2, false, false}, {9, 3, false, true}};
    for (const auto& one : cases) {
        announce(networkManager, "/org/freedesktop/NetworkManager", networkManager,
                 network(one.metered, one.connectivity));
        EXPECT_EQ(conditions.current(), (Conditions{.isConnected = one.isConnected, .isMetered = one.isMetered}));
    }
    observation.reset();
    announce(upower, "/org/freedesktop/UPower", upower, power(true));
    EXPECT_EQ(changes, 7);  // two of the five are alike; none is told after the observation
}

}  // namespace
}  // namespace orvex::platform
