/*
 * velseq/arrow.h -- tables in and out through the Arrow C data interface,
 * and Parquet through DuckDB's C library loaded at run time.
 *
 * A table is a class of the database (velembed.h); its rows are the
 * positions of its objects' sequence fields, object after object, with an
 * `oid` column naming the object (uint64) and each scalar field repeated
 * on every row of its object.  The sequence fields of one object must hold
 * the same number of values.
 *
 * Types, both ways:
 *
 *   velseq           Arrow format       Arrow type
 *   int1..int8       c s i l            int8 .. int64
 *   uint1..uint8     C S I L            uint8 .. uint64
 *   float, double    f g                float32, float64
 *   datetime         tsn:UTC            timestamp[ns, UTC]
 *   char(N)          u  (or w:N)        utf8, trailing NULs dropped (or
 *                                       fixed_size_binary[N], exact)
 *
 * Import also takes tsu/tsm/tss (scaled to nanoseconds, overflow refused),
 * timestamps without a time zone, large utf8 (U) and utf8 into an existing
 * char(N) field.
 *
 * Every function returns VEL_S_OK or an error code (velseq.h, or the
 * VELT_E_ codes below), with a sentence in velt_error_message().
 */
#ifndef VELSEQ_ARROW_H
#define VELSEQ_ARROW_H

#include <stddef.h>
#include <stdint.h>

#include "velembed.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- the Arrow C data and stream interfaces, as Arrow publishes them ----
   (guarded so that another library's identical definitions may come first) */
#ifndef ARROW_C_DATA_INTERFACE
#define ARROW_C_DATA_INTERFACE

#define ARROW_FLAG_DICTIONARY_ORDERED 1
#define ARROW_FLAG_NULLABLE 2
#define ARROW_FLAG_MAP_KEYS_SORTED 4

struct ArrowSchema {
    const char *format;
    const char *name;
    const char *metadata;
    int64_t flags;
    int64_t n_children;
    struct ArrowSchema **children;
    struct ArrowSchema *dictionary;
    void (*release)(struct ArrowSchema *);
    void *private_data;
};

struct ArrowArray {
    int64_t length;
    int64_t null_count;
    int64_t offset;
    int64_t n_buffers;
    int64_t n_children;
    const void **buffers;
    struct ArrowArray **children;
    struct ArrowArray *dictionary;
    void (*release)(struct ArrowArray *);
    void *private_data;
};

#endif /* ARROW_C_DATA_INTERFACE */

#ifndef ARROW_C_STREAM_INTERFACE
#define ARROW_C_STREAM_INTERFACE

struct ArrowArrayStream {
    int (*get_schema)(struct ArrowArrayStream *, struct ArrowSchema *out);
    int (*get_next)(struct ArrowArrayStream *, struct ArrowArray *out);
    const char *(*get_last_error)(struct ArrowArrayStream *);
    void (*release)(struct ArrowArrayStream *);
    void *private_data;
};

#endif /* ARROW_C_STREAM_INTERFACE */

/* An optional library (DuckDB's, for Parquet) could not be loaded. */
#define VELT_E_UNAVAILABLE 930

/* The calling thread's sentence on its last failed call ("" if none). */
const char *velt_error_message(void);

/* ---- export --------------------------------------------------------------- */

typedef struct velt_export_t_ {
    const char *table;          /* the class's name */
    const char *const *columns; /* fields to export, in this order; NULL:
                                   every field in definition order */
    size_t n_columns;
    const char *oid_column; /* name of the object column; NULL: "oid";
                               "": no such column */
    const uint64_t *oids;   /* objects to export, in this order; NULL:
                               every object in creation order */
    size_t n_oids;
    uint64_t first, last;    /* positions [first, last) of each object,
                                cut to its length; last 0: to the end */
    vel_bool by_time;        /* rows whose time lies in [from, to) instead
                                (of the first ascending datetime field) */
    int64_t from, to;        /* nanoseconds since 1970 */
    uint32_t batch_rows;     /* rows of a batch at most; 0: one leaf of the
                                first field's page tree per batch, whose
                                values are then not copied */
    vel_bool char_as_binary; /* char(N) as fixed_size_binary[N] */
    vel_bool naive_time;     /* datetime as timestamp[ns] without a zone */
    void (*progress)(uint64_t rows_done, uint64_t rows_total, void *ctx);
    void *progress_ctx;
    vel_db_connection_h con; /* NULL: a read transaction of the export's
                                own; else this connection's open
                                transaction, as it sees the table, which
                                must stay open, without updates to the
                                fields exported, until the stream and its
                                batches are released */
} velt_export_t;

/* Sets every option to its default: every field of every object, batches
   of 65536 rows, zero for the rest. */
void velt_export_init(velt_export_t *opts);

/* Opens a stream of the table's rows, one record batch (an Arrow struct
   array) per slice of leaves, each object's rows in position order.  The
   stream reads one snapshot: opts->con's, or a read transaction of its own
   that its release and the release of the last batch it gave end (until
   then velh_db_close(db) is refused with VEL_E_HOST_BUSY).  Values of a batch
   that lies within one leaf of a field are the page's own; validity
   bitmaps are made from the leaves' null masks.  get_next may be called
   from any thread, one call at a time.  Refused before anything is
   opened: an unknown table, field or object, sequence fields of one object
   holding different numbers of values, a field named as the oid column.
   A char(N) value that is not UTF-8 text is found when its batch is made:
   get_next fails (EINVAL) and get_last_error says which field. */
VEL_RET velt_export_arrow(velh_db_t *db, const velt_export_t *opts, struct ArrowArrayStream *out);

/* ---- import --------------------------------------------------------------- */

typedef struct velt_import_t_ {
    const char *table;      /* the class; defined from the stream's schema when
                               absent (sequence fields; the time field below
                               ascending; char widths from a field's metadata
                               "velseq.width" or the longest value, see below) */
    const char *oid_column; /* NULL: "oid".  A column of this name sends each row to
                               the object of its value (new objects, one per value, in
                               the order values first appear); without one every
                               row goes to one new object */
    const char *time;       /* the ascending field of a new table; NULL: its first
                               timestamp column */
    uint16_t char_width;    /* width of a new table's utf8 fields without metadata;
                               0: refused */
} velt_import_t;

void velt_import_init(velt_import_t *opts);

/* Appends the stream's rows to the table in one write transaction of its
   own, batch by batch, and releases the stream.  Columns are matched to
   fields by name; a field the stream lacks is refused, as are unknown
   columns, types that do not convert exactly, values out of order (each
   checked once, against the object's last value), text longer than its
   field and a scalar field whose value differs between rows of one object.
   A refusal or failure rolls the whole import back (a class defined by it
   stays, empty).  *rows (may be NULL) receives the rows imported. */
VEL_RET velt_import_arrow(velh_db_t *db, const velt_import_t *opts, struct ArrowArrayStream *in,
                          uint64_t *rows);

/* ---- Parquet, through DuckDB -------------------------------------------------
 * DuckDB's shared library is loaded at the first call from $VELSEQ_DUCKDB,
 * else "libduckdb.so" on the library path; VELT_E_UNAVAILABLE when neither
 * loads (scripts/fetch-duckdb.sh fetches it). */

#define VELT_PARTITION_OBJECT 1 /* DIR/oid=N/... */
#define VELT_PARTITION_DAY 2    /* .../day=YYYY-MM-DD/... (of the time field, UTC) */
#define VELT_PARTITION_MONTH 4  /* .../month=YYYY-MM/... */

/* Writes the rows of `opts` to DIR as Parquet files, hive-style: one file
   data.parquet per partition, rows in position order, the partition
   values in the folder names only.  DIR must not exist or be empty.  The
   files' key-value metadata names the table ("velseq.table") and its
   ascending field ("velseq.order"). */
VEL_RET velt_to_parquet(velh_db_t *db, const velt_export_t *opts, const char *dir,
                        unsigned partition);

/* Imports every *.parquet file under DIR (or the file DIR), files in path
   order (numbers in names compared as numbers), as velt_import_arrow does;
   the oid of a file's rows comes from a folder "oid=N" of its path, else
   from its oid column.  Partition folders other than oid are dropped. */
VEL_RET velt_from_parquet(velh_db_t *db, const velt_import_t *opts, const char *dir,
                          uint64_t *rows);

#ifdef __cplusplus
}
#endif

#endif /* VELSEQ_ARROW_H */
