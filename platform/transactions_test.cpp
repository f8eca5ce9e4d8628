#include "platform/transactions.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "platform/fakes/manual_dispatcher.h"

namespace orvex::platform {
namespace {

using namespace std::chrono_literals;

class TransactionsTest : public testing::Test {
protected:
    ManualDispatcher time;
    std::shared_ptr<Transactions> transactions = std::make_shared<Transactions>(time);
    using Names = std::vector<std::string>;
};

TEST_F(TransactionsTest, IdleIsCountedFromTheEndOfTheLast) {
    EXPECT_EQ(transactions->idleSince(), time.now());
    auto first = transactions->begin("search");
    auto second = transactions->begin("connection");
    auto third = transactions->begin("search");
    EXPECT_EQ(transactions->openNames(), (Names{"connection", "search", "search"}));
    EXPECT_FALSE(transactions->idleSince().has_value());
    time.advance(5s);
    first.end();
    second.end();
    second.end();  // once is enough
    EXPECT_EQ(transactions->count(), 1u);
    EXPECT_FALSE(transactions->idleSince().has_value());
    third.end();
    const auto ended = time.now();
    time.advance(5s);
    EXPECT_EQ(transactions->idleSince(), ended);
}

TEST_F(TransactionsTest, MovingKeepsItOpenAndAssigningEndsTheEarlier) {
    Transaction kept;
    EXPECT_FALSE(kept.open());
    {
        Transaction made = transactions->begin("first");
        kept = std::move(made);
    }
    EXPECT_TRUE(kept.open());
    EXPECT_EQ(transactions->openNames(), Names{"first"});
    kept = transactions->begin("second");
    EXPECT_EQ(transactions->openNames(), Names{"second"});
    transactions.reset();
    kept.end();  // it holds its registry
}

TEST_F(TransactionsTest, TheHandlerHearsTheFirstAndTheLastAndMayAskBack) {
    std::vector<bool> heard;
    transactions->setIdleHandler([this, &heard](bool idle) {
        heard.push_back(idle);
        EXPECT_EQ(transactions->idleSince().has_value(), idle);
    });
    {
        const auto outer = transactions->begin("outer");
        const auto inner = transactions->begin("inner");
    }
    EXPECT_EQ(heard, (std::vector{false, true}));
}

}  // namespace
}  // namespace orvex::platform
