// Batched descents for the probes of one join tile and the positions of one
// map tile.  A probe on its own walks three or more pages, each step a cache
// (and TLB) miss that depends on the one before; here up to kBatchGroup
// probes walk down together, a level at a time, and each halving step first
// prefetches the line every probe reads next, so the misses of different
// probes overlap.
//
// Only the plain path is taken: the search's first child choice (child l-1,
// or child 0), the positional walk by counts.  A probe that would need the
// search's second child, or that meets anything a scalar descent reports or
// traps on (a null page, a count below 1, a position past the end, a tree
// deeper than a scan stack, a page of another kind), is left unresolved; the
// caller runs the scalar step for it, in sequence, which also writes the
// iterator's stack.  The batch itself writes nothing but its outputs, and
// takes the same halving midpoints as the scalar search, so it gives the same
// answers even over data that is not in the declared order.
#pragma once

#include "iter/search.h"
#include "storage/page_format.h"

namespace velseq {

inline constexpr int kBatchGroup = 16;

inline void prefetch(const void *p) { __builtin_prefetch(p, 0, 3); }

// Join: for each of the n values at `vals` (element size e.size()), the
// position of the first element not before it (inclusive bound, `order`)
// into out[i] with ok[i] = 1, or ok[i] = 0 when the scalar search must
// decide.
template <class E>
void join_batch(const E &e, vel_seq_page_t *root, int32_t page_size, const byte *vals, uint64_t n,
                vel_seq_order_t order, vel_seq_no_t *out, uint8_t *ok) {
    const size_t s = e.size();
    struct Prefix {
        vel_seq_page_t *page = nullptr;
        int child = 0;
        vel_seq_count_t sum = 0; // counts of entries 0..child-1
    };
    Prefix prefix[kMaxLevel + 1];
    for (uint64_t g = 0; g < n; g += kBatchGroup) {
        const int m = static_cast<int>(n - g < kBatchGroup ? n - g : kBatchGroup);
        vel_seq_page_t *pg[kBatchGroup];
        vel_seq_no_t pos[kBatchGroup];
        int32_t lo[kBatchGroup], hi[kBatchGroup];
        bool live[kBatchGroup];
        const byte *val[kBatchGroup];
        for (int i = 0; i < m; i++) {
            pg[i] = root;
            pos[i] = 0;
            live[i] = true;
            val[i] = vals + (g + static_cast<uint64_t>(i)) * s;
            ok[g + static_cast<uint64_t>(i)] = 0;
        }
        for (int level = 0; level <= kMaxLevel; level++) {
            for (int i = 0; i < m; i++) {
                if (!live[i])
                    continue;
                if (pg[i] == nullptr) {
                    live[i] = false;
                    continue;
                }
                prefetch(pg[i]);
            }
            for (int i = 0; i < m; i++) {
                if (!live[i])
                    continue;
                lo[i] = 0;
                hi[i] = pg[i]->hdr.user;
                if (hi[i] < 1)
                    live[i] = false;
            }
            // Halving in lock step.  The probes' steps are independent (selects,
            // not branches: the outcome is a coin toss), so their loads
            // overlap; each step also asks for both lines the probe's next
            // step may read.
            for (bool more = true; more;) {
                more = false;
                for (int i = 0; i < m; i++) {
                    if (!live[i] || lo[i] >= hi[i])
                        continue;
                    const int32_t l = lo[i], r = hi[i], mid = (l + r) / 2;
                    prefetch(page_value(pg[i], s, static_cast<uint64_t>((l + mid) / 2)));
                    prefetch(page_value(pg[i], s, static_cast<uint64_t>((mid + 1 + r) / 2)));
                    const bool b = before_bound(e, page_value(pg[i], s, static_cast<uint64_t>(mid)),
                                                val[i], VEL_SEQ_BOUNDARY_INCLUSIVE, order);
                    lo[i] = b ? mid + 1 : l;
                    hi[i] = b ? r : mid;
                    more |= lo[i] < hi[i];
                }
            }
            bool any = false;
            for (int i = 0; i < m; i++) {
                if (!live[i])
                    continue;
                const int l = lo[i];
                if (page_kind(pg[i]) == kInnerPage) {
                    const int c = l >= 1 ? l - 1 : 0;
                    // Probes of one page in rising order (ascending probes)
                    // extend the last sum instead of starting again.
                    Prefix &p = prefix[level];
                    if (p.page == pg[i] && p.child <= c) {
                        p.sum += count_range(pg[i], page_size, p.child, c);
                    } else {
                        p.sum = count_before(pg[i], page_size, c);
                        p.page = pg[i];
                    }
                    p.child = c;
                    pos[i] += p.sum;
                    pg[i] = inner_entry(pg[i], page_size, c)->page;
                    any = true;
                    continue;
                }
                live[i] = false;
                if (l < pg[i]->hdr.user) {
                    out[g + static_cast<uint64_t>(i)] = pos[i] + static_cast<vel_seq_no_t>(l);
                    ok[g + static_cast<uint64_t>(i)] = 1;
                }
            }
            if (!any)
                break;
        }
    }
}

// The inner pages of one map tile whose entries but the last all hold one
// count k (every page of an appended tree), found by reading those counts
// once.  On such a page the child holding element f is f / k, at f % k in
// it, or the last child when f lies past the others, if it lies inside that
// child's count: the walk's own answer, for any counts, without the walk's
// chain of dependent steps.
struct EvenPages {
    static constexpr int kSlots = 64;
    vel_seq_page_t *page[kSlots] = {};
    vel_seq_count_t k[kSlots] = {}; // the count of the entries but the last; 0: not even

    vel_seq_count_t count(vel_seq_page_t *pg, int32_t page_size, int n) {
        const auto h = static_cast<int>((reinterpret_cast<uintptr_t>(pg) >> 12) % kSlots);
        if (page[h] != pg) {
            page[h] = pg;
            k[h] = even_count(pg, page_size, n);
        }
        return k[h];
    }

    // Reads four counts at a time and stops at the first four that differ.
    static vel_seq_count_t even_count(vel_seq_page_t *pg, int32_t page_size, int n) {
        const vel_seq_node_t *e = inner_entry(pg, page_size, 0);
        const vel_seq_count_t k0 = e[0].count;
        if (k0 == 0 || k0 > ~vel_seq_count_t{0} / static_cast<vel_seq_count_t>(n))
            return 0;
        int j = 1;
        for (; j + 4 <= n - 1; j += 4)
            if (((e[-j].count ^ k0) | (e[-j - 1].count ^ k0) | (e[-j - 2].count ^ k0) |
                 (e[-j - 3].count ^ k0)) != 0)
                return 0;
        for (; j < n - 1; j++)
            if (e[-j].count != k0)
                return 0;
        return k0;
    }
};

// Map: for each i with want[i], the leaf holding element pos[i] and the
// element's index in it (ok[i] = 1), or ok[i] = 0 when the scalar descent
// must decide.  The value's line and its null-mask word are prefetched.
// The positions are taken in the order of `order` (slots), which need not
// be sorted: a walk over an inner page goes on from where the one before
// it on the same page stopped when the position lies at or past that
// child's start (it passes the same entries the walk from the first entry
// would), so that positions in rising order walk each page once.
inline void map_batch(vel_seq_page_t *root, int32_t page_size, size_t elem_size,
                      uint64_t leaf_capacity, const vel_seq_no_t *pos, const uint8_t *want,
                      const uint8_t *order, uint64_t n, vel_seq_page_t **leaf, int32_t *idx,
                      uint8_t *ok) {
    struct Walked {
        vel_seq_page_t *page = nullptr;
        int child = 0;
        vel_seq_no_t before = 0; // the counts of the entries before `child`
    };
    Walked walked[kMaxLevel + 1];
    EvenPages even;
    uint64_t g = 0;
    while (g < n) {
        // Gather up to kBatchGroup wanted positions.
        int slot[kBatchGroup];
        int m = 0;
        for (; g < n && m < kBatchGroup; g++)
            if (want[order[g]]) {
                ok[order[g]] = 0;
                slot[m++] = order[g];
            }
        if (m == 0)
            break;
        vel_seq_page_t *pg[kBatchGroup];
        vel_seq_no_t from[kBatchGroup];
        bool live[kBatchGroup];
        for (int i = 0; i < m; i++) {
            pg[i] = root;
            from[i] = pos[slot[i]];
            live[i] = root != nullptr;
        }
        for (int level = 0; level <= kMaxLevel; level++) {
            bool any = false;
            for (int i = 0; i < m; i++) {
                if (!live[i])
                    continue;
                const int nn = pg[i]->hdr.user;
                if (nn < 1) {
                    live[i] = false;
                    continue;
                }
                if (page_kind(pg[i]) == kInnerPage) {
                    Walked &w = walked[level];
                    const vel_seq_no_t f = from[i];
                    int c;
                    const vel_seq_count_t k = even.count(pg[i], page_size, nn);
                    if (k != 0) {
                        const vel_seq_no_t q = f / k;
                        c = q < static_cast<vel_seq_no_t>(nn - 1) ? static_cast<int>(q) : nn - 1;
                        from[i] = f - static_cast<vel_seq_no_t>(c) * k;
                        if (c == nn - 1) {
                            const vel_seq_count_t last =
                                inner_entry(pg[i], page_size, nn - 1)->count;
                            if (from[i] >= last) { // past the page's end
                                c = nn;
                                from[i] -= last;
                            }
                        }
                    } else if (w.page == pg[i] && f >= w.before) {
                        from[i] = f - w.before;
                        c = child_by_position(pg[i], page_size, nn, &from[i], w.child);
                    } else {
                        c = child_by_position(pg[i], page_size, nn, &from[i]);
                    }
                    w = {pg[i], c, f - from[i]};
                    vel_seq_page_t *child =
                        c < nn ? inner_entry(pg[i], page_size, c)->page : nullptr;
                    pg[i] = child;
                    if (child == nullptr) {
                        live[i] = false;
                        continue;
                    }
                    prefetch(child);
                    if (from[i] < leaf_capacity) { // the child may be the leaf
                        prefetch(page_value(child, elem_size, from[i]));
                        prefetch(leaf_nulls(child, page_size, leaf_capacity) + from[i] / 64);
                    }
                    any = true;
                    continue;
                }
                live[i] = false;
                if (page_kind(pg[i]) == kLeafPage && from[i] < static_cast<vel_seq_no_t>(nn)) {
                    leaf[slot[i]] = pg[i];
                    idx[slot[i]] = static_cast<int32_t>(from[i]);
                    ok[slot[i]] = 1;
                }
            }
            if (!any)
                break;
        }
    }
}

// The path of the last positional descent of a map tile, so that the next
// one (ascending positions leave a leaf for its neighbour) starts where the
// paths part instead of walking the counts from the root again.  A level is
// reused only when the position passes the very test the count walk makes
// there (not before the chosen child's prefix, inside its count), so the
// answer is the walk's own, for any counts; where the position lies beyond
// the chosen child, the walk goes on from the next entry.
struct PathFinger {
    int depth = -1; // leaf level of the path; -1: none yet
    vel_seq_page_t *page[kMaxLevel + 1];
    int child[kMaxLevel + 1];
    vel_seq_no_t before[kMaxLevel + 1]; // counts of the entries before `child`
    vel_seq_count_t count[kMaxLevel + 1];
    vel_seq_page_t *last_leaf = nullptr; // where the last descent that succeeded ended
    int32_t last_idx = 0;

    // The leaf holding `pos` and its index there, as vel_seq_subseq_page
    // would find them; false where that descent would fail or trap.
    bool descend(vel_seq_page_t *root, int32_t page_size, vel_seq_no_t pos, vel_seq_page_t **leaf,
                 int32_t *idx) {
        vel_seq_page_t *pg = root;
        vel_seq_no_t f = pos;
        int level = 0;
        int start = 0;         // entry the walk at `level` starts from
        vel_seq_no_t skip = 0; // counts of the entries before `start`
        for (; level < depth && page[level] == pg; level++) {
            if (f < before[level])
                break;
            const vel_seq_no_t r = f - before[level];
            if (r >= count[level]) { // beyond the chosen child: walk on from the next
                start = child[level] + 1;
                skip = before[level] + count[level];
                break;
            }
            f = r;
            pg = inner_entry(pg, page_size, child[level])->page;
        }
        for (;; level++) {
            if (pg == nullptr || level > kMaxLevel)
                return false;
            const int n = pg->hdr.user;
            if (n < 1)
                return false;
            if (page_kind(pg) == kInnerPage) {
                vel_seq_no_t rel = f - skip;
                const int i = child_by_position(pg, page_size, n, &rel, start);
                if (i == n)
                    return false;
                page[level] = pg;
                child[level] = i;
                count[level] = inner_entry(pg, page_size, i)->count;
                before[level] = f - rel;
                f = rel;
                start = 0;
                skip = 0;
                pg = inner_entry(pg, page_size, i)->page;
                continue;
            }
            if (page_kind(pg) != kLeafPage || static_cast<vel_seq_no_t>(n) <= f)
                return false;
            *leaf = last_leaf = pg;
            *idx = last_idx = static_cast<int32_t>(f);
            depth = level;
            return true;
        }
    }

    // Writes the path of the last descent, which succeeded, into the
    // iterator's stack, as vel_seq_subseq_page would have.  Valid only when
    // no descent has failed since.
    void write_stack(vel_seq_iterator_context_t *ctx) const {
        for (int level = 0; level < depth; level++) {
            ctx->stack[level].page = page[level];
            ctx->stack[level].pos = child[level];
        }
        ctx->stack[depth].page = last_leaf;
        ctx->stack[depth].pos = last_idx;
        ctx->stack_size = static_cast<uint8_t>(depth + 1);
    }

    // The leaf after the last one found, when it has the same parent:
    // positions that go on ascending read it next.
    void prefetch_next_leaf(int32_t page_size) const {
        if (depth >= 1)
            prefetch_next_child(page[depth - 1], child[depth - 1], page_size);
    }
};

} // namespace velseq
