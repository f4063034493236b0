/*
 * consumer.c -- a C program built against the installed package only.
 *
 * Opens a velhost database, appends an ascending datetime sequence and a
 * double sequence with nulls to one object, commits, and reads both back in
 * a read-only transaction: counts, first and last, a full scan compared
 * value by value and null by null, and a value-range search.  Exits
 * non-zero on the first difference.
 */
#include <stdio.h>
#include <stdlib.h>

#include "velembed.h"

#define N 1000 /* several tiles and leaf pages; N % 64 leaves a partial null word */

#define MUST(call)                                                                                 \
    do {                                                                                           \
        VEL_RET rc_ = (call);                                                                      \
        if (rc_ != VEL_S_OK) {                                                                     \
            fprintf(stderr, "consumer.c:%d: %s returned %d\n", __LINE__, #call, (int)rc_);         \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)
#define CHECK(cond)                                                                                \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "consumer.c:%d: check failed: %s\n", __LINE__, #cond);                 \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

static vel_datetime ts_at(unsigned i) { return 1700000000000000ull + (vel_datetime)i * 250000u; }
static double px_at(unsigned i) { return 100.0 + (double)(i % 97) * 0.125; }
static int px_null(unsigned i) { return i % 7 == 3; }

int main(void) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db;
    MUST(velh_db_open(&cfg, &db));
    const velh_field_def_t defs[] = {{"ts", VEL_DD_SEQUENCE_DATETIME, 0},
                                     {"px", VEL_DD_SEQUENCE_DOUBLE, 0}};
    uint16_t cls;
    MUST(velh_class_define(db, "series", defs, 2, 0, VELH_PM_INMEM, &cls));
    velh_field_info_t ts, px;
    MUST(velh_field_by_name(db, cls, "ts", &ts));
    MUST(velh_field_by_name(db, cls, "px", &px));

    static vel_datetime tv[N];
    static vel_double pv[N];
    static vel_bitmap_word_t nulls[(N + 63) / 64];
    for (unsigned i = 0; i < N; i++) {
        tv[i] = ts_at(i);
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
    MUST(vel_w_seq_append_datetime(&obj, ts.u_offset, ts.c_offset, ts.fld_no, tv, N,
                                   VEL_SEQ_ASC_ORDER, NULL));
    MUST(vel_w_seq_append_double(&obj, px.u_offset, px.c_offset, px.fld_no, pv, N, VEL_SEQ_NO_ORDER,
                                 nulls));
    MUST(velh_commit(con));

    MUST(velh_begin(con, VELH_READ_ONLY));
    MUST(velh_obj_open(con, cls, oid, &obj));
    vel_seq_no_t count = 0;
    MUST(vel_w_seq_count(&obj, ts.u_offset, ts.c_offset, &count));
    CHECK(count == N);
    MUST(vel_w_seq_count(&obj, px.u_offset, px.c_offset, &count));
    CHECK(count == N);
    vel_datetime first = 0, last = 0;
    MUST(vel_w_seq_first_datetime(&obj, ts.u_offset, ts.c_offset, &first));
    MUST(vel_w_seq_last_datetime(&obj, ts.u_offset, ts.c_offset, &last));
    CHECK(first == ts_at(0) && last == ts_at(N - 1));

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

    /* Timestamps in [ts_at(100), ts_at(300)): positions 100..299. */
    MUST(vel_w_seq_search_datetime(&obj, ts.u_offset, ts.c_offset, &it, ts_at(100),
                                   VEL_SEQ_BOUNDARY_INCLUSIVE, ts_at(300),
                                   VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER));
    CHECK(it.first_seq_no == 100 && it.last_seq_no == 299);

    MUST(velh_commit(con));
    MUST(velh_disconnect(con));
    MUST(velh_db_close(db));
    printf("consumer (C): %u values and nulls read back\n", seen);
    return 0;
}
