// Set of unsigned integer keys by open addressing, and the prime table sizes
// it uses.
//
// Layout: one array of `bucketCount()` keys, a prime, on the core byte
// allocator. The home slot of key k is k mod bucketCount(); collisions probe
// linearly (home, home+1, … wrapping around). An empty slot holds the largest
// value of K; that value itself is kept outside the table in a flag, so every
// key of K can be stored. Deletion shifts the following entries of the probe
// run back into the hole (Knuth's Algorithm R), so there are no tombstones:
// lookups never slow down however many inserts and erases a reused set sees.
//
// The load stays at most one half: reserve(n) guarantees that n keys fit
// without a rehash, and a growing set roughly doubles its table. clear() keeps
// the table, so a set reused from step to step stops allocating once it has
// seen its largest size.
#pragma once

#include <kiv/ByteAllocator.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <iterator>
#include <limits>
#include <type_traits>
#include <utility>

namespace kiv {

// Smallest prime ≥ n (2 for n ≤ 2); 0 when no 64-bit prime is ≥ n
// (n > 18446744073709551557). Exact for every 64-bit n: trial division by the
// small primes, then a deterministic Miller–Rabin test.
unsigned long nextPrime(unsigned long n) noexcept;

template <typename K>
class HashSet {
    static_assert(std::is_integral<K>::value && std::is_unsigned<K>::value, "HashSet holds unsigned keys");

public:
    static constexpr K kEmpty = std::numeric_limits<K>::max();

    // Forward iterator over the members, in table order; the key kEmpty, when
    // present, comes last. Insert and erase invalidate iterators.
    class const_iterator {
    public:
        using iterator_category = std::forward_iterator_tag;
        using value_type = K;
        using difference_type = std::ptrdiff_t;
        using pointer = const K*;
        using reference = K;

        const_iterator() noexcept = default;
        K operator*() const noexcept { return pos_ < set_->buckets_ ? set_->slots_[pos_] : kEmpty; }
        const_iterator& operator++() noexcept {
            ++pos_;
            skip();
            return *this;
        }
        const_iterator operator++(int) noexcept {
            const_iterator old = *this;
            ++*this;
            return old;
        }
        bool operator==(const const_iterator& o) const noexcept { return pos_ == o.pos_; }
        bool operator!=(const const_iterator& o) const noexcept { return pos_ != o.pos_; }

    private:
        friend class HashSet;
        // pos_ < buckets_: a slot; == buckets_: the key kEmpty; buckets_ + 1: end.
        const_iterator(const HashSet* set, std::size_t pos) noexcept : set_(set), pos_(pos) { skip(); }
        void skip() noexcept {
            while (pos_ < set_->buckets_ && set_->slots_[pos_] == kEmpty) ++pos_;
            if (pos_ == set_->buckets_ && !set_->hasEmptyKey_) ++pos_;
        }
        const HashSet* set_ = nullptr;
        std::size_t pos_ = 0;
    };
    using iterator = const_iterator;

    HashSet() noexcept = default;
    explicit HashSet(std::size_t n) { reserve(n); }
    HashSet(const HashSet& other) { *this = other; }
    HashSet(HashSet&& other) noexcept { swap(other); }
    ~HashSet() { release(); }

    // Copies the members; reuses this set's table when the other's fits in it
    // with the same bucket count, else takes a table of the other's size.
    HashSet& operator=(const HashSet& other) {
        if (this == &other) return *this;
        if (buckets_ != other.buckets_) {
            K* fresh = other.buckets_ ? allocateArray<K>(other.buckets_) : nullptr;
            release();
            slots_ = fresh;
            buckets_ = other.buckets_;
        }
        if (buckets_) std::memcpy(slots_, other.slots_, buckets_ * sizeof(K));
        inTable_ = other.inTable_;
        hasEmptyKey_ = other.hasEmptyKey_;
        return *this;
    }
    HashSet& operator=(HashSet&& other) noexcept {
        if (this != &other) {
            release();
            swap(other);
        }
        return *this;
    }

    void swap(HashSet& other) noexcept {
        std::swap(slots_, other.slots_);
        std::swap(buckets_, other.buckets_);
        std::swap(inTable_, other.inTable_);
        std::swap(hasEmptyKey_, other.hasEmptyKey_);
    }

    std::size_t size() const noexcept { return inTable_ + (hasEmptyKey_ ? 1 : 0); }
    bool empty() const noexcept { return size() == 0; }
    // Keys that fit without a rehash (kEmpty needs no slot and always fits).
    std::size_t capacity() const noexcept { return buckets_ / 2; }
    // Length of the table, a prime (0 before the first insert or reserve).
    std::size_t bucketCount() const noexcept { return buckets_; }

    const_iterator begin() const noexcept { return const_iterator(this, 0); }
    const_iterator end() const noexcept { return const_iterator(this, buckets_ + 1); }

    bool contains(K key) const noexcept {
        if (key == kEmpty) return hasEmptyKey_;
        if (buckets_ == 0) return false;
        for (std::size_t i = home(key);; i = next(i)) {
            const K s = slots_[i];
            if (s == key) return true;
            if (s == kEmpty) return false;
        }
    }

    // Adds `key`; returns whether it was new. May rehash (allocate) only when
    // the set holds capacity() keys already.
    bool insert(K key) {
        if (key == kEmpty) {
            const bool fresh = !hasEmptyKey_;
            hasEmptyKey_ = true;
            return fresh;
        }
        if (buckets_ != 0) {
            std::size_t i = home(key);
            for (;; i = next(i)) {
                const K s = slots_[i];
                if (s == key) return false;
                if (s == kEmpty) break;
            }
            if (inTable_ < capacity()) {
                slots_[i] = key;
                ++inTable_;
                return true;
            }
        }
        rehash(nextPrime(2 * buckets_ + 1 > 11 ? 2 * buckets_ + 1 : 11));
        place(key);
        ++inTable_;
        return true;
    }

    // Removes `key`; returns whether it was a member. Never allocates.
    bool erase(K key) noexcept {
        if (key == kEmpty) {
            const bool was = hasEmptyKey_;
            hasEmptyKey_ = false;
            return was;
        }
        if (buckets_ == 0) return false;
        std::size_t hole = home(key);
        for (;; hole = next(hole)) {
            const K s = slots_[hole];
            if (s == key) break;
            if (s == kEmpty) return false;
        }
        // Backward shift: an entry j of the run after the hole moves into the
        // hole unless its home lies cyclically in (hole, j], where moving it
        // would put it before its home and make it unreachable.
        for (std::size_t j = next(hole);; j = next(j)) {
            const K s = slots_[j];
            if (s == kEmpty) break;
            const std::size_t h = home(s);
            const bool stays = hole <= j ? (hole < h && h <= j) : (hole < h || h <= j);
            if (stays) continue;
            slots_[hole] = s;
            hole = j;
        }
        slots_[hole] = kEmpty;
        --inTable_;
        return true;
    }

    // Forgets the members, keeps the table (O(bucketCount())).
    void clear() noexcept {
        if (buckets_) std::memset(static_cast<void*>(slots_), 0xFF, buckets_ * sizeof(K));
        inTable_ = 0;
        hasEmptyKey_ = false;
    }

    // Makes room for n keys without a rehash; never shrinks.
    // Throws std::bad_alloc when no table can hold n keys.
    void reserve(std::size_t n) {
        if (n > capacity()) rehash(n > static_cast<std::size_t>(-1) / 4 ? 0 : nextPrime(2 * n + 1));
    }

    // Frees the table; the set becomes empty with capacity 0.
    void release() noexcept {
        if (slots_) deallocateArray(slots_, buckets_);
        slots_ = nullptr;
        buckets_ = inTable_ = 0;
        hasEmptyKey_ = false;
    }

private:
    // k mod bucketCount(), by a 32-bit division whenever both fit (several
    // times faster than a 64-bit one on many processors).
    std::size_t home(K key) const noexcept {
        const std::uint64_t k = key;
        if (((k | buckets_) >> 32) == 0)
            return static_cast<std::uint32_t>(k) % static_cast<std::uint32_t>(buckets_);
        return static_cast<std::size_t>(k % buckets_);
    }
    std::size_t next(std::size_t i) const noexcept { return i + 1 == buckets_ ? 0 : i + 1; }

    // Stores a key known to be absent into a table with a free slot.
    void place(K key) noexcept {
        std::size_t i = home(key);
        while (slots_[i] != kEmpty) i = next(i);
        slots_[i] = key;
    }

    // Moves the members into a fresh table of `buckets` slots (≥ 2·inTable_+1).
    // A count of 0 stands for a table too large to represent (std::bad_alloc).
    void rehash(std::size_t buckets) {
        K* fresh = allocateArray<K>(buckets != 0 ? buckets : static_cast<std::size_t>(-1));
        std::memset(static_cast<void*>(fresh), 0xFF, buckets * sizeof(K));
        K* old = slots_;
        const std::size_t oldBuckets = buckets_;
        slots_ = fresh;
        buckets_ = buckets;
        for (std::size_t i = 0; i < oldBuckets; ++i) {
            if (old[i] != kEmpty) place(old[i]);
        }
        if (old) deallocateArray(old, oldBuckets);
    }

    K* slots_ = nullptr;
    std::size_t buckets_ = 0;
    std::size_t inTable_ = 0;  // members stored in slots_ (all but kEmpty)
    bool hasEmptyKey_ = false;
};

}  // namespace kiv
