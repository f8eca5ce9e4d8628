#include "platform/linux/geoclue_location.h"

#include <gtest/gtest.h>

#include <cfloat>
#include <cmath>

#include "platform/fakes/fake_bus.h"

namespace orvex::platform {
namespace {

/// GeoClue2, the bus's own service and the permission store, as the location sees them.
class GeoClueLocationTest : public testing::Test {
protected:
    GeoClueLocationTest() {
        system.addService("org.freedesktop.DBus", [this](BusCall call) {
            if (call.member == "GetNameOwner") return call.reply.answer({owner});
            const bool listed = call.member == "ListActivatableNames" && activatable;
            BusArray names{.elementSignature = "s", .items = {}};
            if (listed) names.items.emplace_back("org.freedesktop.GeoClue2");
            call.reply.answer({std::move(names)});
        });
        system.addService("org.freedesktop.GeoClue2", [this](BusCall call) {
            calls.push_back(call.member);
            if (call.member == "GetClient") return call.reply.answer({BusObjectPath{"/client/1"}});
            if (call.member == "GetAll") return call.reply.answer({properties});
            if (call.member == "Start" && !startError.empty()) return call.reply.fail(startError, "no");
            call.reply.answer({});
        });
        session.addService("org.freedesktop.impl.portal.PermissionStore",
                           [](BusCall call) { call.reply.answer({permissions("EXACT"), "data"}); });
    }

    static BusDictionary permissions(const char* accuracy) {
        BusDictionary byApplication{.valueSignature = "as", .entries = {}};
        byApplication.set("com.kelvar.gazel", BusArray{.elementSignature = "s", .items = {accuracy, "0"}});
        return byApplication;
    }
    void dieAndComeBack() { system.vanish(std::exchange(owner, ":1.8")); }
    void start() {
        service = GeoClueLocation::create({.system = &system, .session = session});
        service->setHandlers(
            {.didUpdateLocations = [this](const auto& locations) { found.push_back(locations.back()); },
             .didChangeAuthorizationStatus = [this](auto status) { statuses.push_back(status); },
             .didFail = [this](const Failure& failure) { failures.push_back(failure.text); }});
        service->startUpdating();
    }
    std::int32_t typeFor(double accuracy, double altitude, double speed) {
        properties = {};
        properties.set("Latitude", 52.5).set("Longitude", 13.4).set("Accuracy", accuracy);
        properties.set("Altitude", altitude).set("Speed", speed);
        system.emitSignal("org.freedesktop.GeoClue2", "/client/1", "org.freedesktop.GeoClue2.Client", "LocationUpdated",
                          {BusObjectPath{"/"}, BusObjectPath{"/location/1"}});
        return found.back().type;
    }

    FakeBus system, session;
    bool activatable = true;
    std::string owner = ":1.7";  ///< of the service's name
    std::string startError;
    BusDictionary properties;
    std::vector<std::string> calls;
    std::vector<Location> found;
    std::vector<LocationAuthorization> statuses;
    std::vector<std::string> failures;
    std::shared_ptr<GeoClueLocation> service;
};

TEST_F(GeoClueLocationTest, WhatFoundALocationIsInferred) {
    start();
    EXPECT_EQ(service->authorizationStatus(), LocationAuthorization::always);
    EXPECT_EQ(calls, (std::vector<std::string>{"GetClient", "Set", "Set", "Start"}));
    EXPECT_EQ(typeFor(10, 34, -1), 1);
    EXPECT_EQ(typeFor(10, -DBL_MAX, 0), 1);
    EXPECT_EQ(typeFor(10, -DBL_MAX, -1), 4);
    EXPECT_EQ(typeFor(999, 34, 1), 4);
    EXPECT_EQ(typeFor(25'000, -DBL_MAX, -1), 6);
    EXPECT_EQ(found.back().latitude, 52.5);
    properties = {};
    service->stopUpdating();
    EXPECT_EQ(calls.back(), "Stop");
    system.emitSignal("org.freedesktop.GeoClue2", "/client/1", "org.freedesktop.GeoClue2.Client", "LocationUpdated",
                      {BusObjectPath{"/"}, BusObjectPath{"/location/1"}});
    EXPECT_EQ(found.size(), 5u);
}

TEST_F(GeoClueLocationTest, WithoutTheServiceNobodyMayLocate) {
    activatable = false;
    start();
    EXPECT_EQ(service->authorizationStatus(), LocationAuthorization::denied);
    EXPECT_TRUE(calls.empty());
    EXPECT_EQ(GeoClueLocation::create({.system = nullptr, .session = session})->authorizationStatus(),
              LocationAuthorization::denied);
}

TEST_F(GeoClueLocationTest, ADenialHoldsUntilTheServiceIsAnother) {
    startError = bus_error::accessDenied;
    start();
    EXPECT_EQ(statuses, (std::vector{LocationAuthorization::denied}));
    EXPECT_EQ(failures.size(), 1u);
    dieAndComeBack();
    EXPECT_EQ(statuses.back(), LocationAuthorization::always);
    startError.clear();
    service->startUpdating();
    EXPECT_EQ(typeFor(10, 34, -1), 1);
}

TEST_F(GeoClueLocationTest, ThePermissionStoreSaysWhetherGazelMayLocate) {
    start();
    EXPECT_EQ(service->gazelAuthorizationStatus(), LocationAuthorization::whenInUse);
    session.emitSignal("org.freedesktop.impl.portal.PermissionStore", "/org/freedesktop/impl/portal/PermissionStore",
                       "org.freedesktop.impl.portal.PermissionStore", "Changed",
                       {"location", "location", false, "data", permissions("NONE")});
    EXPECT_EQ(service->gazelAuthorizationStatus(), LocationAuthorization::denied);
}

}  // namespace
}  // namespace orvex::platform
