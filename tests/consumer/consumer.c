/*
 * consumer.c -- a C program built against the installed package only.
 *
 * Appends a double sequence with nulls to an object of a velhost database,
 * commits, and scans it back in a read-only transaction value by value and
 * null by null, through the iterator the installed header lays out.  Exits
 * non-zero on the first difference.
 */
#include <stdio.h>
#include <stdlib.h>

#include "velembed.h"

#define N 1000 /* several tiles and leaf pages; N % 64 leaves a partial null word */

static void check(int ok, int line) {
    if (!ok) {
        fprintf(stderr, "consumer.c:%d: check failed\n", line);
        exit(1);
    }
}
#define MUST(call) check((call) == VEL_S_OK, __LINE__)
#define CHECK(cond) check((cond), __LINE__)

static double px_at(unsigned i) { return 100.0 + (double)(i % 97) * 0.125; }
static int px_null(unsigned i) { return i % 7 == 3; }

int main(void) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db;
    MUST(velh_db_open(&cfg, &db));
    const velh_field_def_t defs[] = {{"px", VEL_DD_SEQUENCE_DOUBLE, 0, 0}};
    uint16_t cls;
    MUST(velh_class_define(db, "series", defs, 1, 0, VELH_PM_INMEM, &cls));
    velh_field_info_t px;
    MUST(velh_field_by_name(db, cls, "px", &px));

    static vel_double pv[N];
    static vel_bitmap_word_t nulls[(N + 63) / 64];
    for (unsigned i = 0; i < N; i++) {
        pv[i] = px_at(i);
        if (px_null(i))
            nulls[i / 64] |= (vel_bitmap_word_t)1 << (i % 64);
    }
    vel_db_connection_h con;
    MUST(velh_connect(db, &con));
    MUST(velh_begin(con, VELH_READ_WRITE));
    vel_objhandle_t obj;
    MUST(velh_obj_create(con, cls, &obj));
    const uint64_t oid = obj.oid;
    MUST(vel_w_seq_append_double(&obj, px.u_offset, px.c_offset, px.fld_no, pv, N, VEL_SEQ_NO_ORDER,
                                 nulls));
    MUST(velh_commit(con));

    MUST(velh_begin(con, VELH_READ_ONLY));
    MUST(velh_obj_open(con, cls, oid, &obj));
    static vel_seq_iterator_t it;
    MUST(vel_w_seq_subseq_double(&obj, px.u_offset, px.c_offset, &it, 0, N - 1));
    unsigned seen = 0;
    VEL_RET rc;
    while ((rc = it.next(&it)) == VEL_S_OK) {
        for (unsigned k = 0; k < it.tile_size; k++, seen++) {
            int null = (int)((it.tile.null_bitmap[k / 64] >> (k % 64)) & 1);
            CHECK(seen < N && null == px_null(seen));
            CHECK(null || it.tile.u.arr_double[k] == px_at(seen));
        }
    }
    CHECK(rc == VEL_S_CURSOR_END && seen == N);

    MUST(velh_commit(con));
    MUST(velh_disconnect(con));
    MUST(velh_db_close(db));
    printf("consumer (C): %u values and nulls read back\n", seen);
    return 0;
}
