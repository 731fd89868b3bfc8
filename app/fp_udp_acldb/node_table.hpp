// The node table: an open-addressing hash set of node pointers behind three families of exported names.
//
// Kind gives the node and header types, hash(node) and equal(node, node). Two flag bits a bucket tell stored, deleted
// and empty; probing is triangular; a table is rebuilt at 77 % of occupied buckets. The order of buckets is part of the
// interface, and with it the order in which a rebuild moves the nodes. The header is a plain exported structure; this
// class is a view of it.
//
// A header that could not be allocated is a table that stores nothing. A traversal reads the header again after each
// callback, which may remove nodes but not insert any.
#pragma once

#include <bit>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <plx/types.h>

namespace plx::acldb {

// Two flag bits for each of a table's buckets, sixteen buckets a word.
class bucket_flags {
  public:
    explicit bucket_flags(uint32_t *words) : words_(words) {}

    static size_t bytes(uint32_t buckets) { return sizeof(uint32_t) * (buckets < 16 ? 1 : buckets / 16); }

    // All buckets empty; null when memory is short.
    static uint32_t *allocate(uint32_t buckets)
    {
        auto *words = static_cast<uint32_t *>(std::malloc(bytes(buckets)));
        if (words != nullptr)
            std::memset(words, 0xAA, bytes(buckets));
        return words;
    }

    bool empty(uint32_t i) const { return (bits(i) & empty_bit) != 0; }
    bool deleted(uint32_t i) const { return (bits(i) & deleted_bit) != 0; }
    bool stored(uint32_t i) const { return bits(i) == 0; }

    void set_deleted(uint32_t i) { words_[i / 16] |= deleted_bit << shift(i); }
    void set_stored(uint32_t i) { words_[i / 16] &= ~(both_bits << shift(i)); }

  private:
    static constexpr uint32_t deleted_bit = 1;
    static constexpr uint32_t empty_bit = 2;
    static constexpr uint32_t both_bits = 3;

    static uint32_t shift(uint32_t i) { return 2 * (i % 16); }
    uint32_t bits(uint32_t i) const { return (words_[i / 16] >> shift(i)) & both_bits; }

    uint32_t *words_;
};

// The buckets that a key is looked for in, in order. Comes back to the first after all.
class probe {
  public:
    probe(uint32_t hash, uint32_t buckets) : mask_(buckets - 1), first_(hash & mask_), at_(first_) {}
    uint32_t at() const { return at_; }
    uint32_t following() const { return (at_ + step_ + 1) & mask_; }
    bool next() { return (at_ = (at_ + ++step_) & mask_) != first_; }

  private:
    uint32_t mask_;
    uint32_t first_;
    uint32_t at_;
    uint32_t step_ = 0;
};

// What became of a node that was to be stored.
enum class Stored : uint8_t {
    Yes,
    Equal, // a node with an equal key was there already, and stays
    Full   // the table could not grow
};

template <class Kind> class node_table {
    using node = typename Kind::node;
    using table = typename Kind::table;
    using callback = int32_t (*)(node *, void *);

  public:
    explicit node_table(table *t) : t_(t) {}

    uint32_t size() const { return t_ == nullptr ? 0 : t_->size; }

    node *find(const node *key) const
    {
        const uint32_t i = bucket_of(key);
        return i == none ? nullptr : t_->keys[i];
    }

    [[nodiscard]] Stored insert(node &n)
    {
        if (t_ == nullptr || (t_->n_occupied >= t_->upper_bound && !make_room()))
            return find(&n) == nullptr ? Stored::Full : Stored::Equal;
        bucket_flags flags(t_->flags);
        const uint32_t i = bucket_for(n);
        if (flags.stored(i))
            return Stored::Equal;
        t_->keys[i] = &n;
        t_->n_occupied += flags.empty(i) ? 1 : 0;
        ++t_->size;
        flags.set_stored(i);
        return Stored::Yes;
    }

    void remove(const node *key)
    {
        const uint32_t i = bucket_of(key);
        if (i == none)
            return;
        bucket_flags(t_->flags).set_deleted(i);
        --t_->size;
    }

    [[nodiscard]] int32_t traverse(callback cb, uint32_t start, uint32_t count, void *arg)
    {
        if (cb == nullptr)
            return FP_UDP_INVALID;
        const uint64_t end = uint64_t{start} + count;
        for (uint64_t i = start; t_ != nullptr && i < end && i < t_->n_buckets; ++i) {
            const auto bucket = static_cast<uint32_t>(i);
            if (!bucket_flags(t_->flags).stored(bucket))
                continue;
            if (const int32_t rv = cb(t_->keys[bucket], arg); rv != 0)
                return rv;
        }
        return 0;
    }

  private:
    static constexpr uint32_t none = UINT32_MAX;
    static constexpr uint32_t smallest = 4;
    static constexpr uint32_t largest = uint32_t{1} << 31;
    static constexpr double load_limit = 0.77;

    static uint32_t bound_for(uint32_t buckets) { return static_cast<uint32_t>(buckets * load_limit + 0.5); }

    // The bucket of the stored node with an equal key.
    uint32_t bucket_of(const node *key) const
    {
        if (key == nullptr || size() == 0)
            return none;
        const bucket_flags flags(t_->flags);
        probe p(Kind::hash(*key), t_->n_buckets);
        do {
            if (flags.empty(p.at()))
                return none;
            prefetch(p.following());
            if (!flags.deleted(p.at()) && Kind::equal(*t_->keys[p.at()], *key))
                return p.at();
        } while (p.next());
        return none;
    }

    // The bucket that a node goes into: the one of its equal if that is stored, else the last deleted bucket on the way
    // to an empty one, else the empty one.
    uint32_t bucket_for(const node &n) const
    {
        const bucket_flags flags(t_->flags);
        probe p(Kind::hash(n), t_->n_buckets);
        uint32_t deleted = none;
        do {
            if (flags.empty(p.at()))
                return deleted == none ? p.at() : deleted;
            prefetch(p.following());
            if (flags.deleted(p.at()))
                deleted = p.at();
            else if (Kind::equal(*t_->keys[p.at()], n))
                return p.at();
        } while (p.next());
        return deleted;
    }

    [[nodiscard]] bool make_room()
    {
        if (t_->n_buckets > uint64_t{2} * t_->size)
            return rebuild(t_->n_buckets);
        return t_->n_buckets < largest && rebuild(t_->n_buckets < smallest ? smallest : 2 * t_->n_buckets);
    }

    // False when memory is short; the table is then as it was.
    [[nodiscard]] bool rebuild(uint32_t buckets)
    {
        uint32_t *words = bucket_flags::allocate(buckets);
        if (words == nullptr)
            return false;
        if (buckets > t_->n_buckets && !resize_keys(buckets)) {
            std::free(words);
            return false;
        }
        move_all(bucket_flags(words), buckets);
        std::free(t_->flags);
        t_->flags = words;
        t_->n_buckets = buckets;
        t_->n_occupied = t_->size;
        t_->upper_bound = bound_for(buckets);
        return true;
    }

    [[nodiscard]] bool resize_keys(uint32_t buckets)
    {
        if (buckets > SIZE_MAX / sizeof(node *))
            return false;
        auto *keys = static_cast<node **>(std::realloc(static_cast<void *>(t_->keys), buckets * sizeof(node *)));
        if (keys == nullptr)
            return false;
        t_->keys = keys;
        return true;
    }

    // Moves every node to its bucket among `buckets`, in place: a node that stands where another belongs changes places
    // with it and is moved next.
    void move_all(bucket_flags to, uint32_t buckets)
    {
        bucket_flags from(t_->flags);
        for (uint32_t i = 0; i < t_->n_buckets; ++i) {
            prefetch(i + prefetch_distance);
            if (!from.stored(i))
                continue;
            from.set_deleted(i);
            node *moving = t_->keys[i];
            while (moving != nullptr)
                moving = place(moving, from, to, buckets);
        }
    }

    // Puts a node into its bucket and returns the one it displaced.
    node *place(node *n, bucket_flags from, bucket_flags to, uint32_t buckets)
    {
        probe p(Kind::hash(*n), buckets);
        while (!to.empty(p.at()))
            p.next();
        const uint32_t i = p.at();
        to.set_stored(i);
        const bool displaces = i < t_->n_buckets && from.stored(i);
        node *displaced = displaces ? t_->keys[i] : nullptr;
        if (displaces)
            from.set_deleted(i);
        t_->keys[i] = n;
        return displaced;
    }

    // Nodes lie anywhere in memory. A rebuild reads each for its hash, a search those that share its way: asking for
    // the next one early hides most of the wait. Always inline, and so are the kinds' prefetches: GCC takes a function
    // that does nothing else for one without effect and drops the call.
    static constexpr uint32_t prefetch_distance = 16;
    [[gnu::always_inline]] void prefetch(uint32_t i) const
    {
        if (i < t_->n_buckets && bucket_flags(t_->flags).stored(i))
            Kind::prefetch(*t_->keys[i]);
    }

    table *t_;
};

} // namespace plx::acldb
