#include "resources/critbit.h"

#include <array>
#include <cstddef>
#include <cstring>

// Branches lie on each path in the order of their bits: `byte` never falls, and where it stays, the bit does. Bits are
// counted from the highest, so that keys come out in byte order. A branch is found, or a place for a new one, by
// following the key's own bits; bits that no branch asks for are never read. The leaf so found is the only one that can
// have the key, and if it has another one, it is one that shares the longest stretch with it.
//
// `otherbits` is the complement of the critical bit, so that (1 + (otherbits | byte)) >> 8 is that bit: the sum carries
// only when all eight are set.

namespace orvex {
namespace {

using Reference = std::uintptr_t;

struct Branch {
    Reference child[2];
    std::uint32_t byte;
    std::uint8_t otherbits;
};
static_assert(sizeof(Branch) == 24);

/// The head of a leaf's block; the key follows it.
struct Leaf {
    void* value;
    [[nodiscard]] char* key() { return reinterpret_cast<char*>(this + 1); }
};

constexpr std::size_t nodeAlignment = 8;
constexpr Reference branchTag = 1;
static_assert(sizeof(Leaf) == sizeof(void*));
static_assert(alignof(Branch) <= nodeAlignment && alignof(Leaf) <= nodeAlignment);

bool isBranch(Reference reference) { return (reference & branchTag) != 0; }
Branch* branchAt(Reference reference) { return reinterpret_cast<Branch*>(reference - branchTag); }
Leaf* leafAt(Reference reference) { return reinterpret_cast<Leaf*>(reference); }
Reference referenceTo(Branch* branch) { return reinterpret_cast<Reference>(branch) + branchTag; }
Reference referenceTo(Leaf* leaf) { return reinterpret_cast<Reference>(leaf); }

struct Key {
    const char* text;
    std::size_t length;

    explicit Key(const char* key) : text(key), length(std::strlen(key)) {}
    [[nodiscard]] std::uint8_t byteAt(std::size_t index) const {
        return index < length ? static_cast<std::uint8_t>(text[index]) : std::uint8_t{0};
    }
};

unsigned directionOf(std::uint8_t byte, std::uint8_t otherbits) { return (1u + (otherbits | byte)) >> 8; }
unsigned directionAt(const Branch& branch, const Key& key) {
    return directionOf(key.byteAt(branch.byte), branch.otherbits);
}

Leaf* bestMatch(Reference reference, const Key& key) {
    while (isBranch(reference)) {
        const Branch& branch = *branchAt(reference);
        reference = branch.child[directionAt(branch, key)];
    }
    return leafAt(reference);
}

std::size_t leafSize(std::size_t keyLength) {
    return (sizeof(Leaf) + keyLength + 1 + nodeAlignment - 1) / nodeAlignment * nodeAlignment;
}

void* allocate(const critbit_tree& tree, std::size_t size) {
    try {
        return tree.memory->allocate(size, nodeAlignment);
    } catch (const std::bad_alloc&) {
        return nullptr;
    }
}

Leaf* makeLeaf(const critbit_tree& tree, const Key& key, void* value) {
    void* block = allocate(tree, leafSize(key.length));
    if (block == nullptr) return nullptr;
    auto* leaf = new (block) Leaf{value};
    std::memcpy(leaf->key(), key.text, key.length + 1);
    return leaf;
}

Branch* makeBranch(const critbit_tree& tree) {
    void* block = allocate(tree, sizeof(Branch));
    return block == nullptr ? nullptr : new (block) Branch{};
}

void freeLeaf(const critbit_tree& tree, Leaf* leaf) {
    tree.memory->deallocate(leaf, leafSize(std::strlen(leaf->key())), nodeAlignment);
}
void freeBranch(const critbit_tree& tree, Branch* branch) {
    tree.memory->deallocate(branch, sizeof(Branch), nodeAlignment);
}

void release(const critbit_tree& tree, Leaf* leaf) {
    if (tree.releaseValue != nullptr) tree.releaseValue(leaf->value);
    freeLeaf(tree, leaf);
}

/// Where two keys part, the terminating zero of the shorter one included.
struct Difference {
    std::size_t index;
    std::uint8_t otherbits;
    unsigned directionOfOld;
};

/// The keys differ.
Difference differenceBetween(const Key& key, const char* old) {
    std::size_t index = 0;
    while (key.text[index] == old[index]) ++index;
    const auto oldByte = static_cast<std::uint8_t>(old[index]);
    unsigned bits = static_cast<std::uint8_t>(key.text[index]) ^ oldByte;
    bits |= bits >> 1;
    bits |= bits >> 2;
    bits |= bits >> 4;
    const auto otherbits = static_cast<std::uint8_t>((bits & ~(bits >> 1)) ^ 255);
    return {index, otherbits, directionOf(oldByte, otherbits)};
}

/// The slot of the first branch that asks for a later bit than `difference`, or of the leaf.
Reference* slotFor(const Difference& difference, const Key& key, Reference* slot) {
    while (isBranch(*slot)) {
        Branch& branch = *branchAt(*slot);
        if (branch.byte > difference.index) break;
        if (branch.byte == difference.index && branch.otherbits > difference.otherbits) break;
        slot = &branch.child[directionAt(branch, key)];
    }
    return slot;
}

/// The subtrees that a walk has still to visit, the next one last. It keeps the last few dozen; of one that forgot
/// some the rest is found again from the key that was visited last.
class PendingSubtrees {
public:
    void push(Reference subtree) {
        _subtrees[_end++ % _subtrees.size()] = subtree;
        if (_kept == _subtrees.size()) {
            _forgot = true;
        } else {
            ++_kept;
        }
    }
    [[nodiscard]] bool empty() const { return _kept == 0; }
    [[nodiscard]] bool forgot() const { return _forgot; }
    Reference pop() {
        --_kept;
        return _subtrees[--_end % _subtrees.size()];
    }
    void findAgain(Reference top, const Key& visited) {
        *this = PendingSubtrees();
        while (isBranch(top)) {
            const Branch& branch = *branchAt(top);
            const unsigned direction = directionAt(branch, visited);
            if (direction == 0) push(branch.child[1]);
            top = branch.child[direction];
        }
    }

private:
    std::array<Reference, 64> _subtrees;
    std::size_t _end = 0;
    std::size_t _kept = 0;
    bool _forgot = false;
};

int visitAll(Reference top, int (*visit)(const char* key, void* context), void* context) {
    PendingSubtrees pending;
    for (Reference next = top;; next = pending.pop()) {
        while (isBranch(next)) {
            pending.push(branchAt(next)->child[1]);
            next = branchAt(next)->child[0];
        }
        const char* key = leafAt(next)->key();
        if (const int verdict = visit(key, context); verdict != 1) return verdict == 0 ? 0 : -1;
        if (pending.empty() && pending.forgot()) pending.findAgain(top, Key(key));
        if (pending.empty()) return 1;
    }
}

}  // namespace

bool critbit_contains(const critbit_tree& tree, const char* key, void** value) {
    if (tree.root == 0) return false;
    Leaf* leaf = bestMatch(tree.root, Key(key));
    if (std::strcmp(leaf->key(), key) != 0) return false;
    if (value != nullptr) *value = leaf->value;
    return true;
}

CritbitInsertion critbit_insert(critbit_tree& tree, const char* text, void* value, CritbitPresent whenPresent) {
    const Key key(text);
    if (tree.root == 0) {
        Leaf* leaf = makeLeaf(tree, key, value);
        if (leaf == nullptr) return CritbitInsertion::unchanged;
        tree.root = referenceTo(leaf);
        tree.count = 1;
        return CritbitInsertion::added;
    }
    Leaf* match = bestMatch(tree.root, key);
    if (std::strcmp(match->key(), text) == 0) {
        if (match->value == value) return CritbitInsertion::unchanged;
        if (whenPresent == CritbitPresent::replace) {
            void* old = std::exchange(match->value, value);
            if (tree.releaseValue != nullptr) tree.releaseValue(old);
        }
        return CritbitInsertion::present;
    }
    const Difference difference = differenceBetween(key, match->key());
    Leaf* leaf = makeLeaf(tree, key, value);
    Branch* branch = leaf != nullptr ? makeBranch(tree) : nullptr;
    if (branch == nullptr) {
        if (leaf != nullptr) freeLeaf(tree, leaf);
        return CritbitInsertion::unchanged;
    }
    Reference* slot = slotFor(difference, key, &tree.root);
    branch->byte = static_cast<std::uint32_t>(difference.index);
    branch->otherbits = difference.otherbits;
    branch->child[difference.directionOfOld] = *slot;
    branch->child[1 - difference.directionOfOld] = referenceTo(leaf);
    *slot = referenceTo(branch);
    ++tree.count;
    return CritbitInsertion::added;
}

bool critbit_delete(critbit_tree& tree, const char* text) {
    if (tree.root == 0) return false;
    const Key key(text);
    Reference* slot = &tree.root;     // of the leaf
    Reference* branchSlot = nullptr;  // of the branch above it
    unsigned direction = 0;           // of the leaf at that branch
    while (isBranch(*slot)) {
        Branch& branch = *branchAt(*slot);
        branchSlot = slot;
        direction = directionAt(branch, key);
        slot = &branch.child[direction];
    }
    Leaf* leaf = leafAt(*slot);
    if (std::strcmp(leaf->key(), text) != 0) return false;
    if (branchSlot == nullptr) {
        tree.root = 0;
    } else {
        Branch* branch = branchAt(*branchSlot);
        *branchSlot = branch->child[1 - direction];
        freeBranch(tree, branch);
    }
    --tree.count;
    release(tree, leaf);
    return true;
}

// Turns each branch's left subtree up until a leaf is on the left, which goes with its branch: linear time, no stack,
// and the leaves keep their order.
void critbit_clear(critbit_tree& tree) {
    Reference rest = std::exchange(tree.root, 0);
    tree.count = 0;
    while (isBranch(rest)) {
        Branch* branch = branchAt(rest);
        const Reference left = branch->child[0];
        if (isBranch(left)) {
            branch->child[0] = std::exchange(branchAt(left)->child[1], rest);
            rest = left;
        } else {
            release(tree, leafAt(left));
            rest = branch->child[1];
            freeBranch(tree, branch);
        }
    }
    if (rest != 0) release(tree, leafAt(rest));
}

int critbit_allprefixed(const critbit_tree& tree, const char* text, int (*visit)(const char* key, void* context),
                        void* context) {
    if (tree.root == 0 || text == nullptr) return 1;
    const Key prefix(text);
    Reference reference = tree.root;
    Reference top = reference;
    while (isBranch(reference)) {
        const Branch& branch = *branchAt(reference);
        reference = branch.child[directionAt(branch, prefix)];
        if (branch.byte < prefix.length) top = reference;
    }
    if (std::strncmp(leafAt(reference)->key(), text, prefix.length) != 0) return 1;
    return visitAll(top, visit, context);
}

void* critbit_value(const char* visitedKey) {
    void* value = nullptr;
    std::memcpy(&value, visitedKey - sizeof(Leaf), sizeof value);
    return value;
}

}  // namespace orvex
