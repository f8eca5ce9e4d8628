#include "resources/critbit.h"

#include <gtest/gtest.h>

#include <map>
#include <random>
#include <set>
#include <vector>

namespace orvex {
namespace {

/// Memory that runs out after `allowance` allocations, and knows what is still out.
class ScarceMemory final : public std::pmr::memory_resource {
public:
    std::size_t allowance = SIZE_MAX;
    std::size_t blocks = 0;

private:
    void* do_allocate(std::size_t bytes, std::size_t alignment) override {
        if (allowance == 0) throw std::bad_alloc();
        --allowance;
        ++blocks;
        return std::pmr::new_delete_resource()->allocate(bytes, alignment);
    }
    void do_deallocate(void* block, std::size_t bytes, std::size_t alignment) override {
        --blocks;
        std::pmr::new_delete_resource()->deallocate(block, bytes, alignment);
    }
    [[nodiscard]] bool do_is_equal(const memory_resource& other) const noexcept override { return this == &other; }
};

class CritbitTest : public testing::Test {
protected:
    using Keys = std::vector<std::string>;

    CritbitTest() {
        tree.memory = &memory;
        tree.releaseValue = [](void* value) { released.push_back(value); };
        released.clear();
    }
    ~CritbitTest() override {
        critbit_clear(tree);
        EXPECT_EQ(memory.blocks, 0u);
    }

    void* number(std::size_t n) { return values + n; }
    CritbitInsertion insert(const std::string& key, std::size_t value = 0) {
        return critbit_insert(tree, key.c_str(), number(value), CritbitPresent::replace);
    }
    bool contains(const std::string& key) { return critbit_contains(tree, key.c_str()); }
    Keys keys(const char* prefix = "") {
        Keys found;
        const auto visit = [](const char* key, void* context) {
            static_cast<Keys*>(context)->emplace_back(key);
            return 1;
        };
        EXPECT_EQ(critbit_allprefixed(tree, prefix, visit, &found), 1);
        return found;
    }

    static inline std::vector<void*> released;
    char values[1024] = {};
    ScarceMemory memory;
    critbit_tree tree;
};

TEST_F(CritbitTest, ThePrefixWalkSaysHowItEnded) {
    const auto first = [](const char*, void* context) { return *static_cast<int*>(context); };
    int verdict = 0;
    EXPECT_EQ(critbit_allprefixed(tree, "", first, &verdict), 1);
    insert("a");
    EXPECT_EQ(critbit_allprefixed(tree, nullptr, first, &verdict), 1);
    EXPECT_EQ(critbit_allprefixed(tree, "b", first, &verdict), 1);
    EXPECT_EQ(critbit_allprefixed(tree, "a", first, &verdict), 0);
    verdict = 7;
    EXPECT_EQ(critbit_allprefixed(tree, "a", first, &verdict), -1);
}

TEST_F(CritbitTest, APresentKeyIsReplacedOnlyWhenAsked) {
    insert("key", 1);
    EXPECT_EQ(insert("key", 1), CritbitInsertion::unchanged);
    EXPECT_EQ(critbit_insert(tree, "key", number(2), CritbitPresent::keep), CritbitInsertion::present);
    EXPECT_TRUE(released.empty());
    EXPECT_EQ(insert("key", 2), CritbitInsertion::present);
    EXPECT_EQ(released, std::vector<void*>{number(1)});
    void* value = nullptr;
    EXPECT_TRUE(critbit_contains(tree, "key", &value));
    EXPECT_EQ(value, number(2));
    EXPECT_EQ(tree.count, 1u);
}

TEST_F(CritbitTest, WithoutMemoryNothingChanges) {
    memory.allowance = 0;
    EXPECT_EQ(insert("a"), CritbitInsertion::unchanged);
    EXPECT_EQ(tree.root, 0u);
    memory.allowance = 1;
    EXPECT_EQ(insert("a"), CritbitInsertion::added);
    for (std::size_t allowed = 0; allowed < 2; ++allowed) {
        memory.allowance = allowed;
        EXPECT_EQ(insert("b"), CritbitInsertion::unchanged);
        EXPECT_EQ(memory.blocks, 1u);
    }
    EXPECT_EQ(keys(), Keys{"a"});
    memory.allowance = 2;
    EXPECT_EQ(insert("b"), CritbitInsertion::added);
}

// Deeper than a stack, to the left (what waits is forgotten and found again) and to the right.
TEST_F(CritbitTest, ATreeAsDeepAsItsKeysAreLongIsWalkedAndCleared) {
    constexpr std::size_t depth = 3000;
    std::set<std::string> expected;
    for (std::size_t length = 1; length <= depth; ++length) {
        expected.insert(std::string(length, 'm'));
        expected.insert(std::string(length, 'm') + 'z');
        expected.insert(std::string(length, 'm') + 'a');
    }
    for (const auto& key : expected) ASSERT_EQ(insert(key), CritbitInsertion::added);
    EXPECT_EQ(keys(), Keys(expected.begin(), expected.end()));
    critbit_clear(tree);
    EXPECT_EQ(released.size(), expected.size());
    EXPECT_EQ(tree.count, 0u);
}

TEST_F(CritbitTest, RandomOperationsAgreeWithASortedMap) {
    std::mt19937 random(20240607);
    std::map<std::string, void*> model;
    const auto upTo = [&](unsigned limit) { return random() % limit; };
    const auto randomKey = [&] {
        std::string key(upTo(6), 'a');
        for (auto& letter : key) letter = "ab\x01\xFFz"[upTo(5)];
        return key;
    };
    for (int step = 0; step < 1'000'000; ++step) {
        const std::string key = randomKey();
        const auto known = model.find(key);
        const unsigned choice = upTo(100);
        if (choice < 45) {
            void* value = number(upTo(4));
            const auto expected = known == model.end()     ? CritbitInsertion::added
                                  : known->second == value ? CritbitInsertion::unchanged
                                                           : CritbitInsertion::present;
            ASSERT_EQ(critbit_insert(tree, key.c_str(), value, CritbitPresent::replace), expected) << step;
            model[key] = value;
        } else if (choice < 85) {
            ASSERT_EQ(critbit_delete(tree, key.c_str()), model.erase(key) == 1) << step;
        } else if (choice < 99) {
            void* value = nullptr;
            ASSERT_EQ(critbit_contains(tree, key.c_str(), &value), known != model.end()) << step;
            ASSERT_EQ(value, known != model.end() ? known->second : nullptr) << step;
        } else {
            Keys expected;
            for (auto it = model.lower_bound(key); it != model.end() && it->first.starts_with(key); ++it)
                expected.push_back(it->first);
            ASSERT_EQ(keys(key.c_str()), expected) << step;
        }
        if (upTo(100'000) == 0) {
            critbit_clear(tree);
            model.clear();
        }
        released.clear();
        ASSERT_EQ(tree.count, model.size()) << step;
    }
}

TEST(CritbitTreeTest, OwnsItsObjectsUntilTheyAreReplacedOrRemoved) {
    const auto first = std::make_shared<int>(1);
    const auto second = std::make_shared<int>(2);
    CritbitTree<int> tree;
    EXPECT_TRUE(tree.setObject(first, "a"));
    EXPECT_TRUE(tree.setObject(first, "a"));
    EXPECT_EQ(first.use_count(), 2);
    EXPECT_TRUE(tree.setObject(second, "a"));
    EXPECT_EQ(first.use_count(), 1);
    EXPECT_EQ(tree.count(), 1u);
    EXPECT_EQ(tree.objectForKey("a"), second);
    EXPECT_EQ(tree.objectForKey("b"), nullptr);
    EXPECT_TRUE(tree.setObject(first, std::string("b\0c", 3)));
    EXPECT_EQ(tree.objectForKey("b"), first);
    std::vector<std::string> seen;
    tree.keysMatchingPrefix("", [&](std::string_view key, bool& stop) {
        seen.emplace_back(key);
        stop = key == "a";
    });
    EXPECT_EQ(seen, std::vector<std::string>{"a"});
    tree.objectsMatchingPrefix("b", [&](std::string_view key, const auto& object, bool&) {
        EXPECT_EQ(key, "b");
        EXPECT_EQ(object, first);
    });
    EXPECT_TRUE(tree.removeObjectForKey("b"));
    EXPECT_EQ(first.use_count(), 1);
    tree.removeAllObjects();
    EXPECT_EQ(second.use_count(), 1);
    EXPECT_TRUE(tree.setObject(second, "again"));
}

}  // namespace
}  // namespace orvex
