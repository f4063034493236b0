/*
 * velembed.h -- public C API of velhost, the embedded in-memory host engine.
 *
 * velhost is a small object database living in the application's memory.
 * It keeps objects of user-defined classes with scalar fields and sequence
 * fields, gives every transaction a snapshot of the database (snapshot
 * isolation by versions), and serves the pages of sequence fields to the
 * sequence module (velseq) through the services of velhost.h.  Sequence pages
 * are shared between versions by reference counts and copied on write.
 *
 * Typical use:
 *
 *     velh_config_t cfg;  velh_config_init(&cfg);
 *     velh_db_t *db;      velh_db_open(&cfg, &db);
 *     velh_field_def_t f[] = {{"id", VEL_DD_UINT4, 0, 0},
 *                             {"ticks", VEL_DD_SEQUENCE_INT8, 0, VEL_SEQ_ASC_ORDER}};
 *     uint16_t cls;       velh_class_define(db, "quote", f, 2, 0, VELH_PM_INMEM, &cls);
 *     vel_db_connection_h con;  velh_connect(db, &con);
 *     velh_begin(con, VELH_READ_WRITE);
 *     vel_objhandle_t obj;      velh_obj_create(con, cls, &obj);
 *     velh_field_info_t fi;     velh_field_info(db, cls, 1, &fi);
 *     vel_w_seq_append_int8(&obj, fi.u_offset, fi.c_offset, fi.fld_no, vals, n, 0, NULL);
 *     velh_commit(con);
 *     velh_disconnect(con);  velh_db_close(db);
 *
 * Threads: a database may be used by several threads, each with its own
 * connection.  A connection and the handles and cursors made on it belong to
 * one thread at a time.  Readers never wait for writers.
 *
 * Every function returns VEL_S_OK or a VEL_E_HOST_* code (velseq.h) and
 * changes nothing when it fails, unless its comment says otherwise.
 */
#ifndef VELEMBED_H
#define VELEMBED_H

#include "velhost.h"
#include "velseq.h"

#ifdef __cplusplus
extern "C" {
#endif

/* ---- database ----------------------------------------------------------- */

typedef struct velh_db_t_ velh_db_t;

typedef struct velh_config_t_ {
    uint16_t object_page_size;              /* 128..65528, multiple of 8; an object
                                               page holds object_page_size - 24 data
                                               bytes (default 4096) */
    uint32_t seq_page_size;                 /* sequence page bytes, 64..65536, multiple
                                               of 8 (default 4096) */
    uint16_t additional_object_field_size;  /* bytes of host header in front of every
                                               object's fields (default 0) */
    vel_bool concurrent_write_transactions; /* 0: one read-write transaction at a
                                               time; 1: several, first updater of an
                                               object wins (default 0) */
    uint32_t warm_pages;                    /* pages of pm_inmem allocated and touched at open, so
                                               that later allocations come from a warm pool instead
                                               of fresh OS memory (default 0) */
    /* Durability (see "durability" below). */
    const char *log_path;  /* commit log file; NULL: no log (default) */
    int log_sync;          /* VELH_LOG_SYNC_* (default VELH_LOG_SYNC_COMMIT) */
    uint32_t log_group_ms; /* VELH_LOG_SYNC_GROUP: flush period (default 10) */
    uint32_t open_flags;   /* velh_db_open_file: VELH_OPEN_* (default 0) */
} velh_config_t;

/* Fills the defaults above. */
void velh_config_init(velh_config_t *cfg);

/* Opens a new, empty database. */
VEL_RET velh_db_open(const velh_config_t *cfg, velh_db_t **db);

/* Closes the database and releases everything in it.  VEL_E_HOST_BUSY while
   a connection is open (nothing is closed then).  VEL_E_HOST_IO when the
   final flush of its commit log failed: the database is closed all the
   same, and commits acknowledged since the last flush may not survive a
   crash of the machine. */
VEL_RET velh_db_close(velh_db_t *db);

/* ---- schema ------------------------------------------------------------- */

#define VELH_MAX_CLASSES 1024 /* class codes are 1..VELH_MAX_CLASSES - 1 */
#define VELH_MAX_FIELDS 1024  /* fields of one class */
#define VELH_MAX_NAME 65535   /* bytes of a class or field name */

/* Page managers a class may be placed in.  VELH_PM_INMEM is the connection's
   pm_inmem.  VELH_PM_ALT is a second page manager of the same page size: the
   module copies its pages on write only when concurrent_write_transactions
   is set; otherwise the host isolates versions itself by making a field's
   whole tree private at the first write of the field in a transaction. */
#define VELH_PM_INMEM 0
#define VELH_PM_ALT 1
#define VELH_PM_ALL (-1) /* velh_page_stats: both page managers */

#define VELH_MAX_SEQ_CHAR_WIDTH 32

typedef struct velh_field_def_t_ {
    const char *name; /* may be NULL (no name); copied; non-empty names are
                         unique within the class */
    uint8_t type;     /* VEL_DD_* scalar (VEL_DD_CHAR: fixed width) or
                         VEL_DD_SEQUENCE_* */
    uint16_t width;   /* bytes per value: VEL_DD_CHAR 1..4096,
                         VEL_DD_SEQUENCE_CHAR 1..VELH_MAX_SEQ_CHAR_WIDTH (the
                         most a tile's 4096-byte payload holds 128 of);
                         otherwise 0 */
    uint8_t order;    /* sequence fields: the declared order, a vel_seq_order_t
                         (VEL_SEQ_NO_ORDER, _ASC_ORDER, _DESC_ORDER), kept with
                         the class in images and the log and returned by
                         velh_field_info; the host does not enforce it (the
                         module's calls take it).  0 for scalar fields. */
} velh_field_def_t;

/* Defines a class.  flags: 0 or VEL_CLASS_COMPACT (the class's objects use
   the compact layout); pm: VELH_PM_INMEM or VELH_PM_ALT.  Classes may be
   defined at any time and are never dropped; they are coded 1.. in the order
   they were defined.  Fields are numbered 0.. in the order given (fld_no).
   VEL_E_HOST_LAYOUT if a field does not fit an object page,
   VEL_E_HOST_BAD_ARG for a bad type, width, order or flag, and (with a
   sentence in velh_error_message() naming it) for a non-empty class name
   another class has or a non-empty field name given twice;
   VEL_E_ILLEGAL_PARAM for a class or field name longer than VELH_MAX_NAME
   bytes.  With a commit log the definition is logged before it becomes
   visible; a failed log write refuses it (VEL_E_HOST_IO) and the class does
   not exist.  A log of an older format version keeps no declared orders:
   classes with one are refused (VEL_E_HOST_BAD_ARG) until a checkpoint
   starts a log of the current version.  VEL_E_HOST_READ_ONLY in a database
   opened read-only. */
VEL_RET velh_class_define(velh_db_t *db, const char *name, const velh_field_def_t *fields,
                          uint16_t n_fields, uint32_t flags, int pm, uint16_t *class_code);

/* Where a field lives.  Both layouts are always computed: u_offset for the
   uncompact layout (declaration order, natural alignment) and c_offset for
   the compact one (widest alignment first, no padding between fields);
   `offset` is the one the class uses.  An offset is relative to the object's
   position `mo`; the field's bytes never straddle an object page. */
typedef struct velh_field_info_t_ {
    uint16_t fld_no;
    uint8_t type;       /* VEL_DD_* as defined */
    uint16_t size;      /* bytes in the object: 8 for a sequence root */
    uint16_t elem_size; /* sequences: bytes per element; scalars: size */
    vel_offs32_t u_offset;
    vel_offs32_t c_offset;
    vel_offs32_t offset; /* c_offset for a compact class, else u_offset */
    const char *name;    /* NUL-terminated; "" when defined without one; valid
                            until velh_db_close */
    uint8_t order;       /* the declared order (0 for scalars) */
} velh_field_info_t;

VEL_RET velh_field_info(velh_db_t *db, uint16_t class_code, uint16_t fld_no,
                        velh_field_info_t *info);
/* Looks a field up by name; VEL_E_HOST_NO_FIELD if there is none. */
VEL_RET velh_field_by_name(velh_db_t *db, uint16_t class_code, const char *name,
                           velh_field_info_t *info);

/* The catalogue: what velh_class_define was given, as images and the log
   keep it. */
typedef struct velh_class_info_t_ {
    uint16_t code;     /* class code */
    const char *name;  /* "" when defined without one; valid until velh_db_close */
    uint16_t n_fields; /* fields 0..n_fields - 1: velh_field_info */
    uint32_t flags;    /* as given to velh_class_define */
    int pm;            /* VELH_PM_INMEM or VELH_PM_ALT */
} velh_class_info_t;

/* Classes are coded 1..velh_class_count(db), in the order they were
   defined (0 for a null db). */
uint16_t velh_class_count(velh_db_t *db);
/* VEL_E_HOST_NO_CLASS for an unknown code, VEL_E_HOST_BAD_ARG for null
   pointers. */
VEL_RET velh_class_info(velh_db_t *db, uint16_t class_code, velh_class_info_t *info);
/* Looks a class up by its whole name; VEL_E_HOST_NO_CLASS if there is none
   (the empty name finds none). */
VEL_RET velh_class_by_name(velh_db_t *db, const char *name, velh_class_info_t *info);

/* The page manager of VELH_PM_INMEM or VELH_PM_ALT (NULL otherwise). */
vel_page_manager_t *velh_page_manager(velh_db_t *db, int pm);

/* ---- connections and transactions --------------------------------------- */

VEL_RET velh_connect(velh_db_t *db, vel_db_connection_h *con);
/* Rolls back an open transaction, then frees the connection. */
VEL_RET velh_disconnect(vel_db_connection_h con);
velh_db_t *velh_db_of(vel_db_connection_h con);

#define VELH_READ_ONLY 0
#define VELH_READ_WRITE 1
#define VELH_NOWAIT                                                                                \
    2 /* or-ed to VELH_READ_WRITE: VEL_E_HOST_BUSY instead of                                      \
         waiting for the running writer */

/* Starts a transaction on the snapshot of the last commit.  Without
   concurrent_write_transactions a second read-write transaction waits until
   the first ends.  con->trans.error_code is cleared.  The transaction handle
   the module's calls take is &con->trans. */
VEL_RET velh_begin(vel_db_connection_h con, int mode);

/* Publishes the transaction's changes and ends it.  A transaction whose
   trans.error_code is non-zero, or one of whose sequence trees still refers
   to a page it freed (left so by an update that failed halfway: roll such a
   transaction back), is rolled back instead and the result is
   VEL_E_HOST_TRANS_FAILED.  Either way every sequence page the transaction
   created that no version references is freed; pages it freed become
   reusable when it ends.

   A failed update of a sequence field either changed nothing or dooms its
   transaction; the module cannot undo half an update.
   - Nothing changed: the refusals the module checks before it writes
     (VEL_E_ILLEGAL_PARAM, VEL_E_ILLEGAL_TYPE, VEL_E_SEQ_OUT_OF_ORDER,
     VEL_E_SEQ_NULL_VALUE, VEL_E_SEQ_BOUNDED) and the host's refusals of
     write access (VEL_E_HOST_READ_ONLY, _NO_OBJECT, _NO_FIELD, _CONFLICT,
     _TRANS_CLOSED, and VEL_E_NOMEM from making an ALT field's tree private
     before the module runs).
   - Doomed: a page the host could not make for the module (VEL_E_NOMEM), a
     prune that failed, or a trap whose handler unwound out of the module.
     Reads go on; further updates are refused with VEL_E_HOST_TRANS_FAILED;
     the commit rolls back and returns VEL_E_HOST_TRANS_FAILED, with a
     sentence in velh_error_message(). */
VEL_RET velh_commit(vel_db_connection_h con);

/* Discards the transaction's changes and ends it. */
VEL_RET velh_rollback(vel_db_connection_h con);

/* 1 while a transaction is open on the connection. */
vel_bool velh_in_transaction(vel_db_connection_h con);

/* ---- objects ------------------------------------------------------------ */

/* Creates an object with every field zero (sequences empty) and opens it. */
VEL_RET velh_obj_create(vel_db_connection_h con, uint16_t class_code, vel_objhandle_t *obj);

/* Opens the object `oid` as the transaction sees it.  VEL_E_HOST_NO_OBJECT if
   it does not exist there or belongs to another class. */
VEL_RET velh_obj_open(vel_db_connection_h con, uint16_t class_code, uint64_t oid,
                      vel_objhandle_t *obj);

/* Deletes the object with its sequences. */
VEL_RET velh_obj_delete(vel_objhandle_t *obj);

/* Reads / writes a scalar field; size must be the field's size (char(N): N).
   Sequence fields are refused with VEL_E_HOST_WRONG_FIELD. */
VEL_RET velh_get(const vel_objhandle_t *obj, uint16_t fld_no, void *value, size_t size);
VEL_RET velh_set(const vel_objhandle_t *obj, uint16_t fld_no, const void *value, size_t size);

/* Objects of a class visible to the transaction. */
VEL_RET velh_obj_count(vel_db_connection_h con, uint16_t class_code, uint64_t *count);

/* ---- cursors -------------------------------------------------------------
 * A cursor lives in caller memory (sizeof(vel_cursor_t) <= 232 bytes) and is
 * valid until its transaction ends.  After opening it stands before the
 * first object: vel_cursor_first / vel_cursor_next (velhost.h) move it and
 * return VEL_S_OK, VEL_S_CURSOR_END past the last object, or
 * VEL_E_HOST_TRANS_CLOSED in another transaction; vel_w_obj_from_cursor opens
 * the object under it (VEL_S_NOTFOUND when it stands on none).
 *
 * List cursor: vel_w_list_cursor(&con->trans, class_code, cursor) visits the
 * class's objects in creation order and returns VEL_S_CURSOR_EMPTY when the
 * class has none (the cursor is still opened); vel_cursor_first on an empty
 * list cursor returns VEL_S_CURSOR_END.
 *
 * Index cursor: orders the class's objects by a scalar field (ascending;
 * equal keys in creation order), as the transaction saw them when the cursor
 * was opened.  vel_cursor_first on an empty index cursor returns
 * VEL_S_NOTFOUND. */
struct vel_cursor_t_ {
    uint32_t magic; /* host private from here on */
    uint16_t kind;
    uint16_t class_code;
    uint64_t trans_serial; /* transaction that opened the cursor */
    uint64_t pos;          /* list: oid under the cursor; index: rank + 1 */
    uint64_t index_slot;   /* index: the transaction's index number */
    uint64_t reserved[4];
};

VEL_RET velh_index_cursor(vel_db_connection_h con, uint16_t class_code, uint16_t fld_no,
                          vel_cursor_t *cursor);

/* ---- shape and compaction of sequence fields ------------------------------
 * The module inserts by splitting: a full leaf keeps its capacity and gives
 * the inserted values (or its last ones) to a new right sibling, and a full
 * inner page gives one entry to a new sibling.  So every single-value insert
 * into a full leaf costs a page, and a field fed by late inserts one at a
 * time grows to about a hundred times the pages appends of the same values
 * need, its depth climbing towards VEL_SEQ_MAX_DEPTH levels, where the
 * module traps rather than build a tree no iterator can read.  Appends and
 * inserts of whole batches stay dense.
 *
 * The remedy: call velh_keep_compact after every insert or delete (the C++
 * API, the velseq program and the Python package do), or velh_compact after
 * a burst of inserts.  `order` is the field's declared order, as for every
 * module call on it. */

typedef struct velh_field_shape_t_ {
    uint32_t depth;       /* levels; 0 for an empty field */
    uint64_t pages;       /* pages of the tree, inner pages and leaves */
    uint64_t leaves;      /* of which leaves */
    uint64_t elements;    /* values, nulls included */
    uint64_t dense_pages; /* pages an append-built tree of the same values has */
} velh_field_shape_t;

/* The shape of a sequence field of an open object, read from its inner pages
   only (about one page in a hundred).  VEL_E_HOST_NO_FIELD,
   VEL_E_HOST_WRONG_FIELD for a scalar field; the object access codes. */
VEL_RET velh_field_shape(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order,
                         velh_field_shape_t *shape);

/* Rebuilds the field's tree in the caller's write transaction exactly as
   appends of its values would have built it (same values, null bits and
   order; every page full but the last of its level; keys of ordered fields
   the first values of their subtrees).  The old tree is released, not
   written: versions that share it keep it.  Takes one pass over the leaves
   at memory speed.  VEL_E_NOMEM leaves the field as it was;
   VEL_E_HOST_READ_ONLY outside a write transaction. */
VEL_RET velh_compact(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order);

#define VELH_COMPACT_MAX_DEPTH 8 /* levels velh_keep_compact allows */

/* Caller-owned state of velh_keep_compact for one field of one object in one
   transaction; zero it before first use.  A state used for another object,
   field or transaction is recognised and starts over. */
typedef struct velh_compact_state_t_ {
    uint64_t word[6];
} velh_compact_state_t;

/* Call after every insert or delete of n_changed values on the field (with
   the count of values changed since the last call when several calls came
   in between): keeps it at most VELH_COMPACT_MAX_DEPTH levels deep and at
   most twice the pages of its dense tree.  The state bounds how far the
   field can have grown since the last full look, so most calls read only
   the root and the tree's left edge.  A full look (the headers of the inner
   pages, about one page in 256) comes when that bound has grown by 1024
   pages or 1/128 of the dense pages since the last one, when it nears the
   page budget, or when the depth passes the dense tree's depth plus two.
   It repairs the tree where it degraded instead of rebuilding it: pages
   less than a third full share with a neighbour, neighbouring leaves that
   fit into one merge, the inner pages above them are rebuilt three quarters
   full, and, near the budget, the parents of leaves that waste the most
   have their leaves copied densely.  So single inserts cost about a leaf's
   worth of copying each at any field size, and a repair moves what the
   damage since the last look made, not the field.  The result is sound but
   not the tree appends build (velh_compact builds that, and keep-compact
   falls back on it when a repair would miss the limits: trees of one or
   two levels, pages too small for the limits).  Pages other versions share
   are kept by reference, never written.  Codes as velh_compact. */
VEL_RET velh_keep_compact(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order,
                          vel_size_t n_changed, velh_compact_state_t *state);

/* ---- testing and tools --------------------------------------------------- */

typedef struct velh_page_stats_t_ {
    uint64_t live;      /* pages allocated now */
    uint64_t allocated; /* allocations since open */
    uint64_t freed;     /* frees since open */
    uint64_t peak;      /* highest `live` since open or the last reset */
} velh_page_stats_t;

/* Sequence page accounting of one page manager, or of both with VELH_PM_ALL
   (whose peak is the sum of the two peaks). */
VEL_RET velh_page_stats(velh_db_t *db, int pm, velh_page_stats_t *stats);
void velh_reset_peak(velh_db_t *db);

/* Makes the nth sequence page allocation from now (1 = the next) fail with
   VEL_E_NOMEM; with `sticky` every later one fails too.  0 turns it off. */
void velh_fail_page_alloc(velh_db_t *db, uint64_t nth, vel_bool sticky);

/* Makes the nth vel_seq_prune from now (1 = the next) fail with VEL_E_NOMEM,
   releasing nothing.  0 turns it off. */
void velh_fail_prune(velh_db_t *db, uint64_t nth);

/* Handler of vel_stop__.  Without one, or when it returns, vel_stop__ prints
   the trap and aborts.  A C++ handler may throw to leave the trap. */
typedef void (*velh_trap_handler_t)(int code, const char *file, int line, void *ctx);
void velh_set_trap_handler(velh_trap_handler_t handler, void *ctx);

/* Walks the page tree of a sequence field of an open object and checks its
   invariants: page kinds, item counts within capacity (leaf, inner ordered or
   unordered), entry counts equal to subtree sizes, equal leaf depth, depth
   at most 14, reference counts >= 1; with check_keys, that every key of an
   ordered inner page is the first value of its subtree (true for trees built
   by appends).  Returns VEL_S_OK when the walk could be made; the verdict is
   in the report. */
typedef struct velh_tree_report_t_ {
    vel_bool ok;
    uint32_t depth; /* levels; 0 for an empty field */
    uint64_t pages;
    uint64_t elements;
    uint64_t nulls;
    char message[160]; /* first violation found */
} velh_tree_report_t;

VEL_RET velh_check_tree(const vel_objhandle_t *obj, uint16_t fld_no, vel_seq_order_t order,
                        vel_bool check_keys, velh_tree_report_t *report);

/* ---- durability: database images and the commit log ----------------------
 * An image is a file holding the state of one commit: classes, objects and
 * every sequence tree.  A commit log, when the config names one, receives a
 * checksummed record at every commit and every class definition; opening
 * replays the records that follow the image.  docs/DURABILITY.md has the
 * promises of each mode and the byte layouts.
 *
 * On failure these calls return VEL_E_HOST_IO, VEL_E_HOST_BAD_IMAGE or
 * VEL_E_HOST_BAD_LOG (or a code of the calls they make) and
 * velh_error_message() returns a sentence naming the file and the cause. */

/* log_sync modes, weakest promise last:
   COMMIT  velh_commit returns once its record is flushed to the device
           (fdatasync): a commit that returned survives a crash of the
           process and of the machine.
   GROUP   records are written at commit and flushed by a background thread
           on deadlines log_group_ms apart: a commit's flush starts at most
           log_group_ms after it returned, or when the flush running then
           ends if that is later.  A crash of the process loses nothing; a
           crash of the machine loses only commits that returned within
           log_group_ms plus one flush before it (two flushes when a flush
           takes longer than log_group_ms), always a suffix.
   NONE    records are written at commit and flushed by the OS when it
           likes (and at close and checkpoint). */
#define VELH_LOG_SYNC_COMMIT 0
#define VELH_LOG_SYNC_GROUP 1
#define VELH_LOG_SYNC_NONE 2

/* Writes the state of the last commit to `path` while other connections go
   on reading and writing (the save holds a snapshot, not a lock): to a
   temporary file beside it, flushed, renamed over `path`, and the folder
   flushed, so that a crash leaves the old file or the new one, whole. */
VEL_RET velh_db_save(velh_db_t *db, const char *path);

/* velh_db_open_file flags (velh_config_t.open_flags).
   READ_ONLY  the files are opened read-only under a shared lock (other
              read-only opens may share them, a writer may not): write
              transactions fail with VEL_E_HOST_READ_ONLY, classes cannot
              be defined, checkpoints are refused; nothing is written to the
              image or the log, not even the cut of a torn tail.
   RECOVER    a log damaged before its last record (or unreadable past some
              offset) opens with the records before the damage; the rest of
              the file is first moved aside, byte for byte, to LOG.damaged-OFF
              beside it (OFF: the offset it started at in the log), and
              reported in the stats.  With READ_ONLY nothing is moved: the
              records before the damage are opened and the rest is reported. */
#define VELH_OPEN_READ_ONLY 0x1u
#define VELH_OPEN_RECOVER 0x2u

typedef struct velh_open_stats_t_ {
    uint64_t classes;         /* classes after the open */
    uint64_t objects;         /* objects after the open */
    uint64_t image_pages;     /* sequence pages read from the image */
    uint64_t log_replayed;    /* log records applied */
    uint64_t log_cut_records; /* records dropped from a torn tail: a short or bad last record */
    uint64_t log_cut_bytes;   /* bytes dropped from that tail */
    uint64_t log_set_aside_records; /* VELH_OPEN_RECOVER: records after the damage */
    uint64_t log_set_aside_bytes;   /* VELH_OPEN_RECOVER: bytes moved to LOG.damaged-OFF */
    uint64_t log_damage_offset;     /* OFF: where the damage (or the torn tail) begins */
} velh_open_stats_t;

/* Opens a database from the image at `image_path` (NULL: from the empty
   database), then, when cfg->log_path is set, replays the log's records that
   follow that image and goes on appending to the log (a missing log is
   created).  Page sizes and the object header size come from the image
   (without one, from the log's header); the other settings from cfg.  Either
   the whole database is opened or nothing is.  `stats` may be NULL.

   The log is locked for the life of the database: exclusively, or shared
   with VELH_OPEN_READ_ONLY.  A log another database holds (in this process
   or another) is refused with VEL_E_HOST_BUSY, naming the process.

   Replay cuts a torn tail: a last record that is short or damaged, after
   which no valid record follows (a crash during its write).  Damage followed
   by a valid record, or a read error, is not a torn tail: the open fails
   with VEL_E_HOST_BAD_LOG (VEL_E_HOST_IO for a read error) naming the
   offset, and leaves the files as they are; VELH_OPEN_RECOVER opens the
   records before it. */
VEL_RET velh_db_open_file(const velh_config_t *cfg, const char *image_path, velh_db_t **db,
                          velh_open_stats_t *stats);

/* Writes an image of the last commit to `image_path` as velh_db_save does,
   then starts a new, empty log for it.  Commits wait while it runs.
   VEL_E_HOST_BAD_ARG when the database has no log; VEL_E_HOST_READ_ONLY when
   it was opened read-only.

   All or nothing for acknowledged commits: the new log is written and
   flushed before the image is renamed into place.  A failure before that
   rename changes nothing.  A failure after it (the new log cannot be renamed
   in, or the folder not flushed) leaves files that reopen with every
   acknowledged commit, and the database refuses commits (VEL_E_HOST_IO)
   until a checkpoint succeeds or the database is reopened.  The same holds
   after a failed flush of the log, or a failed write whose partial record
   cannot be cut off again: commits are refused, and a successful checkpoint
   (which writes every acknowledged commit into its image) lets them go on.
   A failed write that is cut off cleanly refuses only its own commit. */
VEL_RET velh_checkpoint(velh_db_t *db, const char *image_path);

/* The sentence of the last durability failure or refused class definition
   of the calling thread ("" when there was none). */
const char *velh_error_message(void);

/* ---- codes ------------------------------------------------------------ */

/* The name of a code of velseq.h ("VEL_E_NOMEM") and a sentence saying what
   it means ("out of pages, or a page reference is missing"); NULL for a
   number that is no code.  Static strings. */
const char *vel_code_name(int code);
const char *vel_code_text(int code);

#ifdef __cplusplus
}
#endif

#endif /* VELEMBED_H */
