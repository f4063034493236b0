/*
 * velseq.h -- public interface of the velseq sequence module.
 *
 * A sequence is an ordered vector of scalar values of one element type kept
 * in a database object's field as a copy-on-write, reference-counted page
 * tree.  The module is reached through the exported `vel_w_seq_*` wrappers
 * and reads sequences back tile by tile through caller-owned iterators.
 *
 * This header is plain C11 and usable from C++.  The host records and the
 * services the module calls are declared in velhost.h.
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
    VEL_E_HOST_TREE_DEPTH = 912    /* a sequence tree deeper than VEL_SEQ_MAX_DEPTH levels */
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

/* Non-zero: map and join refuse an operand that is already bound. */
extern VEL_SEQ_API vel_bool vel_seq_check_bindings;

/* ---- untyped operations ------------------------------------------------- */

VEL_SEQ_API VEL_RET vel_w_seq_count(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                    vel_offs32_t fld_c_offset, vel_seq_no_t *count);
VEL_SEQ_API VEL_RET vel_w_seq_truncate(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                       vel_offs32_t fld_c_offset, uint16_t fld_no);
VEL_SEQ_API VEL_RET vel_seq_delete(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                   vel_offs32_t fld_c_offset, uint16_t fld_no, vel_seq_no_t from,
                                   vel_seq_no_t till, vel_seq_order_t order, vel_size_t elem_size);
VEL_SEQ_API VEL_RET vel_w_seq_sequence(vel_trans_h trans, uint16_t class_code,
                                       vel_offs32_t fld_offset, vel_seq_iterator_h iterator);
VEL_SEQ_API void vel_seq_copy_bitmap(vel_bitmap_word_t *dst, int dstindx,
                                     const vel_bitmap_word_t *src, int srcindx, int length);
VEL_SEQ_API vel_bool vel_seq_bitmap_contains_nulls(const vel_bitmap_word_t *bitmap, int length);
VEL_SEQ_API VEL_RET vel_seq_reset_iterator(vel_seq_iterator_h iterator);
VEL_SEQ_API VEL_RET vel_seq_reset_unary_iterator(vel_seq_iterator_h iterator);
VEL_SEQ_API VEL_RET vel_seq_reset_binary_iterator(vel_seq_iterator_h iterator);
VEL_SEQ_API vel_seq_rle_count_t vel_seq_rle_count(vel_seq_iterator_h iterator, int pos);
VEL_SEQ_API vel_bool vel_seq_is_rle(void);

/* ---- typed operations: one set per scalar element type ------------------ */

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

VEL_SEQ_DECLARE_TYPED(int1, vel_int1)
VEL_SEQ_DECLARE_TYPED(int2, vel_int2)
VEL_SEQ_DECLARE_TYPED(int4, vel_int4)
VEL_SEQ_DECLARE_TYPED(int8, vel_int8)
VEL_SEQ_DECLARE_TYPED(uint1, vel_uint1)
VEL_SEQ_DECLARE_TYPED(uint2, vel_uint2)
VEL_SEQ_DECLARE_TYPED(uint4, vel_uint4)
VEL_SEQ_DECLARE_TYPED(uint8, vel_uint8)
VEL_SEQ_DECLARE_TYPED(float, vel_float)
VEL_SEQ_DECLARE_TYPED(double, vel_double)
VEL_SEQ_DECLARE_TYPED(datetime, vel_datetime)

#undef VEL_SEQ_DECLARE_TYPED

/* ---- fixed-width character elements: `size` bytes each ------------------ */

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
