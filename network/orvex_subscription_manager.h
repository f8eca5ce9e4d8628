#pragma once

#include <boost/json/array.hpp>
#include <memory>
#include <string>

#include "network/subscriptions_file.h"
#include "platform/dispatch.h"
#include "platform/thread_annotations.h"

namespace orvex {

class Assembly;
class ORXBag;

/// Called on the subscription manager's queue.
class OrvexSubscriptionManagerDelegate {
public:
    virtual ~OrvexSubscriptionManagerDelegate() = default;
    virtual void didUpdateSubscriptionDictionaries(const boost::json::array& dictionaries) = 0;
    virtual void didUpdateStorefrontIdentifier(const std::string& identifier) = 0;
};

/// The user's subscriptions as far as the bag wants to know of them, and the media storefront. Worked out anew when the
/// subscriptions or the bag change; a bag that does not say which providers it wants gets none.
///
/// Threading: callable from any thread; the work is done on a queue of its own, the first of it when threads run.
class OrvexSubscriptionManager : public std::enable_shared_from_this<OrvexSubscriptionManager> {
public:
    /// `delegate` is held weakly.
    static std::shared_ptr<OrvexSubscriptionManager> create(Assembly& assembly,
                                                            std::weak_ptr<OrvexSubscriptionManagerDelegate> delegate);
    ~OrvexSubscriptionManager();
    OrvexSubscriptionManager(const OrvexSubscriptionManager&) = delete;
    OrvexSubscriptionManager& operator=(const OrvexSubscriptionManager&) = delete;

    [[nodiscard]] boost::json::array subscriptions() const;

private:
    OrvexSubscriptionManager(Assembly& assembly, std::weak_ptr<OrvexSubscriptionManagerDelegate> delegate);

    void _sourceChanged();
    void _bagChanged(std::shared_ptr<const ORXBag> bag);
    void _readSource() ORX_REQUIRES(_queue);
    void _updateSubscriptions() ORX_REQUIRES(_queue);
    [[nodiscard]] boost::json::array _wanted(const ORXBag& bag) const ORX_REQUIRES(_queue);

    // Constant after construction.
    Assembly& _assembly;
    const std::weak_ptr<OrvexSubscriptionManagerDelegate> _delegate;

    // Synchronised by itself.
    mutable platform::SerialQueue _queue;

    // On the queue.
    std::shared_ptr<const ORXBag> _bag ORX_GUARDED_BY(_queue);
    Subscriptions _source ORX_GUARDED_BY(_queue);
    boost::json::array _subscriptions ORX_GUARDED_BY(_queue);
};

}  // namespace orvex
