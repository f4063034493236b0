/*
 * veltools.h -- tools over sequence fields: page-tree statistics and a
 * readable dump of the page tree, as `velseq tree` prints them.
 *
 * The tree walks are read-only: they fetch the field root and follow the page
 * layout of velseq.h (header, leaf values, null mask at the page end, inner
 * entries growing down from the page end, keys of ordered inner pages after
 * the header).  The walks check that layout as they go and report the first
 * page that breaks it instead of following it further.
 *
 * Every function returns VELT_OK (0), a positive VEL_RET passed on from the
 * module or the host, or a negative VELT_E_* code of the tools.
 */
#ifndef VELTOOLS_H
#define VELTOOLS_H

#include <stdio.h>

#include "velembed.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VELT_OK 0
#define VELT_E_BAD_TREE (-1) /* the page tree breaks the page layout */
#define VELT_E_ARG (-4)      /* unknown element type */

/* An element type: VEL_DD_* of one element and its size (char: N). */
typedef struct velt_type_t_ {
    uint8_t elem_type;
    uint16_t elem_size;
} velt_type_t;

/* "int1" .. "datetime", "char(N)" for characters; "?" if unknown. */
void velt_type_name(velt_type_t type, char *buf, size_t size);
/* VEL_DD_SEQUENCE_* of a field holding elements of `type`; 0 if unknown. */
uint8_t velt_sequence_code(velt_type_t type);

/* A sequence field of an open object. */
typedef struct velt_field_t_ {
    vel_offs32_t u_offset;
    vel_offs32_t c_offset;
    uint16_t fld_no;
    velt_type_t type;
    vel_seq_order_t order; /* the order appends declare and the keys follow */
} velt_field_t;

/* Where and why a walk stopped. */
typedef struct velt_error_t_ {
    int code;       /* as returned */
    uint64_t index; /* the depth-first ordinal (#k) of the page at fault */
    char message[200];
} velt_error_t;

/* ---- page tree ----------------------------------------------------------- */

typedef struct velt_tree_stats_t_ {
    int32_t page_size;
    uint32_t depth; /* levels; 0 for an empty field */
    uint64_t pages;
    uint64_t pages_at_level[VEL_SEQ_MAX_DEPTH]; /* level 0 is the root */
    uint64_t leaf_pages;
    uint64_t inner_pages;
    uint64_t shared_pages;   /* reference count above 1 */
    uint64_t leaf_capacity;  /* values a leaf holds */
    uint64_t inner_capacity; /* children an inner page holds */
    uint64_t leaf_fill_min;  /* values in the emptiest leaf */
    uint64_t leaf_fill_max;
    double leaf_fill_avg; /* mean values per leaf */
    uint64_t elements;
    uint64_t nulls;
    /* pages * page_size, against the bytes the layout gives meaning to: the
       8-byte header, leaf values and the leaf's whole null mask, inner
       entries and (ordered fields) inner keys. */
    uint64_t bytes_allocated;
    uint64_t bytes_used;
} velt_tree_stats_t;

/* Walks the field's tree and fills `st`.  VELT_E_BAD_TREE with the page in
   `err->message` when a page breaks the layout (kind, fill, leaf depth,
   entry counts against subtree sizes, depth above VEL_SEQ_MAX_DEPTH). */
int velt_tree_stats(vel_objhandle_h obj, const velt_field_t *f, velt_tree_stats_t *st,
                    velt_error_t *err);
/* Prints `st` as labelled lines. */
void velt_print_stats(FILE *out, const velt_tree_stats_t *st);

typedef struct velt_dump_options_t_ {
    uint32_t preview;    /* values shown per leaf (0: none) */
    uint32_t char_bytes; /* bytes shown of a char value before "..." */
} velt_dump_options_t;

/* Prints the tree page by page in depth-first order.  Pages are named #k by
   that order: each inner page lists its entries (child, count, and the key
   for ordered fields), each leaf its value and null counts and a preview. */
int velt_dump_tree(vel_objhandle_h obj, const velt_field_t *f, FILE *out,
                   const velt_dump_options_t *opt, velt_error_t *err);

#ifdef __cplusplus
}
#endif

#endif /* VELTOOLS_H */
