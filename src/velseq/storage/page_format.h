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

inline uint64_t null_mask_words(uint64_t capacity) { return (capacity + 63) / 64; }

// The null mask of a leaf whose capacity is `capacity`: flush with the page end.
inline vel_bitmap_word_t *leaf_nulls(vel_seq_page_t *pg, int32_t page_size, uint64_t capacity) {
    return reinterpret_cast<vel_bitmap_word_t *>(reinterpret_cast<byte *>(pg) + page_size -
                                                 8 * null_mask_words(capacity));
}

// Leaf capacity by element size alone, as delete and the tile filler compute
// it: (8 * page_size - 127) / (8 * elem_size + 1).
inline uint64_t leaf_capacity_by_size(int32_t page_size, uint64_t elem_size) {
    return (static_cast<uint64_t>(page_size) * 8 - 127) / (elem_size * 8 + 1);
}

inline int32_t page_size_of(vel_db_connection_h con, vel_page_manager_t *pm) {
    return pm->large_page_size(con);
}

} // namespace velseq
