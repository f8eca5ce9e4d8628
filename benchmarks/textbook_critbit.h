#pragma once

#include <cstdint>
#include <cstdlib>
#include <cstring>

/// A crit-bit tree as textbooks print it, on malloc: the floor that ours is measured against. Insertion and the walk
/// over a prefix only.
namespace orvex::textbook {

struct Tree {
    void* root = nullptr;
};

struct Node {
    void* child[2];
    std::uint32_t byte;
    std::uint8_t otherbits;
};

inline bool isNode(const void* p) { return (reinterpret_cast<std::uintptr_t>(p) & 1) != 0; }
inline Node* nodeAt(void* p) { return reinterpret_cast<Node*>(static_cast<char*>(p) - 1); }

inline int direction(const Node* node, const std::uint8_t* key, std::size_t length) {
    const std::uint8_t c = node->byte < length ? key[node->byte] : 0;
    return (1 + (node->otherbits | c)) >> 8;
}

inline bool insert(Tree* tree, const char* text) {
    const std::size_t length = std::strlen(text);
    const auto* key = reinterpret_cast<const std::uint8_t*>(text);
    if (tree->root == nullptr) return (tree->root = strdup(text)) != nullptr;
    void* p = tree->root;
    while (isNode(p)) p = nodeAt(p)->child[direction(nodeAt(p), key, length)];
    const auto* old = static_cast<const std::uint8_t*>(p);
    std::uint32_t at = 0;
    while (at < length && old[at] == key[at]) ++at;
    if (old[at] == key[at]) return true;
    std::uint32_t bits = old[at] ^ key[at];
    bits |= bits >> 1;
    bits |= bits >> 2;
    bits |= bits >> 4;
    const auto otherbits = static_cast<std::uint8_t>((bits & ~(bits >> 1)) ^ 255);
    const int side = (1 + (otherbits | old[at])) >> 8;
    auto* node = static_cast<Node*>(std::malloc(sizeof(Node)));
    char* copy = strdup(text);
    if (node == nullptr || copy == nullptr) std::abort();
    node->byte = at;
    node->otherbits = otherbits;
    node->child[1 - side] = copy;
    void** where = &tree->root;
    while (isNode(*where)) {
        Node* next = nodeAt(*where);
        if (next->byte > at || (next->byte == at && next->otherbits > otherbits)) break;
        where = &next->child[direction(next, key, length)];
    }
    node->child[side] = *where;
    *where = reinterpret_cast<char*>(node) + 1;
    return true;
}

template <class Visit>
int traverse(void* top, Visit& visit) {
    if (!isNode(top)) return visit(static_cast<const char*>(top));
    for (void* child : nodeAt(top)->child)
        if (const int verdict = traverse(child, visit); verdict != 1) return verdict;
    return 1;
}

template <class Visit>
int allprefixed(Tree* tree, const char* prefix, Visit visit) {
    if (tree->root == nullptr) return 1;
    const std::size_t length = std::strlen(prefix);
    void* p = tree->root;
    void* top = p;
    while (isNode(p)) {
        const Node* node = nodeAt(p);
        p = node->child[direction(node, reinterpret_cast<const std::uint8_t*>(prefix), length)];
        if (node->byte < length) top = p;
    }
    if (std::strncmp(static_cast<const char*>(p), prefix, length) != 0) return 1;
    return traverse(top, visit);
}

inline void clear(void* top) {
    if (isNode(top)) {
        clear(nodeAt(top)->child[0]);
        clear(nodeAt(top)->child[1]);
        std::free(nodeAt(top));
    } else {
        std::free(top);
    }
}

}  // namespace orvex::textbook
