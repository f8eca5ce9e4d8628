#pragma once

#include <cstdint>
#include <memory>
#include <memory_resource>
#include <new>
#include <string>
#include <string_view>
#include <utility>

/// A crit-bit tree: a map from byte strings to pointers that finds every key beginning with a prefix on one path from
/// the root. A branch names the one bit in which the keys below it part (the *critical* bit), so a look-up reads a
/// byte a branch and compares the key once, at the end.
///
/// Plain functions over a record. Keys end at their first zero byte and compare as unsigned bytes. Nothing recurses: a
/// tree may be as deep as its longest key has bits. Threading: one thread at a time; readers may share.
namespace orvex {

struct critbit_tree {
    /// The root's reference, 0 in an empty tree. Bit 0 tells the kinds of node apart: it is set in a reference to a
    /// branch, and clear in one to a leaf, which is the value and then the key with its zero byte.
    std::uintptr_t root = 0;
    std::uint64_t count = 0;
    /// Called on a value that is replaced, deleted or cleared. Null: values need no release.
    void (*releaseValue)(void* value) = nullptr;
    /// Where nodes come from; when it has none left (std::bad_alloc) an insertion is refused and nothing has changed.
    std::pmr::memory_resource* memory = std::pmr::new_delete_resource();
};

enum class CritbitInsertion {
    unchanged = 0,  ///< the key has this very value already, or there is no memory
    present = 1,    ///< the key had another value, which was replaced if that was asked for
    added = 2,
};
enum class CritbitPresent { keep, replace };

/// Gives the value too when `value` is not null.
[[nodiscard]] bool critbit_contains(const critbit_tree& tree, const char* key, void** value = nullptr);
CritbitInsertion critbit_insert(critbit_tree& tree, const char* key, void* value, CritbitPresent whenPresent);
bool critbit_delete(critbit_tree& tree, const char* key);  ///< false: there is no such key
void critbit_clear(critbit_tree& tree);                    ///< releases in the order of the keys

/// Calls `visit` for each key that begins with `prefix`, in byte order, while it returns 1. The result is 1 when all
/// were visited (also when there were none, or `prefix` is null), 0 when `visit` returned 0, -1 for any other value.
/// The tree must not change meanwhile. Needs no memory.
int critbit_allprefixed(const critbit_tree& tree, const char* prefix, int (*visit)(const char* key, void* context),
                        void* context);

/// The value of the key that `visit` was given.
[[nodiscard]] void* critbit_value(const char* visitedKey);

/// The tree as a map that owns shared objects. Threading: one thread at a time.
template <class Object>
class CritbitTree {
public:
    CritbitTree() {
        _tree.releaseValue = [](void* value) { delete static_cast<Held*>(value); };
        _tree.memory = &_nodes;
    }
    ~CritbitTree() { critbit_clear(_tree); }
    CritbitTree(const CritbitTree&) = delete;
    CritbitTree& operator=(const CritbitTree&) = delete;

    /// Replaces what is there. False when there is no memory: nothing has changed.
    bool setObject(std::shared_ptr<Object> object, const std::string& key) {
        if (auto* held = _find(key)) {
            std::swap(*held, object);  // the old one goes when the tree is whole again
            return true;
        }
        auto* held = new (std::nothrow) Held(std::move(object));
        if (held == nullptr) return false;
        if (critbit_insert(_tree, key.c_str(), held, CritbitPresent::replace) == CritbitInsertion::added) return true;
        delete held;
        return false;
    }
    bool removeObjectForKey(const std::string& key) { return critbit_delete(_tree, key.c_str()); }
    void removeAllObjects() {
        critbit_clear(_tree);
        _nodes.release();
    }

    [[nodiscard]] std::shared_ptr<Object> objectForKey(const std::string& key) const {
        const auto* held = _find(key);
        return held != nullptr ? *held : nullptr;
    }

    /// Calls `block(std::string_view key, bool& stop)` for each key, in byte order, until it sets `stop`. The key is
    /// the tree's own: it is valid until it is removed. The tree must not change meanwhile.
    template <class Block>
    void keysMatchingPrefix(const std::string& prefix, Block block) const {
        const auto visit = [](const char* key, void* context) {
            bool stop = false;
            (*static_cast<Block*>(context))(std::string_view(key), stop);
            return stop ? 0 : 1;
        };
        critbit_allprefixed(_tree, prefix.c_str(), visit, &block);
    }

    /// The same with each key's object: `block(std::string_view key, const std::shared_ptr<Object>& object, bool&
    /// stop)`.
    template <class Block>
    void objectsMatchingPrefix(const std::string& prefix, Block block) const {
        keysMatchingPrefix(prefix, [&block](std::string_view key, bool& stop) {
            block(key, *static_cast<const Held*>(critbit_value(key.data())), stop);
        });
    }

    [[nodiscard]] std::uint64_t count() const { return _tree.count; }

private:
    using Held = std::shared_ptr<Object>;

    Held* _find(const std::string& key) const {
        void* value = nullptr;
        return critbit_contains(_tree, key.c_str(), &value) ? static_cast<Held*>(value) : nullptr;
    }

    std::pmr::unsynchronized_pool_resource _nodes;  ///< packs nodes of a size together, which halves cache misses
    critbit_tree _tree;
};

}  // namespace orvex
