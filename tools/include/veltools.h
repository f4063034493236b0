/*
 * veltools.h -- tools over sequence fields: page-tree statistics, a readable
 * dump of the page tree, CSV import/export of one column, and typed append /
 * scan / search helpers over the module's public operations.
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
#define VELT_E_BAD_TREE (-1)    /* the page tree breaks the page layout */
#define VELT_E_PARSE (-2)       /* a CSV cell is not a value of the element type */
#define VELT_E_IO (-3)          /* reading or writing a stream failed */
#define VELT_E_ARG (-4)         /* unknown type name, bad width, bad range */
#define VELT_E_UNSUPPORTED (-5) /* char wider than VELT_MAX_SCAN_WIDTH through an iterator */
#define VELT_E_NOMEM (-6)

/* "VEL_E_SEQ_OUT_OF_ORDER", "VELT_E_PARSE", ...; "?" for an unknown code. */
const char *velt_code_name(int code);

/* Iterator tiles carry 128 elements in 4096 bytes, so scans, searches and
   exports handle char(N) only up to this width; appends and tree walks take
   any width the host accepts. */
#define VELT_MAX_SCAN_WIDTH 32

/* An element type: VEL_DD_* of one element and its size (char: N). */
typedef struct velt_type_t_ {
    uint8_t elem_type;
    uint16_t elem_size;
} velt_type_t;

/* Parses "int1".."int8", "uint1".."uint8", "float", "double", "datetime",
   "char(N)" or "charN" (1 <= N <= 4096).  VELT_E_ARG for anything else. */
int velt_type_parse(const char *name, velt_type_t *type);
/* The name velt_type_parse accepts ("char(N)" for characters); "?" if unknown. */
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

/* Where and why an operation stopped. */
typedef struct velt_error_t_ {
    int code;       /* as returned */
    uint64_t line;  /* 1-based line of the CSV source, 0 if none */
    uint64_t index; /* element index in the column or sequence */
    char message[200];
} velt_error_t;

/* ---- a column of values in memory --------------------------------------- */

typedef struct velt_column_t_ {
    velt_type_t type;
    uint64_t n;
    uint64_t capacity;
    uint8_t *values;          /* n * elem_size bytes; null slots are zero */
    vel_bitmap_word_t *nulls; /* bit i set: value i is null */
    uint64_t *lines;          /* CSV line of each value; NULL when not read from CSV */
} velt_column_t;

void velt_column_init(velt_column_t *col, velt_type_t type);
void velt_column_free(velt_column_t *col);
/* Appends one value of elem_size bytes, or a null when value is NULL. */
int velt_column_push(velt_column_t *col, const void *value);
/* Nonzero when value i is null. */
int velt_column_is_null(const velt_column_t *col, uint64_t i);

/* ---- CSV -----------------------------------------------------------------
 * Records end at a newline (CRLF accepted); cells are split at commas and may
 * be quoted with '"' (a doubled quote inside stands for one, and a quoted cell
 * may span lines).  An unquoted empty cell is a null; for char(N) the quoted
 * empty cell "" is the empty string.  Numbers may be surrounded by blanks;
 * integers are decimal and range-checked, floats accept what strtod-style
 * parsing accepts (nan, inf included), datetime is ISO-8601 text (date,
 * date-time, fraction, Z or offset) or signed nanoseconds since 1970-01-01Z,
 * written as ISO-8601 (the convention of velseq/datetime.h).
 * A char(N) cell of fewer than N bytes is padded with NUL bytes; the writer
 * drops trailing NUL bytes, so padding round-trips. */

typedef struct velt_csv_options_t_ {
    uint32_t column; /* 0-based cell of each record to read */
    vel_bool header; /* skip the first record */
} velt_csv_options_t;

/* Reads one column into `col` (initialised here with `type`; free it even on
   failure).  On VELT_E_PARSE `err` names the line and the cell. */
int velt_csv_read(FILE *in, velt_type_t type, const velt_csv_options_t *opt, velt_column_t *col,
                  velt_error_t *err);
int velt_csv_read_buffer(const char *text, size_t len, velt_type_t type,
                         const velt_csv_options_t *opt, velt_column_t *col, velt_error_t *err);
/* Parses one cell's text (unquoted) as a value; VELT_E_PARSE if it is none.
   Blank text is not a value here. */
int velt_parse_value(velt_type_t type, const char *text, size_t len, void *value);
/* Writes the column, one value per record, with an optional header record. */
int velt_csv_write(FILE *out, const velt_column_t *col, const char *header);
/* A value as the CSV writer writes its cell (char values quoted when
   needed; NULL value: the empty cell of a null).  The length, or -1 when
   `size` is too small (2N + 3 bytes always suffice for char(N), 32 for
   numbers). */
int velt_format_value(velt_type_t type, const void *value, char *buf, size_t size);

/* ---- field operations through the module -------------------------------- */

/* Appends the column in chunks with the field's order.  A null in an ordered
   field is refused before the module is called (VEL_E_SEQ_NULL_VALUE).  When
   the module refuses a chunk, `err` carries its code and the line (and
   index) of the first value that breaks the order. */
int velt_append_column(vel_objhandle_h obj, const velt_field_t *f, const velt_column_t *col,
                       velt_error_t *err);
/* Appends elements from..till (inclusive, clipped to the field) to `out`,
   which must be initialised with the field's type. */
int velt_read_range(vel_objhandle_h obj, const velt_field_t *f, uint64_t from, uint64_t till,
                    velt_column_t *out);
/* Elements with low <= value <= high of an ordered field: their first
   position into *first and the values into `out` (initialised by the caller
   with the field's type).  VEL_S_NOTFOUND when there are none. */
int velt_search(vel_objhandle_h obj, const velt_field_t *f, const void *low, const void *high,
                uint64_t *first, velt_column_t *out);
/* Writes the whole field as CSV, tile by tile. */
int velt_export_csv(vel_objhandle_h obj, const velt_field_t *f, FILE *out, const char *header);

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
