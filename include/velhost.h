/*
 * velhost.h -- the seam between the sequence module and its host engine.
 *
 * The records below are the host state the module reads, and the functions
 * are the services the module calls.  Every host (the embedded velhost, or a
 * test harness of its own) defines them; the module only declares them.
 * Field names, order and types up to each "host fields" mark are fixed; a
 * host may add fields after that mark.
 *
 * Each service below says what the module requires of it and, where it
 * differs by host, what velhost does.  Codes a service returns are passed
 * through the module's calls unchanged, so they reach the application.
 * Applications do not call these services: they use velembed.h and the
 * vel_w_seq_* functions of velseq.h (cursors excepted, which velembed.h
 * documents for application use too).
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

/* vel_reading: begins read access to the object within its connection's
   transaction and fills `w` (con, pm, pagesize, pobj, class_code).  Returns
   0 when granted; non-zero when refused, with the code in w->ret (velhost:
   VEL_E_HOST_TRANS_CLOSED, VEL_E_HOST_NO_CLASS, VEL_E_HOST_NO_OBJECT for an
   object deleted or not visible to the transaction, VEL_E_HOST_BAD_ARG).
   Read access needs no end call. */
int vel_reading(vel_objhandle_h obj, VEL_WRK *w); /* 0 = granted */
/* vel_writing: begins write access to field `fld_no` of the object (flags:
   0) and records the field as written; fills `w` and returns 0, or non-zero
   with the code in w->ret: as vel_reading, plus VEL_E_HOST_READ_ONLY,
   VEL_E_HOST_NO_FIELD, VEL_E_HOST_CONFLICT (another writer updated the
   object first, concurrent writers only) and VEL_E_NOMEM.  velhost makes
   the object's version private to the transaction here.  Every granted
   write access is ended by vel_end_writing, except after the failed
   argument checks of append and insert (see velseq.h). */
int vel_writing(vel_objhandle_h obj, VEL_WRK *w, int flags, uint16_t fld_no);
/* vel_end_writing: ends the write access begun by vel_writing. */
void vel_end_writing(vel_objhandle_h obj, VEL_WRK *w);
/* vel_obj_pos: the address of the byte at position `pos` (the object's `mo`
   plus a field offset) of the object whose head is `pobj` (from VEL_WRK),
   for reading (for_write 0) or writing (1: the page becomes writable).
   Never fails for a position inside the object. */
void *vel_obj_pos(void *pobj, vel_db_connection_h con, vel_page_manager_t *pm, uint32_t pos,
                  int for_write);

/* ---- sequence pages ------------------------------------------------------
 * A created page has the kind in the low 4 bits of hdr.kind, its reference
 * count initialised and user = 1; nothing else is zeroed.  Reference-count
 * changes of one page copy happen between lock and unlock of the
 * copy-on-write lock, and no page is created or freed while it is held. */

/* vel_seq_create_page: allocates a sequence page of `kind` (2 inner, 3 leaf)
   in the transaction, stores its address in *page and in *ref_slot.
   VEL_S_OK; VEL_E_NOMEM when no page can be had (velhost: also when
   velh_fail_page_alloc says so); VEL_E_HOST_READ_ONLY or
   VEL_E_HOST_TRANS_CLOSED outside a read-write transaction;
   VEL_E_HOST_BAD_ARG for a null argument or page manager. */

VEL_RET vel_seq_create_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **page,
                            vel_seq_page_t **ref_slot, int kind);
/* vel_seq_free_page: gives back a page that only this version holds; it
   becomes reusable when the transaction ends.  VEL_S_OK; VEL_E_HOST_BAD_ARG
   for a null, already freed or still shared page (velhost refuses to free a
   page another version references). */
VEL_RET vel_seq_free_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page);
/* vel_seq_is_copy: 1 when the page (`ref`, or `page` when `ref` is null) is
   shared with another version and must be copied before it is changed. */
vel_bool vel_seq_is_copy(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                         vel_seq_page_t *ref);
/* Take and release the page manager's copy-on-write lock, which guards the
   reference counts.  Traps (vel_stop__) on a page manager it does not know. */
void vel_seq_lock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm);
void vel_seq_unlock_cow_bitmap(vel_db_connection_h con, vel_page_manager_t *pm);
/* vel_seq_init_ref_count: gives a new private copy (`ref`, or `page`) the
   reference count of a fresh page. */
void vel_seq_init_ref_count(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *page,
                            vel_seq_page_t *ref);
/* vel_seq_increment_ref_count: one more holder of the page.  VEL_S_OK;
   VEL_E_NOMEM for a null reference. */
VEL_RET vel_seq_increment_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref);
/* vel_seq_decrement_ref_count: one holder less; the new count goes to
   *count.  VEL_S_OK; VEL_E_HOST_BAD_ARG for a null argument or a count that
   would drop below 0 (*count = 0). */
VEL_RET vel_seq_decrement_ref_count(vel_db_connection_h con, vel_page_manager_t *pm,
                                    vel_seq_page_t *ref, int32_t *count);
/* vel_seq_prune: releases the tree under `root` (null: nothing) for this
   version: pages no other version holds are freed, shared ones lose one
   holder.  VEL_S_OK; VEL_E_HOST_BAD_ARG for an unknown page manager. */
VEL_RET vel_seq_prune(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *root);

/* ---- cursors ------------------------------------------------------------ */

/* vel_cursor_first / vel_cursor_next: move the cursor to its first / next
   object.  VEL_S_OK; VEL_S_CURSOR_END past the last object (and from
   vel_cursor_first on an empty list cursor); VEL_S_NOTFOUND from
   vel_cursor_first on an empty index cursor; VEL_E_HOST_TRANS_CLOSED when
   the cursor's transaction is not the open one; VEL_E_HOST_BAD_ARG for a
   null or never-opened cursor.
   vel_w_obj_from_cursor: opens the object under the cursor into *obj.
   VEL_S_OK; VEL_S_NOTFOUND when the cursor stands on no object (before the
   first, past the last); VEL_E_HOST_NO_CLASS when class_code is not the
   cursor's; the codes of vel_cursor_first otherwise. */

VEL_RET vel_cursor_first(vel_trans_h trans, vel_cursor_h cursor);
VEL_RET vel_cursor_next(vel_trans_h trans, vel_cursor_h cursor);
VEL_RET vel_w_obj_from_cursor(vel_trans_h trans, vel_cursor_h cursor, uint16_t class_code,
                              vel_objhandle_h obj);
/* Opens a list cursor over a class in caller memory of at least 232 bytes,
   standing before the first object (creation order).  VEL_S_OK;
   VEL_S_CURSOR_EMPTY when the class has no object visible to the
   transaction (the cursor is still opened: a success); VEL_E_HOST_NO_CLASS;
   VEL_E_HOST_TRANS_CLOSED; VEL_E_HOST_BAD_ARG for a null cursor. */
VEL_RET vel_w_list_cursor(vel_trans_h trans, uint16_t class_code, vel_cursor_h cursor);
/* The host's table of database operations; never null.  Its class_pm gives
   the page manager holding a class's objects in a transaction. */
const vel_db_vtable_t *vel_int_get_db_vtable(void);

/* ---- bytes and diagnostics ---------------------------------------------- */

/* memmove and memcmp of the host (overlap allowed; memcmp's sign
   convention).  The char(N) family compares its elements with vel_memcmp. */
void *vel_memmove(void *dst, const void *src, size_t n);
int vel_memcmp(const void *a, const void *b, size_t n);

/* Fatal trap: never returns to the caller (the host may longjmp or unwind
   out of it, or abort). */
void vel_stop__(int code, const char *file, int line);
/* Trace hook: when set and bit 26 (the module's number) of
   vel_trace_modules_mask is set, the module calls it with severity 0,
   module 26, its file and line and the text "VEL_STOP" before a trap. */
extern void (*vel_trace_callback)(int severity, int module, const char *file, int line,
                                  const char *text);
extern uint32_t vel_trace_modules_mask;

#ifdef __cplusplus
}
#endif

#endif /* VELHOST_H */
