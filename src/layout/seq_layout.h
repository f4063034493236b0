// The page layout of a sequence tree, defined once for every layer that
// reads or writes pages: the module's storage code, the host's checker and
// compaction, the tools, the fuzz harness and the tests.  A page is
// `page_size` bytes (the page manager's large page size); byte order is the
// machine's.
//
//   offset                 size       field
//   ---------------------  ---------  ------------------------------------------
//   0                      1          kind: low 4 bits 2 = inner, 3 = leaf;
//                                     high 4 bits are the host's (masked off)
//   1                      1          extraflags (unused here)
//   2                      2          user: leaf values / inner children
//   4                      4          ref_count (host services only)
//
// Leaf (kind 3), element size s, capacity C = leaf_capacity(page_size, s):
//   8                      C*s        values 0..user-1 in sequence order
//   page_size - 8*W        8*W        null mask, W = (C + 63) / 64 words;
//                                     bit i set: value i is null
//
// Inner (kind 2), `user` children in sequence order, at most inner_capacity:
//   8                      user*s     ordered fields only: key i = the value
//                                     with which child i's subtree was started
//   page_size - 16*(i+1)   16         entry i {page, count}: entry 0 is the
//                                     last 16 bytes, the array grows downwards
//
// Invariants of a tree: every leaf at the same level, levels 0..kMaxLevel
// (VEL_SEQ_MAX_DEPTH levels, a scan's stack); 1 <= user <= capacity on every
// page; entry counts equal subtree sizes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "velseq.h"

namespace velseq::layout {

inline constexpr int kInnerPage = 2;
inline constexpr int kLeafPage = 3;
inline constexpr int kHeaderBytes = 8;
inline constexpr int kEntryBytes = 16;
inline constexpr int kMaxLevel = VEL_SEQ_MAX_DEPTH - 1; // deepest level of a sound tree

static_assert(sizeof(vel_unaligned_page_header_t) == 4);
static_assert(offsetof(vel_seq_page_t, ref_count) == 4);
static_assert(offsetof(vel_seq_page_t, u) == kHeaderBytes);
static_assert(sizeof(vel_seq_node_t) == kEntryBytes);

// A value costs its bytes plus one null bit; up to 63 bits go to rounding
// the mask up to whole words.  Unsigned 64-bit arithmetic: the same number
// as ((page_size - 8) * 8 - 63) in 32-bit signed arithmetic, sign-extended,
// wherever that does not overflow.
constexpr uint64_t leaf_capacity(int32_t page_size, uint64_t elem_size) {
    return (static_cast<uint64_t>(page_size) * 8 - 127) / (elem_size * 8 + 1);
}
constexpr uint64_t null_mask_words(uint64_t leaf_cap) { return (leaf_cap + 63) / 64; }

// Children of an inner page: a 16-byte entry each, and a key each where the
// keys count, in ordered scalar fields.  A char field's ordered inner pages
// hold keys too but are sized for the entries alone.
constexpr int32_t inner_capacity(int32_t page_size, uint64_t elem_size, bool ordered,
                                 bool is_char) {
    const auto key = ordered && !is_char ? static_cast<int32_t>(elem_size) : 0;
    return (page_size - 8) / (kEntryBytes + key);
}

inline int page_kind(const vel_seq_page_t *pg) { return pg->hdr.kind & 15; }

// T with the constness of the page P.
template <class P, class T> using like_page = std::conditional_t<std::is_const_v<P>, const T, T>;

template <class P> like_page<P, std::byte> *page_at(P *pg, uint64_t offset) {
    return reinterpret_cast<like_page<P, std::byte> *>(pg) + offset;
}
// Value i of a leaf; key i of an ordered inner page lies at the same place.
template <class P> like_page<P, std::byte> *value_at(P *pg, uint64_t elem_size, uint64_t i) {
    return page_at(pg, kHeaderBytes + i * elem_size);
}
template <class P> like_page<P, std::byte> *key_at(P *pg, uint64_t elem_size, uint64_t i) {
    return value_at(pg, elem_size, i);
}
// Entry i of an inner page; entries i, i+1, ... lie at falling addresses.
template <class P> like_page<P, vel_seq_node_t> *entry_at(P *pg, int32_t page_size, int64_t i) {
    return reinterpret_cast<like_page<P, vel_seq_node_t> *>(
        reinterpret_cast<like_page<P, std::byte> *>(pg) + page_size - kEntryBytes * (i + 1));
}
// The null mask of a leaf of capacity `leaf_cap`, flush with the page end.
template <class P>
like_page<P, vel_bitmap_word_t> *null_mask(P *pg, int32_t page_size, uint64_t leaf_cap) {
    return reinterpret_cast<like_page<P, vel_bitmap_word_t> *>(
        page_at(pg, static_cast<uint64_t>(page_size) - 8 * null_mask_words(leaf_cap)));
}
inline bool is_null(const vel_bitmap_word_t *mask, uint64_t i) {
    return ((mask[i / 64] >> (i % 64)) & 1) != 0;
}

// Asks for the cache lines [from, to) into L2, not L1: lines asked for at
// once would hold the L1 fill buffers that the loads of the page being read
// need (`into_l1` suits the few lines a copy reads next; it asks for two
// lines a step, fewer instructions for the tile scan, and may ask for the
// line at `to` as well).  In asm because
// GCC drops a loop whose only effect is __builtin_prefetch (it counts as no
// effect at all; the map's page prefetches went so).  Not unrolled: a burst
// of prefetches issued back to back stalls the loads behind them (a scan of
// leaves in place took twice as long).
template <bool into_l1 = false> inline void prefetch_lines(const void *from, const void *to) {
    for (const auto *b = static_cast<const char *>(from); b < to; b += into_l1 ? 128 : 64) {
#if defined(__x86_64__) || defined(__i386__)
        if constexpr (into_l1)
            asm volatile("prefetcht0 %0\n\tprefetcht0 %1" : : "m"(b[0]), "m"(b[64]));
        else
            asm volatile("prefetcht1 %0" : : "m"(*b));
#else
        __builtin_prefetch(b, 0, into_l1 ? 3 : 2);
        if constexpr (into_l1)
            __builtin_prefetch(b + 64, 0, 3);
#endif
    }
}

// Every line of a page, for a read that goes on there next (the hardware
// prefetcher stops at a page's end): what the store and the map ask for.
inline void prefetch_page(const void *pg, int32_t page_size) {
    prefetch_lines(pg, static_cast<const char *>(pg) + page_size);
}

// A leaf's null mask, which a read in order takes first, and the first
// `lines` lines of its values; the hardware prefetcher follows the values
// from there.  What the walk over leaves in place and the tile scans ask
// for: the whole page was slower for both, its 64 prefetches holding the
// miss buffers that the loads of the leaf being read need.
inline void prefetch_leaf_start(const vel_seq_page_t *pg, int32_t page_size, uint64_t leaf_cap,
                                int lines) {
    const auto *b = reinterpret_cast<const char *>(pg);
    prefetch_lines(null_mask(pg, page_size, leaf_cap), b + page_size);
    prefetch_lines(b, b + 64 * lines);
}

} // namespace velseq::layout
