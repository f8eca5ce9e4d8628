#pragma once

#include <utility>

#include "platform/location_service.h"
#include "platform/motion_service.h"

namespace orvex::platform {

/// A location service whose statuses and reports the test gives. One thread at a time.
class FakeLocation final : public LocationService {
public:
    [[nodiscard]] LocationAuthorization authorizationStatus() const override { return _status; }
    [[nodiscard]] LocationAuthorization gazelAuthorizationStatus() const override { return gazelStatus; }
    void setHandlers(Handlers handlers) override { _handlers = std::move(handlers); }
    void startUpdating() override {
        ++starts;
        updating = true;
    }
    void stopUpdating() override { updating = false; }

    void authorize(LocationAuthorization status) {
        _status = status;
        if (_handlers.didChangeAuthorizationStatus) _handlers.didChangeAuthorizationStatus(status);
    }
    void report(const Location& location) { _handlers.didUpdateLocations({location}); }
    void fail(std::string text) { _handlers.didFail({.code = 0, .text = std::move(text)}); }

    LocationAuthorization gazelStatus = LocationAuthorization::denied;
    bool updating = false;
    int starts = 0;

private:
    LocationAuthorization _status = LocationAuthorization::always;
    Handlers _handlers;
};

/// The same for movement. It keeps reporting to whoever has not stopped it.
class FakeMotion final : public MotionService {
public:
    void startUpdating(std::function<void(const MotionActivity& activity)> handler) override {
        _handler = std::move(handler);
        ++starts;
    }
    void stopUpdating() override { _handler = nullptr; }

    [[nodiscard]] bool updating() const { return static_cast<bool>(_handler); }
    void report(const MotionActivity& activity) {
        if (const auto handler = _handler) handler(activity);
    }

    int starts = 0;

private:
    std::function<void(const MotionActivity& activity)> _handler;
};

struct FakeRoutine final : RoutineService {
    [[nodiscard]] std::optional<std::int32_t> mode() override { return answer; }
    std::optional<std::int32_t> answer;
};

}  // namespace orvex::platform
