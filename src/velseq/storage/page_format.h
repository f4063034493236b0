// Layout of the pages of a sequence tree.
//
// A page is `page_size` bytes (the page manager's large_page_size, read once
// per operation and kept as int32_t).  Byte order is the machine's.
//
//   offset                 size       field
//   ---------------------  ---------  ------------------------------------------
//   0                      1          kind: low 4 bits 2 = inner, 3 = leaf;
//                                     high 4 bits are the host's (masked off)
//   1                      1          extraflags (unused here)
//   2                      2          user: leaf values / inner children
//   4                      4          ref_count (host services only)
//
// Leaf (kind 3), element size s, capacity C = leaf_capacity(page_size):
//   8                      C*s        values 0..user-1 in sequence order
//   page_size - 8*W        8*W        null mask, W = (C + 63) / 64 words;
//                                     bit i set: value i is null
//
// Inner (kind 2), `user` children in sequence order:
//   8                      user*s     ordered fields only: key i = the value
//                                     with which child i's subtree was started
//   page_size - 16*(i+1)   16         entry i {page, count}: entry 0 is the
//                                     last 16 bytes, the array grows downwards
//
// Invariants of a tree: every leaf at the same depth (at most 14 levels);
// 1 <= user <= capacity on every page; entry counts equal subtree sizes.
#pragma once

#include <cstdint>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

#include "elem/elem_traits.h"

namespace velseq {

inline constexpr int kInnerPage = 2;
inline constexpr int kLeafPage = 3;
inline constexpr int kPageHeaderBytes = 8;
inline constexpr int kEntryBytes = 16;
inline constexpr int kMaxLevel = VEL_SEQ_MAX_DEPTH - 1; // deepest stack index

static_assert(sizeof(vel_unaligned_page_header_t) == 4);
static_assert(offsetof(vel_seq_page_t, ref_count) == 4);
static_assert(offsetof(vel_seq_page_t, u) == kPageHeaderBytes);
static_assert(sizeof(vel_seq_node_t) == kEntryBytes);

inline int page_kind(const vel_seq_page_t *pg) { return pg->hdr.kind & 15; }

// Leaf values, or the keys of an ordered inner page.
inline byte *page_values(vel_seq_page_t *pg) {
    return reinterpret_cast<byte *>(pg) + kPageHeaderBytes;
}
inline byte *page_value(vel_seq_page_t *pg, size_t elem_size, uint64_t i) {
    return page_values(pg) + i * elem_size;
}

// Entry i of an inner page; entries i, i+1, ... lie at falling addresses.
inline vel_seq_node_t *inner_entry(vel_seq_page_t *pg, int32_t page_size, int64_t i) {
    return reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<byte *>(pg) + page_size -
                                              kEntryBytes * (i + 1));
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
            __builtin_add_overflow(s01, s23, &s) || f < s)
            break;
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

inline uint64_t null_mask_words(uint64_t capacity) { return (capacity + 63) / 64; }

// The null mask of a leaf whose capacity is `capacity`: flush with the page end.
inline vel_bitmap_word_t *leaf_nulls(vel_seq_page_t *pg, int32_t page_size, uint64_t capacity) {
    return reinterpret_cast<vel_bitmap_word_t *>(reinterpret_cast<byte *>(pg) + page_size -
                                                 8 * null_mask_words(capacity));
}

// Leaf capacity by element size alone, as delete and the tile filler compute
// it: (8 * page_size - 127) / (8 * elem_size + 1).
inline uint64_t leaf_capacity_by_size(int32_t page_size, uint64_t elem_size) {
    const uint64_t bits = static_cast<uint64_t>(page_size) * 8 - 127;
    switch (elem_size) { // constant divisors for the scalar sizes: no division per tile
    case 1:
        return bits / 9;
    case 2:
        return bits / 17;
    case 4:
        return bits / 33;
    case 8:
        return bits / 65;
    default:
        return bits / (elem_size * 8 + 1);
    }
}

inline int32_t page_size_of(vel_db_connection_h con, vel_page_manager_t *pm) {
    return pm->large_page_size(con);
}

} // namespace velseq
