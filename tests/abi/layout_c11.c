/* The public headers compile as C11 and pin the record layouts. */
#include <stddef.h>

#include "velhost.h"
#include "velseq/arrow.h"

_Static_assert(sizeof(vel_unaligned_page_header_t) == 4, "page header fields");
_Static_assert(offsetof(vel_seq_page_t, ref_count) == 4, "ref_count after the header");
_Static_assert(offsetof(vel_seq_page_t, u) == 8, "page body at byte 8");
_Static_assert(sizeof(vel_seq_node_t) == 16, "inner entry of 16 bytes");
_Static_assert(offsetof(vel_seq_node_t, count) == 8, "entry: page, then count");
_Static_assert(offsetof(vel_seq_tile_t, u) == 16, "payload behind a 2-word bitmap");
_Static_assert(sizeof(vel_seq_payload_t) == 4096, "4096-byte tile payload");
_Static_assert(sizeof(vel_seq_iterator_stack_item_t) == 16, "stack entry");
_Static_assert(offsetof(vel_seq_iterator_context_t, stack) == 48, "six-word context header");
_Static_assert(sizeof(vel_seq_iterator_context_t) <= 35 * 8, "context inside 35 words");
_Static_assert(sizeof(((vel_seq_iterator_context_t *)0)->stack) /
                       sizeof(vel_seq_iterator_stack_item_t) >=
                   14,
               "14 stack entries");
_Static_assert(35 * 8 - offsetof(vel_seq_iterator_context_t, stack) == 232,
               "232 bytes for a list cursor");
_Static_assert(offsetof(vel_seq_iterator_t, reset) == 8 &&
                   offsetof(vel_seq_iterator_t, merge) == 24,
               "function slots first");
_Static_assert(offsetof(vel_seq_iterator_t, tile_size) ==
                   offsetof(vel_seq_iterator_t, elem_size) + 2,
               "elem_size, tile_size, tile_offs in order");
_Static_assert(
    offsetof(vel_seq_iterator_t, first_seq_no) < offsetof(vel_seq_iterator_t, next_seq_no) &&
        offsetof(vel_seq_iterator_t, next_seq_no) < offsetof(vel_seq_iterator_t, last_seq_no) &&
        offsetof(vel_seq_iterator_t, last_seq_no) < offsetof(vel_seq_iterator_t, opd) &&
        offsetof(vel_seq_iterator_t, buf_size) < offsetof(vel_seq_iterator_t, elem_type) &&
        offsetof(vel_seq_iterator_t, createdBySql) < offsetof(vel_seq_iterator_t, context) &&
        offsetof(vel_seq_iterator_t, context) < offsetof(vel_seq_iterator_t, tile),
    "iterator fields in order");
_Static_assert(sizeof(((vel_seq_iterator_t *)0)->context) == 35 * 8, "35-word context");
_Static_assert(offsetof(vel_db_connection_t, trans) == 0, "transaction first in a connection");
_Static_assert(VEL_E_SEQ_NULL_VALUE == 703 && VEL_S_CURSOR_EMPTY == 12, "codes");

int velseq_layout_c11(void) { return (int)sizeof(vel_seq_iterator_t); }

/* The Arrow C data interface as Arrow publishes it (64-bit). */
_Static_assert(sizeof(struct ArrowSchema) == 72 && offsetof(struct ArrowSchema, release) == 56,
               "ArrowSchema");
_Static_assert(sizeof(struct ArrowArray) == 80 && offsetof(struct ArrowArray, buffers) == 40,
               "ArrowArray");
_Static_assert(sizeof(struct ArrowArrayStream) == 40 &&
                   offsetof(struct ArrowArrayStream, private_data) == 32,
               "ArrowArrayStream");
