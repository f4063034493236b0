// Internal operations of the iterators.
//
// Every iterator of the module keeps a vel_seq_iterator_context_t at the
// start of its `context` words:
//
//   word  field                      used by
//   ----  -------------------------  -------------------------------------------
//   0     con                        all (cursor scans: their vel_trans_h)
//   1     stack_size, rle_offs,      tree scans: stack_size; cursor scans also
//         class_code, page_size      class_code; page_size at set-up
//   2     order, fld_u_offset        join: order; cursor scans: offsets
//   3     fld_c_offset (+ padding)   cursor scans
//   4     cursor                     cursor scans; null for one field
//   5     pm                         all
//   6..   stack[14] {page, pos}      tree scans; the object-class scan keeps
//                                    the host's list cursor here instead
#pragma once

#include <cstdint>

#include "velhost.h"

namespace velseq {

inline constexpr vel_seq_no_t kUnbounded = ~vel_seq_no_t{0};

static_assert(sizeof(vel_seq_iterator_context_t) <= sizeof(uint64_t) * VEL_SEQ_CONTEXT_WORDS,
              "scan state must fit the iterator's context area");
static_assert(sizeof(uint64_t) * VEL_SEQ_CONTEXT_WORDS -
                      offsetof(vel_seq_iterator_context_t, stack) >=
                  232,
              "a list cursor needs 232 bytes of the context from the stack's start");

inline vel_seq_iterator_context_t *iter_ctx(vel_seq_iterator_h it) {
    return reinterpret_cast<vel_seq_iterator_context_t *>(it->context);
}

// The tile fill's copy loop, into any buffer (tile.cpp).
VEL_RET fill_runs(vel_seq_iterator_h iterator, char *dst, vel_bitmap_word_t *dst_nulls, uint64_t &n,
                  uint64_t limit);

} // namespace velseq

// Tile filling and the shared next/reset slots.
VEL_RET vel_seq_append_tile(vel_seq_iterator_h iterator);
VEL_RET vel_seq_next_tile(vel_seq_iterator_h iterator);
VEL_RET vel_seq_reset_cursor(vel_seq_iterator_h iterator);

// Positional scan.
VEL_RET vel_seq_subseq(vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
                       vel_seq_iterator_h iterator, vel_seq_no_t from, vel_seq_no_t till);
VEL_RET vel_seq_subseq_page(vel_db_connection_h con, vel_page_manager_t *pm,
                            vel_seq_iterator_h iterator, vel_seq_page_t *page, vel_seq_no_t from,
                            int level);
VEL_RET vel_seq_reset(vel_seq_iterator_h iterator);

// Object-class scan and the scan of one field across the objects of a cursor.
VEL_RET vel_seq_sequence_next(vel_seq_iterator_h iterator);
VEL_RET vel_seq_next_from_cursor(vel_seq_iterator_h iterator);
