#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <typeindex>
#include <utility>

namespace orvex::platform {

/// Notifications within the process. A notification is a struct; its type is its name.
///
/// `post` delivers on the posting thread, in the order of registration, with no lock held. Registering twice delivers
/// twice. Observers are held weakly: one that is gone hears nothing and is forgotten. `removeObserver` waits for a
/// delivery to that observer that runs on another thread, never for one on the calling thread itself.
///
/// Threading: callable from any thread, from within a delivery too. An observer registered during a delivery does not
/// hear that notification. Posts on several threads call a handler on several threads at a time. Two deliveries that
/// each remove the other's observer wait for each other for ever.
class NotificationCenter {
public:
    NotificationCenter();
    ~NotificationCenter();
    NotificationCenter(const NotificationCenter&) = delete;
    NotificationCenter& operator=(const NotificationCenter&) = delete;

    /// Calls `handler(observer, notification)` for each `Notification` posted while `observer` lives. The handler must
    /// not keep the observer alive itself: it gets it as its first argument.
    template <class Notification, class Observer, class Handler>
    void observe(const std::shared_ptr<Observer>& observer, Handler handler) {
        std::weak_ptr<void> weak = observer;
        _add(typeid(Notification), std::move(weak), observer.get(),
             [raw = observer.get(), handler = std::move(handler)](const void* notification) mutable {
                 std::invoke(handler, *raw, *static_cast<const Notification*>(notification));
             });
    }

    template <class Notification>
    void post(const Notification& notification) {
        _post(typeid(Notification), &notification);
    }

    /// Removes every registration of `observer`.
    void removeObserver(const void* observer);

    /// Removes the registrations of `observer` for one kind of notification.
    template <class Notification>
    void removeObserver(const void* observer) {
        _remove(typeid(Notification), observer);
    }

private:
    struct Registration;
    struct State;
    using Deliver = std::move_only_function<void(const void* notification)>;

    void _add(std::type_index name, std::weak_ptr<void> observer, const void* key, Deliver deliver);
    void _post(std::type_index name, const void* notification);
    void _remove(std::optional<std::type_index> name, const void* observer);

    std::unique_ptr<State> _state;
};

}  // namespace orvex::platform
