// The module's names for the page layout of seq_layout.h (the byte table is
// there), and the position arithmetic over inner entries.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "elem/elem_traits.h"
#include "seq_layout.h"

namespace velseq {

using layout::kEntryBytes;
using layout::kInnerPage;
using layout::kLeafPage;
using layout::kMaxLevel;
using layout::null_mask_words;
using layout::page_kind;
inline constexpr int kPageHeaderBytes = layout::kHeaderBytes;

// Leaf values, or the keys of an ordered inner page.
inline byte *page_values(vel_seq_page_t *pg) { return layout::value_at(pg, 0, 0); }
inline byte *page_value(vel_seq_page_t *pg, size_t elem_size, uint64_t i) {
    return layout::value_at(pg, elem_size, i);
}
inline vel_seq_node_t *inner_entry(vel_seq_page_t *pg, int32_t page_size, int64_t i) {
    return layout::entry_at(pg, page_size, i);
}

// Sum of the counts of entries from..to-1 of an inner page.
inline vel_seq_count_t count_range(vel_seq_page_t *pg, int32_t page_size, int from, int to) {
    vel_seq_count_t sum = 0;
    for (int j = from; j < to; j++)
        sum += inner_entry(pg, page_size, j)->count;
    return sum;
}

// Sum of the counts of entries 0..k-1 of an inner page (the position of
// child k's first element inside the page's subtree).  Those entries are one
// block of 16*k bytes ending at the page end; the counts are the high halves.
inline vel_seq_count_t count_before(vel_seq_page_t *pg, int32_t page_size, int k) {
    if (k <= 0)
        return 0;
    const vel_seq_node_t *e = inner_entry(pg, page_size, k - 1); // lowest address
#if defined(__SSE2__)
    __m128i a0 = _mm_setzero_si128(), a1 = a0, a2 = a0, a3 = a0;
    const auto *q = reinterpret_cast<const __m128i *>(e);
    int j = 0;
    for (; j + 4 <= k; j += 4) {
        a0 = _mm_add_epi64(a0, _mm_loadu_si128(q + j));
        a1 = _mm_add_epi64(a1, _mm_loadu_si128(q + j + 1));
        a2 = _mm_add_epi64(a2, _mm_loadu_si128(q + j + 2));
        a3 = _mm_add_epi64(a3, _mm_loadu_si128(q + j + 3));
    }
    for (; j < k; j++)
        a0 = _mm_add_epi64(a0, _mm_loadu_si128(q + j));
    a0 = _mm_add_epi64(_mm_add_epi64(a0, a1), _mm_add_epi64(a2, a3));
    return static_cast<vel_seq_count_t>(_mm_cvtsi128_si64(_mm_unpackhi_epi64(a0, a0)));
#else
    vel_seq_count_t a = 0, b = 0;
    int j = 0;
    for (; j + 1 < k; j += 2) {
        a += e[j].count;
        b += e[j + 1].count;
    }
    if (j < k)
        a += e[j].count;
    return a + b;
#endif
}

// The child of an inner page of `n` entries that holds element `from` of its
// subtree, with `from` made relative to that child; n when none does.  With
// `start`, the walk goes on from entry `start`, `from` being relative to it.  The
// same walk as subtracting entry by entry, four entries at a time while the
// four (summed without overflow) still lie before `from`.
inline int child_by_position(vel_seq_page_t *pg, int32_t page_size, int n, vel_seq_no_t *from,
                             int start = 0) {
    const vel_seq_node_t *e = inner_entry(pg, page_size, 0);
    vel_seq_no_t f = *from;
    int i = start;
    for (; i + 4 <= n; i += 4) {
        vel_seq_count_t s01, s23, s;
        if (__builtin_add_overflow(e[-i].count, e[-i - 1].count, &s01) ||
            __builtin_add_overflow(e[-i - 2].count, e[-i - 3].count, &s23) ||
            __builtin_add_overflow(s01, s23, &s))
            break;
        if (f < s) {
            // Inside these four: the choice among them by selects, not
            // branches (where a walk ends is a coin toss).
            const vel_seq_count_t a = e[-i].count, b = s01, c = s01 + e[-i - 2].count;
            const int j = (f >= a) + (f >= b) + (f >= c);
            *from = f - (j == 0 ? 0 : j == 1 ? a : j == 2 ? b : c);
            return i + j;
        }
        f -= s;
    }
    for (; i < n; i++) {
        vel_seq_count_t c = e[-i].count;
        if (f < c)
            break;
        f -= c;
    }
    *from = f;
    return i;
}

inline vel_bitmap_word_t *leaf_nulls(vel_seq_page_t *pg, int32_t page_size, uint64_t capacity) {
    return layout::null_mask(pg, page_size, capacity);
}

// The child after child `c` of inner page `parent`; null when it has none
// (or its page is missing).
inline vel_seq_page_t *next_child(vel_seq_page_t *parent, int c, int32_t page_size) {
    return c + 1 < parent->hdr.user ? inner_entry(parent, page_size, c + 1)->page : nullptr;
}

// Asks for every line of the child after child `c` of inner page `parent`,
// when it has one: a read that goes on there next finds it in cache (the
// hardware prefetcher stops at a page's end).
inline void prefetch_next_child(vel_seq_page_t *parent, int c, int32_t page_size) {
    if (const vel_seq_page_t *next = next_child(parent, c, page_size))
        layout::prefetch_page(next, page_size);
}

// Leaf capacity by element size alone, as delete and the tile filler compute
// it; constant divisors for the scalar sizes: no division per tile.
inline uint64_t leaf_capacity_by_size(int32_t page_size, uint64_t elem_size) {
    switch (elem_size) {
    case 1:
        return layout::leaf_capacity(page_size, 1);
    case 2:
        return layout::leaf_capacity(page_size, 2);
    case 4:
        return layout::leaf_capacity(page_size, 4);
    case 8:
        return layout::leaf_capacity(page_size, 8);
    default:
        return layout::leaf_capacity(page_size, elem_size);
    }
}

inline int32_t page_size_of(vel_db_connection_h con, vel_page_manager_t *pm) {
    return pm->large_page_size(con);
}

} // namespace velseq
