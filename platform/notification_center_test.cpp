#include "platform/notification_center.h"

#include <gtest/gtest.h>

#include <atomic>
#include <latch>
#include <string>
#include <thread>
#include <vector>

namespace orvex::platform {
namespace {

struct BagChanged {
    int number = 0;
};
struct LocaleChanged {};

struct Observer {
    std::vector<int> heard;
    void bagChanged(const BagChanged& change) { heard.push_back(change.number); }
};

class NotificationCenterTest : public testing::Test {
protected:
    void observe(const std::shared_ptr<Observer>& observer) {
        center.observe<BagChanged>(observer, &Observer::bagChanged);
    }
    void post(int number) { center.post(BagChanged{number}); }

    NotificationCenter center;
    std::shared_ptr<Observer> observer = std::make_shared<Observer>();
};

TEST_F(NotificationCenterTest, DeliversByTypeInTheOrderOfRegistrationOnThePostingThread) {
    std::string order;
    for (const char letter : {'a', 'b', 'c'}) {
        center.observe<BagChanged>(observer, [&order, letter, here = std::this_thread::get_id()](auto&, const auto&) {
            EXPECT_EQ(std::this_thread::get_id(), here);
            order += letter;
        });
    }
    center.post(LocaleChanged{});
    EXPECT_EQ(order, "");
    post(1);
    EXPECT_EQ(order, "abc");
}

TEST_F(NotificationCenterTest, RegisteringTwiceDeliversTwiceAndRemovalTakesBoth) {
    observe(observer);
    observe(observer);
    center.observe<LocaleChanged>(observer, [](Observer& heard, const LocaleChanged&) { heard.heard.push_back(-1); });
    post(1);
    EXPECT_EQ(observer->heard, (std::vector{1, 1}));
    center.removeObserver<BagChanged>(observer.get());
    post(2);
    center.post(LocaleChanged{});
    EXPECT_EQ(observer->heard, (std::vector{1, 1, -1}));
    center.removeObserver(observer.get());
    center.post(LocaleChanged{});
    EXPECT_EQ(observer->heard.size(), 3u);
}

TEST_F(NotificationCenterTest, AnObserverThatIsGoneHearsNothingAndLetsItsHandlerGo) {
    auto held = std::make_shared<int>();
    center.observe<BagChanged>(observer, [held](auto&, const auto&) { FAIL(); });
    observer.reset();
    post(1);
    EXPECT_EQ(held.use_count(), 1);
}

TEST_F(NotificationCenterTest, ADeliveryMayRegisterRemoveAndPost) {
    auto late = std::make_shared<Observer>();
    center.observe<BagChanged>(observer, [&](Observer& self, const BagChanged& change) {
        self.bagChanged(change);
        if (change.number != 1) return;
        observe(late);  // does not hear this one
        center.removeObserver(&self);
        post(2);
    });
    auto removed = std::make_shared<Observer>();
    center.observe<BagChanged>(observer, [&](auto&, const auto&) { center.removeObserver(removed.get()); });
    observe(removed);
    post(1);
    EXPECT_EQ(observer->heard, std::vector{1});
    EXPECT_EQ(late->heard, std::vector{2});
}

TEST_F(NotificationCenterTest, AnObserverMayBeRemovedByItsOwnEndWithinADelivery) {
    struct RemovesItself {
        NotificationCenter& center;
        ~RemovesItself() { center.removeObserver(this); }
    };
    auto own = std::make_shared<RemovesItself>(center);
    std::weak_ptr<RemovesItself> seen = own;
    center.observe<BagChanged>(own, [&own](auto&, const auto&) { own.reset(); });
    post(1);
    EXPECT_TRUE(seen.expired());
}

TEST_F(NotificationCenterTest, RemovalWaitsForADeliveryOnAnotherThread) {
    std::latch inside(1);
    std::atomic<bool> over = false, removing = false;
    center.observe<BagChanged>(observer, [&](auto&, const auto&) {
        inside.count_down();
        while (!removing) std::this_thread::yield();
        for (int turn = 0; turn < 100; ++turn) std::this_thread::yield();  // gives a hasty removal its chance
        over = true;
    });
    std::jthread posting([this] { post(1); });
    inside.wait();
    removing = true;
    center.removeObserver(observer.get());
    EXPECT_TRUE(over);
}

TEST_F(NotificationCenterTest, AfterRemovalNothingIsDeliveredHoweverManyPost) {
    std::atomic<bool> posting = true;
    {
        std::vector<std::jthread> posters;
        for (int poster = 0; poster < 2; ++poster) {
            posters.emplace_back([&] {
                while (posting) post(1);
            });
        }
        for (int round = 0; round < 300; ++round) {
            auto alive = std::make_shared<std::atomic<bool>>(true);
            auto own = std::make_shared<Observer>();
            center.observe<BagChanged>(own, [alive](auto&, const auto&) { EXPECT_TRUE(*alive); });
            center.removeObserver(own.get());
            *alive = false;
        }
        posting = false;
    }
}

}  // namespace
}  // namespace orvex::platform
