// The library's chained hash table with integer keys, used for context items,
// the thread list and the call-site tables.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace zvs::zvlib {

template <class Key, class Value>
class SparseArray {
public:
    struct Node {
        Node* next;
        Value value;
        Key key;
    };

    static constexpr size_t kInitialMask = 255;
    static constexpr size_t kNodesPerBlock = 168;

    SparseArray() : buckets_(kInitialMask + 1, nullptr) {}
    ~SparseArray() {
        for (Node* block : blocks_) delete[] block;
    }
    SparseArray(const SparseArray&) = delete;
    SparseArray& operator=(const SparseArray&) = delete;

    size_t size() const { return count_; }
    size_t mask() const { return mask_; }

    Node* find(Key key) const {
        for (Node* n = buckets_[bucketOf(key)]; n; n = n->next)
            if (n->key == key) return n;
        return nullptr;
    }

    // Returns the key's node, creating it (with a value-initialised value)
    // at the end of its chain when absent. Grows once the count passes the mask.
    Node* insert(Key key, bool* created = nullptr) {
        Node** link = &buckets_[bucketOf(key)];
        for (; *link; link = &(*link)->next) {
            if ((*link)->key == key) {
                if (created) *created = false;
                return *link;
            }
        }
        Node* n = allocate();
        n->next = nullptr;
        n->value = Value();
        n->key = key;
        *link = n;
        ++count_;
        if (created) *created = true;
        if (count_ > mask_) grow();
        return n;
    }

    bool remove(Key key, Value* removed = nullptr) {
        for (Node** link = &buckets_[bucketOf(key)]; *link; link = &(*link)->next) {
            if ((*link)->key == key) {
                Node* n = *link;
                *link = n->next;
                if (removed) *removed = n->value;
                n->next = free_;
                free_ = n;
                --count_;
                return true;
            }
        }
        return false;
    }

    void clear() {
        for (Node*& head : buckets_) {
            while (head) {
                Node* n = head;
                head = n->next;
                n->next = free_;
                free_ = n;
            }
        }
        count_ = 0;
    }

    // Visits nodes in bucket order, then chain order.
    template <class F>
    void forEach(F&& f) const {
        for (Node* head : buckets_)
            for (Node* n = head; n; n = n->next) f(n->key, n->value);
    }

    // The index-th node in iteration order, or null.
    Node* at(size_t index) const {
        for (Node* head : buckets_)
            for (Node* n = head; n; n = n->next)
                if (index-- == 0) return n;
        return nullptr;
    }

private:
    size_t bucketOf(Key key) const { return static_cast<size_t>(static_cast<uint64_t>(key) & mask_); }

    Node* allocate() {
        if (!free_) {
            Node* block = new Node[kNodesPerBlock];
            blocks_.push_back(block);
            for (size_t i = 0; i < kNodesPerBlock; ++i) {
                block[i].next = free_;
                free_ = &block[i];
            }
        }
        Node* n = free_;
        free_ = n->next;
        return n;
    }

    void grow() {
        size_t newMask = 2 * mask_ + 1;
        std::vector<Node*> fresh(newMask + 1, nullptr);
        for (Node* head : buckets_) {
            while (head) {
                Node* n = head;
                head = n->next;
                size_t b = static_cast<size_t>(static_cast<uint64_t>(n->key) & newMask);
                n->next = fresh[b];
                fresh[b] = n;
            }
        }
        buckets_.swap(fresh);
        mask_ = newMask;
    }

    std::vector<Node*> buckets_;
    std::vector<Node*> blocks_;
    Node* free_ = nullptr;
    size_t mask_ = kInitialMask;
    size_t count_ = 0;
};

}  // namespace zvs::zvlib
