/*
 * velhost.h -- the seam between the sequence module and its host engine.
 *
 * The records below are the host state the module reads, and the functions
 * are the services the module calls.  Every host (the embedded velhost, or a
 * test harness of its own) defines them; the module only declares them.
 * Field names, order and types up to each "host fields" mark are fixed; a
 * host may add fields after that mark.
 */
#ifndef VELHOST_H
#define VELHOST_H

#include "velseq.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VEL_CLASS_COMPACT 8 /* vel_class_info_t.flags: compact object layout */

/* Transaction.  error_code is non-zero once the transaction has failed. */
typedef struct vel_trans_t_ {
    VEL_RET error_code;
    /* host fields */
    void *host;
} vel_trans_t, *vel_trans_h;

/* Connection.  The transaction is the FIRST member, so a vel_trans_h and its
   connection have one address and a transaction handle is accepted wherever
   the module passes a connection. */
typedef struct vel_db_connection_t_ {
    vel_trans_t trans;
    struct vel_database_header_t_ *db;
    struct vel_page_manager_t_ *pm_inmem;
    /* host fields */
    void *host;
} vel_db_connection_t, *vel_db_connection_h;

typedef struct vel_database_header_t_ {
    uint16_t pagesize;  /* object page size; pagesize - 24 data bytes a page */
    uint32_t dict_offs; /* dictionary = (char*)db + dict_offs */
    uint16_t additional_object_field_size;
    vel_bool concurrent_write_transactions;
    /* host fields */
    void *host;
} vel_database_header_t, *vel_database_h;

typedef struct vel_dictionary_t_ {
    uint32_t v_class_info; /* class table = (char*)dict + v_class_info */
    /* host fields */
    uint32_t n_classes;
} vel_dictionary_t;

typedef struct vel_class_info_t_ {
    uint32_t flags; /* VEL_CLASS_COMPACT: compact object layout */
    /* host fields */
    uint32_t host_index;
} vel_class_info_t; /* entry number class_code of the class table */

struct vel_page_manager_t_ {
    int32_t (*large_page_size)(vel_db_connection_h con); /* sequence page bytes */
    /* host operations */
    void *host;
};

typedef struct vel_objhandle_t_ {
    vel_db_connection_h con;
    vel_page_manager_t *pm;
    uint32_t mo; /* position of the object */
    uint16_t class_code;
    /* host fields */
    uint64_t oid;
} vel_objhandle_t, *vel_objhandle_h;

/* Work context of one field access, filled by vel_reading / vel_writing. */
typedef struct VEL_WRK_ {
    vel_db_connection_h con;
    vel_page_manager_t *pm;
    uint16_t pagesize;
    void *pobj;  /* object head, passed to vel_obj_pos */
    VEL_RET ret; /* the host's code when access was refused */
    uint16_t class_code;
} VEL_WRK;

typedef struct vel_db_vtable_t_ {
    /* page manager holding the objects of a class, within a transaction */
    vel_page_manager_t *(*class_pm)(vel_trans_h trans, uint16_t class_code);
    /* host operations */
} vel_db_vtable_t;

/* ---- object access ------------------------------------------------------ */

int vel_reading(vel_objhandle_h obj, VEL_WRK *w); /* 0 = granted */
int vel_writing(vel_objhandle_h obj, VEL_WRK *w, int flags, uint16_t fld_no);
void vel_end_writing(vel_objhandle_h obj, VEL_WRK *w);
void *vel_obj_pos(void *pobj, vel_db_connection_h con, vel_page_manager_t *pm, uint32_t pos,
                  int for_write);

/* ---- sequence pages ------------------------------------------------------
 * A created page has the kind in the low 4 bits of hdr.kind, its reference
 * count initialised and user = 1; nothing else is zeroed.  Reference-count
 * changes of one page copy happen between lock and unlock of the
 * copy-on-write lock, and no page is created or freed while it is held. */

VEL_RET vel_seq_create_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **page,
                            vel_seq_page_t **ref_slot, int kind);
VEL_RET vel_seq_free_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page);
vel_bool vel_seq_is_copy(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                         vel_seq_page_t *ref);
void vel_seq_lock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm);
void vel_seq_unlock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm);
void vel_seq_init_ref_count(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                            vel_seq_page_t *ref);
VEL_RET vel_seq_increment_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref);
VEL_RET vel_seq_decrement_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref, int32_t *count);
VEL_RET vel_seq_prune(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *root);

/* ---- cursors ------------------------------------------------------------ */

VEL_RET vel_cursor_first(vel_trans_h trans, vel_cursor_h cursor);
VEL_RET vel_cursor_next(vel_trans_h trans, vel_cursor_h cursor);
VEL_RET vel_w_obj_from_cursor(vel_trans_h trans, vel_cursor_h cursor, uint16_t class_code,
                              vel_objhandle_h obj);
/* Opens a list cursor over a class in caller memory of at least 232 bytes. */
VEL_RET vel_w_list_cursor(vel_trans_h trans, uint16_t class_code, vel_cursor_h cursor);
const vel_db_vtable_t *vel_int_get_db_vtable(void);

/* ---- bytes and diagnostics ---------------------------------------------- */

void *vel_memmove(void *dst, const void *src, size_t n);
int vel_memcmp(const void *a, const void *b, size_t n);

/* Fatal trap: never returns to the caller (the host may longjmp or unwind
   out of it, or abort). */
void vel_stop__(int code, const char *file, int line);
extern void (*vel_trace_callback)(int severity, int module, const char *file, int line,
                                  const char *text);
extern uint32_t vel_trace_modules_mask;

#ifdef __cplusplus
}
#endif

#endif /* VELHOST_H */
