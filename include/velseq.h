/*
 * velseq.h -- public interface of the velseq sequence module.
 *
 * A sequence is an ordered vector of scalar values of one element type kept
 * in a database object's field as a copy-on-write, reference-counted page
 * tree.  The module is reached through the exported `vel_w_seq_*` wrappers
 * and reads sequences back tile by tile through caller-owned iterators.
 *
 * This header is plain C11 and usable from C++.  The host records and the
 * services the module calls are declared in velhost.h; an application on the
 * embedded host includes velembed.h, which brings both.
 *
 * Conventions of every function below:
 *   - A field is named by the open object `obj` and the field's two offsets,
 *     `fld_u_offset` (uncompact object layout) and `fld_c_offset` (compact
 *     layout); the object's class decides which one is used.  Updates also
 *     take the field number `fld_no` (the host records the field as written).
 *     velhost gives all three in velh_field_info_t.
 *   - `order` is the order declared for the field (vel_seq_order_t).  It must
 *     be the same on every call for one field: ordered fields keep a key per
 *     child in their inner pages, unordered ones do not.
 *   - Positions count from 0; ranges `from`..`till` include both ends.
 *   - Null bitmaps: bit i (bit i%64 of word i/64) set marks element i null.
 *     A null bitmap pointer means "no nulls".
 *   - A VEL_RET function returns VEL_S_OK or a code.  Besides those listed
 *     for each, any code of the host is passed through unchanged: refused
 *     object access (velhost: VEL_E_HOST_TRANS_CLOSED, VEL_E_HOST_NO_OBJECT,
 *     VEL_E_HOST_READ_ONLY and VEL_E_HOST_CONFLICT for updates, ...) and
 *     failed page allocation (VEL_E_NOMEM).  A broken tree invariant is not a
 *     code: the module calls the host's fatal trap vel_stop__ with
 *     VEL_ERR_SEQ.
 *   - A failed update does not undo what it already did (a batch that
 *     fails in its third leaf keeps the first two); the host's transaction
 *     does, by rollback.
 *
 * The module checks little and trusts its caller; some behaviours kept on
 * purpose surprise callers and are marked "Kept:" below.  The guard rails
 * live in the layers above: the C++ API (velseq.hpp) refuses NaN in ordered
 * float and double fields, reversed bounds and positions past the end, and
 * answers as-of probes one by one; velhost's field compaction rebuilds a
 * field that single inserts degraded.
 */
#ifndef VELSEQ_H
#define VELSEQ_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#if defined(VELSEQ_BUILDING)
#define VEL_SEQ_API __attribute__((visibility("default")))
#else
#define VEL_SEQ_API
#endif

/* ---- scalar types ------------------------------------------------------- */

typedef int8_t vel_int1;
typedef int16_t vel_int2;
typedef int32_t vel_int4;
typedef int64_t vel_int8;
typedef uint8_t vel_uint1;
typedef uint16_t vel_uint2;
typedef uint32_t vel_uint4;
typedef uint64_t vel_uint8;
typedef float vel_float;
typedef double vel_double;
typedef uint64_t vel_datetime; /* unsigned count; no calendar meaning here */
typedef int vel_bool;          /* 0 or 1 */

typedef uint64_t vel_seq_no_t;      /* position of an element, from 0 */
typedef uint64_t vel_seq_count_t;   /* elements under an inner-page entry */
typedef uint64_t vel_size_t;        /* a size or a number of values */
typedef uint64_t vel_bitmap_word_t; /* bit i of a bitmap: bit i%64 of word i/64 */
typedef uint32_t vel_offs32_t;      /* offset of a field inside an object */
typedef uint8_t vel_seq_rle_count_t;

/* ---- status and error codes --------------------------------------------- */

/* Status (VEL_S_*) and error (VEL_E_*) codes.  VEL_S_OVERFLOW and
   VEL_S_UNDERFLOW never reach a caller.  VEL_S_CURSOR_EMPTY comes from the
   host's list cursor and counts as success. */
typedef enum VEL_RET_ {
    VEL_S_OK = 0,
    VEL_S_OVERFLOW = 2,  /* between worker levels only: a new page was made */
    VEL_S_UNDERFLOW = 3, /* between worker levels only: the page was freed */
    VEL_S_NOTFOUND = 10,
    VEL_S_CURSOR_END = 11,
    VEL_S_CURSOR_EMPTY = 12,
    VEL_E_NOMEM = 52,
    VEL_E_ILLEGAL_TYPE = 61,
    VEL_E_ILLEGAL_PARAM = 62,
    VEL_E_SEQ_OUT_OF_ORDER = 700,
    VEL_E_SEQ_BOUNDED = 701,
    VEL_E_SEQ_LENGTH_MISMATCH = 702, /* declared, never produced by the module */
    VEL_E_SEQ_NULL_VALUE = 703,

    /* codes of the embedded host (velhost) */
    VEL_E_HOST_BAD_ARG = 900,      /* null handle, bad size, bad definition */
    VEL_E_HOST_TRANS_CLOSED = 901, /* transaction not open */
    VEL_E_HOST_READ_ONLY = 902,    /* write in a read-only transaction */
    VEL_E_HOST_NO_CLASS = 903,     /* unknown class code */
    VEL_E_HOST_NO_OBJECT = 904,    /* unknown or deleted object */
    VEL_E_HOST_NO_FIELD = 905,     /* unknown field number */
    VEL_E_HOST_WRONG_FIELD = 906,  /* field of another kind or width */
    VEL_E_HOST_CONFLICT = 907,     /* another writer committed first */
    VEL_E_HOST_TRANS_ACTIVE = 908, /* connection already has a transaction */
    VEL_E_HOST_BUSY = 909,         /* object still in use (open connections) */
    VEL_E_HOST_LAYOUT = 910,       /* class does not fit the object page */
    VEL_E_HOST_TRANS_FAILED = 911, /* transaction carries an earlier error */
    VEL_E_HOST_TREE_DEPTH = 912,   /* a sequence tree deeper than VEL_SEQ_MAX_DEPTH levels */

    /* durability (database images and the commit log) */
    VEL_E_HOST_IO = 920,        /* a file could not be created, read, written or
                                   flushed; velh_error_message() says which */
    VEL_E_HOST_BAD_IMAGE = 921, /* a file that is not a database image of this
                                   format version, or a damaged one: refused whole */
    VEL_E_HOST_BAD_LOG = 922    /* a commit log that is not one, or that belongs to
                                   another image (a torn tail is cut, not refused) */
} VEL_RET;

#define VEL_ERR_SEQ 1060000 /* trap code of the sequence module */

typedef enum vel_seq_order_t_ {
    VEL_SEQ_NO_ORDER = 0,
    VEL_SEQ_ASC_ORDER = 1,
    VEL_SEQ_DESC_ORDER = 2
} vel_seq_order_t;

typedef enum vel_seq_boundary_kind_t_ {
    VEL_SEQ_BOUNDARY_OPEN = 0,
    VEL_SEQ_BOUNDARY_INCLUSIVE = 1,
    VEL_SEQ_BOUNDARY_EXCLUSIVE = 2
} vel_seq_boundary_kind_t;

/* Host dictionary type codes: element types of iterators, and the codes of
   whole sequence fields (schema only; never an iterator's elem_type). */
enum {
    VEL_DD_UINT1 = 0,
    VEL_DD_UINT2 = 1,
    VEL_DD_UINT4 = 2,
    VEL_DD_UINT8 = 3,
    VEL_DD_INT1 = 4,
    VEL_DD_INT2 = 5,
    VEL_DD_INT4 = 6,
    VEL_DD_INT8 = 7,
    VEL_DD_FLOAT = 8,
    VEL_DD_DOUBLE = 9,
    VEL_DD_DATETIME = 12,
    VEL_DD_CHAR = 13,
    VEL_DD_SEQUENCE_UINT1 = 26,
    VEL_DD_SEQUENCE_UINT2 = 27,
    VEL_DD_SEQUENCE_UINT4 = 28,
    VEL_DD_SEQUENCE_UINT8 = 29,
    VEL_DD_SEQUENCE_INT1 = 30,
    VEL_DD_SEQUENCE_INT2 = 31,
    VEL_DD_SEQUENCE_INT4 = 32,
    VEL_DD_SEQUENCE_INT8 = 33,
    VEL_DD_SEQUENCE_FLOAT = 34,
    VEL_DD_SEQUENCE_DOUBLE = 35,
    VEL_DD_SEQUENCE_CHAR = 36,
    VEL_DD_SEQUENCE_DATETIME = 37
};

/* ---- host handles (completed in velhost.h) ------------------------------ */

typedef struct vel_trans_t_ *vel_trans_h;
typedef struct vel_db_connection_t_ *vel_db_connection_h;
typedef struct vel_objhandle_t_ *vel_objhandle_h;
typedef struct vel_cursor_t_ vel_cursor_t, *vel_cursor_h;
typedef struct vel_page_manager_t_ vel_page_manager_t;

/* ---- page of a sequence tree --------------------------------------------
 *
 * Every page is page_size bytes (the page manager's large_page_size); the
 * arrays of the union below have nominal lengths.
 *
 *   byte  width  field       meaning
 *   0     1      kind        low 4 bits: 2 = inner page, 3 = leaf;
 *                            high 4 bits belong to the host
 *   1     1      extraflags  unused by the module
 *   2     2      user        values in a leaf / children of an inner page
 *   4     4      ref_count   kept by the host's reference-count services
 *   8     rest   u           body (leaf values, or inner keys; entries and
 *                            null masks are addressed from the page end)
 */
typedef struct vel_unaligned_page_header_t_ {
    uint8_t kind;
    uint8_t extraflags;
    uint16_t user;
} vel_unaligned_page_header_t;

struct vel_seq_page_t_;

typedef struct vel_seq_node_t_ {
    struct vel_seq_page_t_ *page; /* child page */
    vel_seq_count_t count;        /* elements in the child's subtree */
} vel_seq_node_t;

typedef struct vel_seq_page_t_ {
    vel_unaligned_page_header_t hdr;
    uint32_t ref_count;
    union {
        char val_char[8];
        vel_int1 val_int1[8];
        vel_int2 val_int2[4];
        vel_int4 val_int4[2];
        vel_int8 val_int8[1];
        vel_uint1 val_uint1[8];
        vel_uint2 val_uint2[4];
        vel_uint4 val_uint4[2];
        vel_uint8 val_uint8[1];
        vel_float val_float[2];
        vel_double val_double[1];
        vel_datetime val_datetime[1];
        vel_seq_node_t child[1];
        vel_bitmap_word_t null_bitmask[1];
    } u;
} vel_seq_page_t;

/* ---- tiles and iterators ------------------------------------------------ */

#define VEL_SEQ_TILE_SIZE 128 /* elements per tile, whatever the type */
#define VEL_SEQ_PAYLOAD_BYTES 4096
#define VEL_SEQ_MAX_DEPTH 14 /* tree levels 0..13 */
#define VEL_SEQ_CONTEXT_WORDS 35

typedef uint32_t vel_time; /* host time of day */
typedef uint32_t vel_date; /* host calendar date */

typedef union vel_seq_payload_t_ {
    uint8_t arr_vel_seq_bool[4096];
    char arr_char[4096];
    vel_int1 arr_int1[4096];
    vel_int2 arr_int2[2048];
    vel_int4 arr_int4[1024];
    vel_int8 arr_int8[512];
    vel_uint1 arr_uint1[4096];
    vel_uint2 arr_uint2[2048];
    vel_uint4 arr_uint4[1024];
    vel_uint8 arr_uint8[512];
    vel_time arr_vel_time[1024];
    vel_date arr_vel_date[1024];
    vel_datetime arr_datetime[512];
    vel_float arr_float[1024];
    vel_double arr_double[512];
} vel_seq_payload_t;

typedef struct vel_seq_tile_t_ {
    vel_bitmap_word_t null_bitmap[2]; /* bit i set: tile element i is null */
    vel_seq_payload_t u;
} vel_seq_tile_t;

typedef struct vel_seq_iterator_stack_item_t_ {
    vel_seq_page_t *page; /* page at this level of the path */
    int32_t pos;          /* inner: child on the path; leaf: next element */
} vel_seq_iterator_stack_item_t;

/* Scan state at the start of an iterator's context.  The header takes six
   words; the stack runs to the end of the 35-word area (14 entries), and a
   list cursor placed at `stack` has 232 bytes. */
typedef struct vel_seq_iterator_context_t_ {
    vel_db_connection_h con; /* cursor scans keep their vel_trans_h here */
    uint8_t stack_size;      /* valid stack entries; 0: past the end */
    uint8_t rle_offs;        /* reserved */
    uint16_t class_code;     /* cursor scans only */
    uint32_t page_size;      /* large_page_size at set-up */
    vel_seq_order_t order;   /* join only */
    vel_offs32_t fld_u_offset;
    vel_offs32_t fld_c_offset;
    vel_cursor_h cursor;
    vel_page_manager_t *pm;
    vel_seq_iterator_stack_item_t stack[VEL_SEQ_MAX_DEPTH];
} vel_seq_iterator_context_t;

typedef struct vel_seq_iterator_t_ vel_seq_iterator_t, *vel_seq_iterator_h;

typedef VEL_RET (*vel_seq_iterator_next_t)(vel_seq_iterator_h iterator);
typedef VEL_RET (*vel_seq_iterator_reset_t)(vel_seq_iterator_h iterator);
typedef VEL_RET (*vel_seq_iterator_prepare_t)(vel_seq_iterator_h iterator);
typedef VEL_RET (*vel_seq_iterator_merge_t)(vel_seq_iterator_h iterator, vel_seq_iterator_h other);

/* The caller owns the record and places it.  Scans are fastest with `tile.u`
   on a 64-byte boundary (the C++ API's records are so placed): a tile that
   straddles a 4 KiB boundary at an address not a multiple of 32 makes a
   scan through it about 1.3 times as slow on x86-64. */
struct vel_seq_iterator_t_ {
    vel_seq_iterator_next_t next;       /* refill the tile; CURSOR_END at end */
    vel_seq_iterator_reset_t reset;     /* back to first_seq_no */
    vel_seq_iterator_prepare_t prepare; /* query layer's; null here */
    vel_seq_iterator_merge_t merge;     /* query layer's; null here */
    uint16_t elem_size;                 /* bytes per element */
    uint16_t tile_size;                 /* elements in the tile, 0..128 */
    uint16_t tile_offs;                 /* first unconsumed tile element */
    uint8_t rle_offs;                   /* reserved */
    uint8_t prepared;
    vel_seq_no_t first_seq_no;
    vel_seq_no_t next_seq_no;
    vel_seq_no_t last_seq_no; /* inclusive; all ones: unbounded */
    vel_seq_iterator_h opd[3];
    void *buf;
    uint64_t buf_size;
    uint8_t elem_type; /* VEL_DD_* of the elements */
    uint8_t bounded;   /* 1 while bound as another iterator's operand */
    uint8_t createdBySql;
    uint64_t context[VEL_SEQ_CONTEXT_WORDS];
    vel_seq_tile_t tile;
};

/* ---- exported data ------------------------------------------------------ */

/* Non-zero (the initial value 1): map and join refuse, with
   VEL_E_SEQ_BOUNDED, an operand iterator that is already bound as another
   iterator's operand.  An operand is unbound again by any reset. */
extern VEL_SEQ_API vel_bool vel_seq_check_bindings;

/* ---- untyped operations ------------------------------------------------- */

/* vel_w_seq_count: number of elements of the field into *count, reading one
   page.  VEL_S_OK (0 for an empty field); a host code when read access is
   refused, *count then untouched. */

VEL_SEQ_API VEL_RET vel_w_seq_count(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                    vel_offs32_t fld_c_offset, vel_seq_no_t *count);
/* vel_w_seq_truncate: empties the field and hands its whole page tree to
   the host (vel_seq_prune), which frees what no other version shares.  The
   field is empty afterwards even when the prune fails.  Returns the prune's
   code (velhost: VEL_S_OK, also for an empty field), or the host's code when
   write access is refused. */
VEL_SEQ_API VEL_RET vel_w_seq_truncate(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                       vel_offs32_t fld_c_offset, uint16_t fld_no);
/* vel_seq_delete: the delete of every element type, given the element width
   `elem_size` in bytes; vel_w_seq_delete_<type> calls it with its type's
   width.  Same behaviour and codes as vel_w_seq_delete_<type> below. */
VEL_SEQ_API VEL_RET vel_seq_delete(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                   vel_offs32_t fld_c_offset, uint16_t fld_no, vel_seq_no_t from,
                                   vel_seq_no_t till, vel_seq_order_t order, vel_size_t elem_size);
/* vel_w_seq_sequence: sets `iterator` up over one plain scalar field (not a
   sequence) of every object of class `class_code`, one element per object,
   in the order of the host's list cursor; `fld_offset` is the field's
   offset in the object.  The caller sets elem_type and elem_size first (the
   typed vel_w_seq_sequence_<type> do).  The range is unbounded; the
   iterator ends with the cursor.  VEL_S_OK (also for a class without
   objects); the host's cursor or object-access code otherwise, also later
   from `next`. */
VEL_SEQ_API VEL_RET vel_w_seq_sequence(vel_trans_h trans, uint16_t class_code,
                                       vel_offs32_t fld_offset, vel_seq_iterator_h iterator);
/* vel_seq_copy_bitmap: copies `length` bits of `src` from bit `srcindx` to
   `dst` from bit `dstindx`, 64 bits a step at any alignment; bits of `dst`
   outside the run keep their values.  `src` and `dst` may be the same
   array, in either direction (overlapping runs are handled).  A null `src`
   clears the run.  Negative positions or lengths are not checked. */
VEL_SEQ_API void vel_seq_copy_bitmap(vel_bitmap_word_t *dst, int dstindx,
                                     const vel_bitmap_word_t *src, int srcindx, int length);
/* vel_seq_bitmap_contains_nulls: 1 if any of bits 0..length-1 is set, else
   0; bits at and past `length` are ignored.  (The null check of append and
   insert is a different, older test; see vel_w_seq_append_<type>.) */
VEL_SEQ_API vel_bool vel_seq_bitmap_contains_nulls(const vel_bitmap_word_t *bitmap, int length);
/* Reset helpers, used as the `reset` slot of iterators and callable on
   their own.  vel_seq_reset_iterator empties the tile (tile_offs =
   tile_size = 0), sets next_seq_no to 0 (not to first_seq_no: it is the reset
   of iterators counting from 0) and clears `bounded` and `prepared`; always
   VEL_S_OK.  vel_seq_reset_unary_iterator first resets opd[0] through its
   own `reset` slot, vel_seq_reset_binary_iterator opd[0] then opd[1] (opd[2]
   never); each skips null operands, returns the first operand's failure
   unchanged, and then resets the iterator itself. */
VEL_SEQ_API VEL_RET vel_seq_reset_iterator(vel_seq_iterator_h iterator);
VEL_SEQ_API VEL_RET vel_seq_reset_unary_iterator(vel_seq_iterator_h iterator);
VEL_SEQ_API VEL_RET vel_seq_reset_binary_iterator(vel_seq_iterator_h iterator);
/* Run-length queries of the query layer: tiles are never run-length
   encoded, so vel_seq_rle_count always returns 1 and vel_seq_is_rle 0. */
VEL_SEQ_API vel_seq_rle_count_t vel_seq_rle_count(vel_seq_iterator_h iterator, int pos);
VEL_SEQ_API vel_bool vel_seq_is_rle(void);

/* ---- typed operations: one set per scalar element type ------------------ */
/*
 * VEL_SEQ_DECLARE_TYPED(S, T) declares the 13 operations below for the
 * suffix S and value type T: int1..int8 (signed), uint1..uint8 (unsigned),
 * float, double (IEEE) and datetime (an unsigned count, compared as such).
 * Comparisons are T's own: a NaN compares false with everything.  Below, u
 * and c stand for fld_u_offset and fld_c_offset.
 *
 * ---- vel_w_seq_append_<S>(obj, u, c, fld_no, vals, n_vals, order, null_bitmap)
 * Appends vals[0..n_vals-1] (null where `null_bitmap` says) at the end of the
 * field.  The rightmost leaf is filled up, then new leaves open to its right;
 * no page is split.  Ordered fields: nulls are refused (but see Kept), the
 * values must be in `order` among themselves (equal neighbours allowed),
 * and the first one must not break the order against the last stored
 * value.  n_vals = 0 is VEL_S_OK and changes nothing.
 *   VEL_S_OK
 *   VEL_E_SEQ_NULL_VALUE    ordered field and the null check finds a bit
 *   VEL_E_SEQ_OUT_OF_ORDER  input out of order, or its first value out of
 *                           order against the stored last value (also any
 *                           order value other than 0, 1, 2 on a non-empty
 *                           field)
 *   VEL_E_NOMEM, host codes page allocation or write access failed
 * Kept:
 *   - The null check of an ordered append tests whole words correctly but
 *     ANDs the last partial word with the number n_vals % 64 itself, not with
 *     a mask: only the bit positions set in that number are examined (for
 *     n_vals = 3 bits 0 and 1, for n_vals = 4 only bit 2).  A null elsewhere
 *     in the last word gets through, and the ordered field then holds it.
 *   - When that null check or the input order check fails, the call returns
 *     without ending the field's write access (the host's root update stays
 *     open); end the transaction (velhost: roll back) rather than go on.
 *   - NaN in an ascending or descending float/double field: a NaN inside the
 *     buffer passes the input check (every comparison with it is false), so
 *     1.0, NaN, 0.5 is accepted whole into an empty field; only a NaN as the
 *     first value against a stored one is refused.  Later searches then miss
 *     values silently.  The C++ API refuses NaN in ordered fields.
 *
 * ---- vel_w_seq_first_<S>(obj, u, c, val) / vel_w_seq_last_<S>(obj, u, c, val)
 * The first / last element into *val, walking one root-to-leaf path.
 *   VEL_S_OK
 *   VEL_S_NOTFOUND          empty field; *val untouched
 *   VEL_E_SEQ_NULL_VALUE    the element is null; *val is still written with
 *                           whatever its slot holds (kept: normally the value
 *                           that was in the caller's buffer at append time)
 *   host codes              read access refused; *val untouched
 *
 * ---- vel_w_seq_insert_<S>(obj, u, c, fld_no, pos, vals, n_vals, order, null_bitmap)
 * Inserts the values before the element at `pos` (pos = count appends):
 * they take positions pos..pos+n_vals-1 and later elements move up.  A full
 * leaf is split so that it stays full and its new right sibling holds just
 * the values inserted there.  Checks, codes and kept behaviours as append
 * (the partial-word null check, the write access left open on a failed
 * argument check, NaN); in ordered fields the first value of each pass must
 * also fit between its neighbours in the target leaf.
 *   VEL_S_OK
 *   VEL_E_ILLEGAL_PARAM     pos greater than the count (pos != 0 on an empty
 *                           field)
 *   VEL_E_SEQ_NULL_VALUE, VEL_E_SEQ_OUT_OF_ORDER, VEL_E_NOMEM, host codes
 *                           as for append
 * Kept: every single-value insert into a full leaf opens a page for that one
 * value, and a full inner page passes one entry to a new sibling, so a field
 * fed by many single inserts grows far more pages than its values need and
 * deepens toward the 14 levels an iterator can walk.  Insert in batches, or go through the
 * C++ API, whose insert compacts a degraded field through velhost.
 *
 * ---- vel_w_seq_delete_<S>(obj, u, c, fld_no, from, till, order)
 * Removes the elements at positions from..till; later elements move down.
 * A range running past the end is cut at the end; till < from deletes
 * nothing; pages left empty are freed and a field left empty has no tree
 * (as after truncate).  Pages are never merged and the tree keeps its depth.
 * In an ordered field the key of a child that lost its first elements is
 * not refreshed: it stays no greater than the child's first value, so
 * searches stay right, but velh_check_tree's key check reports it.
 * `order` is not checked against the data.
 *   VEL_S_OK
 *   host codes              write access refused
 *   VEL_E_NOMEM, host codes a page copy failed on the way down (what was
 *                           done already stays)
 * Kept: `from` more than one past the end of a field whose whole tree is one
 * leaf is a fatal trap, while on a taller tree it deletes nothing.
 *
 * ---- vel_w_seq_subseq_<S>(obj, u, c, iterator, from, till)
 * Sets `iterator` up over positions from..till of the field (a `till` past
 * the end, e.g. all ones, runs to the end; last_seq_no keeps it as given).
 * `next` then delivers tiles of up to 128 elements with their null bits,
 * VEL_S_CURSOR_END after the last, and `reset` starts over.  The iterator
 * reads the tree as it was at set-up, within the caller's transaction; do
 * not use it after that transaction ends.
 *   VEL_S_OK
 *   VEL_S_NOTFOUND          till < from, empty field or from past the end;
 *                           the iterator is set up over an empty range
 *                           (first_seq_no = next_seq_no = 1, last_seq_no = 0)
 *   VEL_E_NOMEM, host codes a page missing on the path, read access refused
 *                           (the iterator untouched)
 *
 * ---- vel_w_seq_sequence_<S>(trans, class_code, fld_offset, iterator)
 * vel_w_seq_sequence with elem_type and elem_size set for S: a plain
 * scalar field of type T of every object of the class, as one sequence.
 *
 * ---- vel_w_seq_search_<S>(obj, u, c, iterator, low, low_boundary, high, high_boundary, order)
 * For an ordered field: sets `iterator` up over the positions of the
 * elements between `low` and `high` (each bound open, inclusive or
 * exclusive; "between" in the field's order, so for a descending field
 * `low` is the larger value), found by a descent through the inner keys.
 * The iterator then delivers like subseq; first_seq_no..last_seq_no is the
 * range found (last_seq_no all ones when `high` is open).
 *   VEL_S_OK
 *   VEL_S_NOTFOUND          no element in the range, or empty field; the
 *                           iterator is left over an empty range
 *   VEL_E_NOMEM, host codes as for subseq
 * Kept: the search trusts `order`.  Any order but ascending searches as
 * descending (VEL_SEQ_NO_ORDER included, whose tree has no keys: the result
 * is meaningless, with no error).  Any boundary kind other than open and
 * inclusive counts as exclusive.  Reversed bounds are not refused: they give
 * an empty range.  A NaN bound or a stored NaN that the binary search meets
 * counts as inside the range.
 *
 * ---- vel_w_seq_store_<S>(obj, u, c, fld_no, src, order)
 * Drains `src` tile by tile and appends every tile, with its null bits, to
 * the field through vel_w_seq_append_<S> (same checks).  An empty source
 * stores nothing.
 *   VEL_S_OK
 *   any code of src->next other than VEL_S_CURSOR_END, or of the append
 *                           (e.g. VEL_E_SEQ_OUT_OF_ORDER, VEL_E_SEQ_NULL_VALUE)
 *                           the tiles appended before stay
 *
 * ---- vel_w_seq_map_<S>(obj, u, c, iterator, map_iterator)
 * Sets `iterator` up as a gather: each `next` takes one tile of positions
 * from `map_iterator` (elements of type VEL_DD_UINT8: a join, or a scan of a
 * uint8 field) and delivers the field's elements at those positions, with
 * their null bits.  `map_iterator` becomes bound until a reset.  The field's
 * tree is the one read at set-up.
 *   VEL_S_OK
 *   VEL_E_ILLEGAL_TYPE      map_iterator does not deliver VEL_DD_UINT8
 *   VEL_E_SEQ_BOUNDED       map_iterator already bound and
 *                           vel_seq_check_bindings set
 *   host codes              read access refused
 * From `next`: VEL_S_OK; map_iterator's own codes (VEL_S_CURSOR_END at its
 * end); VEL_S_NOTFOUND for a position at or past the field's end (the tile
 * is abandoned); VEL_E_NOMEM when the field is empty and a position comes.
 *
 * ---- vel_w_seq_project_<S>(obj, u, c, dst, src)
 * Sets `dst` up as subseq of this field over the positions `src` still has
 * to deliver (src->next_seq_no .. src->last_seq_no): the range a search
 * found on one field, read from another field of the same object.  `src` is
 * only read, not advanced, bound or type-checked.
 *   codes as subseq (VEL_S_NOTFOUND for a range empty or past the end)
 *
 * ---- vel_w_seq_join_<S>(obj, u, c, result, join_with, order)
 * For an ordered field: sets `result` up to deliver, for each value that
 * `join_with` delivers, the position (a VEL_DD_UINT8 element) of the first
 * element of the field that is not before the value in the field's order
 * (ascending: the first element >= the value).  Each value is looked up
 * from the root on its own; join_with's nulls are looked up by whatever
 * their slots hold.  Feed `result` to a map to read values there.
 * `join_with` becomes bound.
 *   VEL_S_OK
 *   VEL_E_ILLEGAL_PARAM     order is VEL_SEQ_NO_ORDER
 *   VEL_E_SEQ_BOUNDED       join_with already bound and
 *                           vel_seq_check_bindings set
 *   VEL_S_NOTFOUND          empty field (join_with stays bound, `result` is
 *                           only half set up: do not call its `next`)
 *   host codes              read access refused
 * From `next`: VEL_S_OK; join_with's own codes (VEL_S_CURSOR_END at its end).
 * Kept: a value past every element (greater than the last, ascending) ends
 * the whole batch with VEL_S_NOTFOUND: the tile of that `next` is abandoned,
 * the probes before it in the tile included, and there is no "last element
 * at or before" answer.  The C++ API's as-of toolkit answers every probe.
 *
 * ---- vel_w_seq_from_cursor_<S>(trans, u, c, class_code, iterator, cursor)
 * Sets `iterator` up to deliver, as one stream, the elements of this
 * sequence field of every object a host cursor visits: the first object's
 * elements, then the second's, with no marker between objects (empty
 * fields contribute nothing).  Tiles are full (128) except the last.
 *   VEL_S_OK                always, from set-up
 * From `next`: VEL_S_OK; VEL_S_CURSOR_END when the cursor is exhausted or
 * empty; any code of the cursor, object or read-access services.
 * Kept: the `cursor` argument is not used: the scan walks the cursor found
 * in the iterator's context (iterator->context, the `cursor` member of
 * vel_seq_iterator_context_t), which the caller stores there before the
 * first `next`.  In a tile that gathers elements of several objects only
 * the null bits of the last object's elements survive; earlier ones read
 * as not null.
 */

#define VEL_SEQ_DECLARE_TYPED(S, T)                                                                \
    VEL_SEQ_API VEL_RET vel_w_seq_append_##S(                                                      \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, const T *vals, vel_size_t n_vals, vel_seq_order_t order,                  \
        const vel_bitmap_word_t *null_bitmap);                                                     \
    VEL_SEQ_API VEL_RET vel_w_seq_first_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,        \
                                            vel_offs32_t fld_c_offset, T *val);                    \
    VEL_SEQ_API VEL_RET vel_w_seq_last_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,         \
                                           vel_offs32_t fld_c_offset, T *val);                     \
    VEL_SEQ_API VEL_RET vel_w_seq_insert_##S(                                                      \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, vel_seq_no_t pos, const T *vals, vel_size_t n_vals,                       \
        vel_seq_order_t order, const vel_bitmap_word_t *null_bitmap);                              \
    VEL_SEQ_API VEL_RET vel_w_seq_delete_##S(                                                      \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, vel_seq_no_t from, vel_seq_no_t till, vel_seq_order_t order);             \
    VEL_SEQ_API VEL_RET vel_w_seq_subseq_##S(                                                      \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h iterator, vel_seq_no_t from, vel_seq_no_t till);                        \
    VEL_SEQ_API VEL_RET vel_w_seq_sequence_##S(vel_trans_h trans, uint16_t class_code,             \
                                               vel_offs32_t fld_offset,                            \
                                               vel_seq_iterator_h iterator);                       \
    VEL_SEQ_API VEL_RET vel_w_seq_search_##S(                                                      \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h iterator, T low, vel_seq_boundary_kind_t low_boundary, T high,          \
        vel_seq_boundary_kind_t high_boundary, vel_seq_order_t order);                             \
    VEL_SEQ_API VEL_RET vel_w_seq_store_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,        \
                                            vel_offs32_t fld_c_offset, uint16_t fld_no,            \
                                            vel_seq_iterator_h src, vel_seq_order_t order);        \
    VEL_SEQ_API VEL_RET vel_w_seq_map_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,          \
                                          vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator,  \
                                          vel_seq_iterator_h map_iterator);                        \
    VEL_SEQ_API VEL_RET vel_w_seq_project_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,      \
                                              vel_offs32_t fld_c_offset, vel_seq_iterator_h dst,   \
                                              vel_seq_iterator_h src);                             \
    VEL_SEQ_API VEL_RET vel_w_seq_join_##S(vel_objhandle_h obj, vel_offs32_t fld_u_offset,         \
                                           vel_offs32_t fld_c_offset, vel_seq_iterator_h result,   \
                                           vel_seq_iterator_h join_with, vel_seq_order_t order);   \
    VEL_SEQ_API VEL_RET vel_w_seq_from_cursor_##S(                                                 \
        vel_trans_h trans, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                   \
        uint16_t class_code, vel_seq_iterator_h iterator, vel_cursor_h cursor);

/* Every scalar element type, once, for whatever is generated per type here
   and in the layers above: X(S, T, DD) with S the suffix of the typed
   functions, T the C type and DD the suffix of its VEL_DD_ codes
   (VEL_DD_DD, VEL_DD_SEQUENCE_DD).  The char(N) family stands apart: its
   width comes at run time. */
#define VEL_SEQ_SCALAR_TYPES(X)                                                                    \
    X(int1, vel_int1, INT1)                                                                        \
    X(int2, vel_int2, INT2)                                                                        \
    X(int4, vel_int4, INT4)                                                                        \
    X(int8, vel_int8, INT8)                                                                        \
    X(uint1, vel_uint1, UINT1)                                                                     \
    X(uint2, vel_uint2, UINT2)                                                                     \
    X(uint4, vel_uint4, UINT4)                                                                     \
    X(uint8, vel_uint8, UINT8)                                                                     \
    X(float, vel_float, FLOAT)                                                                     \
    X(double, vel_double, DOUBLE)                                                                  \
    X(datetime, vel_datetime, DATETIME)

#define VEL_SEQ_DECLARE_(S, T, DD) VEL_SEQ_DECLARE_TYPED(S, T)
VEL_SEQ_SCALAR_TYPES(VEL_SEQ_DECLARE_)
#undef VEL_SEQ_DECLARE_
#undef VEL_SEQ_DECLARE_TYPED

/* ---- fixed-width character elements: `size` bytes each ------------------ */

/* The char(N) family: each function does what its typed namesake above does,
   element for element, with `size` the declared width N of the field (given
   on every call and never checked: pass the field's width).  Elements are
   opaque runs of `size` bytes, compared bytewise (vel_memcmp) and passed by
   pointer (first/last fill a `size`-byte buffer; search takes pointers to
   its bounds).  Iterators carry VEL_DD_CHAR and elem_size = size.  Codes as
   for the typed family.  Differences kept on purpose:
   - vel_w_seq_join_char takes no `size` (the width comes from join_with).
   - vel_w_seq_search_char: when no element lies past `high`, the range runs
     to the end with last_seq_no all ones instead of the count - 1, and an
     empty result always leaves first_seq_no = next_seq_no = 1,
     last_seq_no = 0.
   - The map of char fields reads tile slot i at the position the positions
     tile gives, without adding the map iterator's first_seq_no (0 after
     set-up, so the two families differ only if a caller moves it).
   - vel_w_seq_from_cursor_char ignores `cursor` like the typed members. */

VEL_SEQ_API VEL_RET vel_w_seq_sequence_char(vel_trans_h trans, uint16_t class_code,
                                            vel_offs32_t fld_offset, vel_seq_iterator_h iterator,
                                            size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_delete_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                          vel_offs32_t fld_c_offset, uint16_t fld_no,
                                          vel_seq_no_t from, vel_seq_no_t till,
                                          vel_seq_order_t order, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_subseq_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                          vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator,
                                          vel_seq_no_t from, vel_seq_no_t till, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_map_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                       vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator,
                                       vel_seq_iterator_h map_iterator, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_from_cursor_char(vel_trans_h trans, vel_offs32_t fld_u_offset,
                                               vel_offs32_t fld_c_offset, uint16_t class_code,
                                               vel_seq_iterator_h iterator, vel_cursor_h cursor,
                                               size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_first_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                         vel_offs32_t fld_c_offset, char *val, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_last_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                        vel_offs32_t fld_c_offset, char *val, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_append_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                          vel_offs32_t fld_c_offset, uint16_t fld_no,
                                          const char *vals, vel_size_t n_vals,
                                          vel_seq_order_t order, size_t size,
                                          const vel_bitmap_word_t *null_bitmap);
VEL_SEQ_API VEL_RET vel_w_seq_insert_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                          vel_offs32_t fld_c_offset, uint16_t fld_no,
                                          vel_seq_no_t pos, const char *vals, vel_size_t n_vals,
                                          vel_seq_order_t order, size_t size,
                                          const vel_bitmap_word_t *null_bitmap);
VEL_SEQ_API VEL_RET vel_w_seq_project_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                           vel_offs32_t fld_c_offset, vel_seq_iterator_h dst,
                                           vel_seq_iterator_h src, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_search_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                          vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator,
                                          const char *low, vel_seq_boundary_kind_t low_boundary,
                                          const char *high, vel_seq_boundary_kind_t high_boundary,
                                          vel_seq_order_t order, size_t size);
VEL_SEQ_API VEL_RET vel_w_seq_join_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                        vel_offs32_t fld_c_offset, vel_seq_iterator_h result,
                                        vel_seq_iterator_h join_with, vel_seq_order_t order);
VEL_SEQ_API VEL_RET vel_w_seq_store_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                         vel_offs32_t fld_c_offset, uint16_t fld_no,
                                         vel_seq_iterator_h src, vel_seq_order_t order,
                                         size_t size);

#ifdef __cplusplus
}
#endif

#endif /* VELSEQ_H */
