/*
 * ticks.c -- a day of one-second price ticks in one object.
 *
 * The object of class "instrument" holds:
 *   ts      datetime sequence, ascending: one tick per second, in microseconds
 *   price   double sequence: the price at each tick
 *   probe   datetime sequence: times at which we want to know the price
 *   window  double sequence: the prices of the trading window, stored back
 *
 * Steps: append the day, search the trading window on `ts`, project `price`
 * over it, join the probe times into `ts` (first tick at or after each time)
 * and map `price` at those positions, store the window's prices into
 * `window`.  Every result is checked against plain arithmetic.
 */
#include <math.h>
#include <stdio.h>
#include <stdlib.h>

#include "velembed.h"

#define DAY_SECONDS 86400u
#define USEC 1000000ull
#define DAY_START (20000ull * DAY_SECONDS * USEC) /* some midnight, in microseconds */
#define OPEN_SEC (9u * 3600u + 30u * 60u)         /* 09:30:00 */
#define CLOSE_SEC (16u * 3600u)                   /* 16:00:00 */

static int failures = 0;

#define CHECK(cond, ...)                                                                           \
    do {                                                                                           \
        if (!(cond)) {                                                                             \
            fprintf(stderr, "FAILED %s:%d: ", __FILE__, __LINE__);                                 \
            fprintf(stderr, __VA_ARGS__);                                                          \
            fputc('\n', stderr);                                                                   \
            failures++;                                                                            \
        }                                                                                          \
    } while (0)

#define MUST(call)                                                                                 \
    do {                                                                                           \
        VEL_RET rc_ = (call);                                                                      \
        if (rc_ != VEL_S_OK) {                                                                     \
            fprintf(stderr, "FAILED %s:%d: %s returned %d\n", __FILE__, __LINE__, #call,           \
                    (int)rc_);                                                                     \
            exit(1);                                                                               \
        }                                                                                          \
    } while (0)

/* A deterministic price path: a slow wave plus a saw tooth, in cents. */
static double price_at(uint32_t sec) {
    return 100.0 + (double)((sec / 60u) % 50u) * 0.25 + (double)(sec % 7u) * 0.01;
}

static vel_datetime time_at(uint32_t sec) { return DAY_START + (vel_datetime)sec * USEC; }

int main(void) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db;
    MUST(velh_db_open(&cfg, &db));

    const velh_field_def_t fields[] = {
        {"ts", VEL_DD_SEQUENCE_DATETIME, 0, VEL_SEQ_ASC_ORDER},
        {"price", VEL_DD_SEQUENCE_DOUBLE, 0, 0},
        {"probe", VEL_DD_SEQUENCE_DATETIME, 0, 0},
        {"window", VEL_DD_SEQUENCE_DOUBLE, 0, 0},
    };
    uint16_t cls;
    MUST(velh_class_define(db, "instrument", fields, 4, 0, VELH_PM_INMEM, &cls));
    velh_field_info_t ts, price, probe, window;
    MUST(velh_field_by_name(db, cls, "ts", &ts));
    MUST(velh_field_by_name(db, cls, "price", &price));
    MUST(velh_field_by_name(db, cls, "probe", &probe));
    MUST(velh_field_by_name(db, cls, "window", &window));

    vel_db_connection_h con;
    MUST(velh_connect(db, &con));
    MUST(velh_begin(con, VELH_READ_WRITE));
    vel_objhandle_t obj;
    MUST(velh_obj_create(con, cls, &obj));

    /* 1. A day of ticks, appended an hour at a time. */
    static vel_datetime tbuf[3600];
    static vel_double pbuf[3600];
    for (uint32_t hour = 0; hour < 24; hour++) {
        for (uint32_t i = 0; i < 3600; i++) {
            tbuf[i] = time_at(hour * 3600 + i);
            pbuf[i] = price_at(hour * 3600 + i);
        }
        MUST(vel_w_seq_append_datetime(&obj, ts.u_offset, ts.c_offset, ts.fld_no, tbuf, 3600,
                                       VEL_SEQ_ASC_ORDER, NULL));
        MUST(vel_w_seq_append_double(&obj, price.u_offset, price.c_offset, price.fld_no, pbuf, 3600,
                                     VEL_SEQ_NO_ORDER, NULL));
    }
    vel_seq_no_t n = 0;
    MUST(vel_w_seq_count(&obj, ts.u_offset, ts.c_offset, &n));
    printf("stored %llu ticks\n", (unsigned long long)n);
    CHECK(n == DAY_SECONDS, "tick count %llu", (unsigned long long)n);

    /* 2. The trading window 09:30:00 <= ts < 16:00:00. */
    static vel_seq_iterator_t win;
    MUST(vel_w_seq_search_datetime(&obj, ts.u_offset, ts.c_offset, &win, time_at(OPEN_SEC),
                                   VEL_SEQ_BOUNDARY_INCLUSIVE, time_at(CLOSE_SEC),
                                   VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER));
    printf("window: positions %llu..%llu\n", (unsigned long long)win.first_seq_no,
           (unsigned long long)win.last_seq_no);
    CHECK(win.first_seq_no == OPEN_SEC && win.last_seq_no == CLOSE_SEC - 1,
          "window positions %llu..%llu", (unsigned long long)win.first_seq_no,
          (unsigned long long)win.last_seq_no);

    /* 3. The prices over that window: project `price` over the search's range. */
    static vel_seq_iterator_t prices;
    MUST(vel_w_seq_project_double(&obj, price.u_offset, price.c_offset, &prices, &win));
    double sum = 0, hi = -INFINITY, lo = INFINITY;
    uint64_t seen = 0;
    int bad = 0;
    VEL_RET rc;
    while ((rc = prices.next(&prices)) == VEL_S_OK) {
        for (int i = 0; i < prices.tile_size; i++, seen++) {
            double p = prices.tile.u.arr_double[i];
            if (p != price_at(OPEN_SEC + (uint32_t)seen))
                bad++;
            sum += p;
            hi = p > hi ? p : hi;
            lo = p < lo ? p : lo;
        }
    }
    CHECK(rc == VEL_S_CURSOR_END, "projection ended with %d", (int)rc);
    CHECK(seen == CLOSE_SEC - OPEN_SEC && bad == 0, "projected %llu prices, %d wrong",
          (unsigned long long)seen, bad);
    printf("window prices: %llu ticks, low %.2f, high %.2f, mean %.4f\n", (unsigned long long)seen,
           lo, hi, sum / (double)seen);

    /* 4. Prices as of a few times of day: join the probe times into `ts`
          (first tick at or after each), then map `price` at those positions. */
    const vel_datetime probes[] = {
        time_at(OPEN_SEC) + USEC / 2, /* half a second after the open */
        time_at(12 * 3600),           /* noon exactly */
        time_at(CLOSE_SEC - 1) - 1,   /* just before the last window tick */
        time_at(0),                   /* midnight */
    };
    const uint32_t expect_sec[] = {OPEN_SEC + 1, 12 * 3600, CLOSE_SEC - 1, 0};
    MUST(vel_w_seq_append_datetime(&obj, probe.u_offset, probe.c_offset, probe.fld_no, probes, 4,
                                   VEL_SEQ_NO_ORDER, NULL));
    static vel_seq_iterator_t probe_it, at, price_at_probe;
    MUST(vel_w_seq_subseq_datetime(&obj, probe.u_offset, probe.c_offset, &probe_it, 0, 3));
    MUST(
        vel_w_seq_join_datetime(&obj, ts.u_offset, ts.c_offset, &at, &probe_it, VEL_SEQ_ASC_ORDER));
    MUST(vel_w_seq_map_double(&obj, price.u_offset, price.c_offset, &price_at_probe, &at));
    MUST(price_at_probe.next(&price_at_probe));
    CHECK(price_at_probe.tile_size == 4, "mapped %d prices", price_at_probe.tile_size);
    for (int i = 0; i < 4 && i < price_at_probe.tile_size; i++) {
        double p = price_at_probe.tile.u.arr_double[i];
        printf("price at or after probe %d (tick %llu): %.2f\n", i,
               (unsigned long long)at.tile.u.arr_uint8[i], p);
        CHECK(at.tile.u.arr_uint8[i] == expect_sec[i], "probe %d joined to %llu", i,
              (unsigned long long)at.tile.u.arr_uint8[i]);
        CHECK(p == price_at(expect_sec[i]), "probe %d price %.2f", i, p);
    }
    CHECK(price_at_probe.next(&price_at_probe) == VEL_S_CURSOR_END, "map did not end");

    /* 5. Store the window's prices into `window`, reading the range again. */
    MUST(win.reset(&win));
    MUST(vel_w_seq_project_double(&obj, price.u_offset, price.c_offset, &prices, &win));
    MUST(vel_w_seq_store_double(&obj, window.u_offset, window.c_offset, window.fld_no, &prices,
                                VEL_SEQ_NO_ORDER));
    vel_seq_no_t stored = 0;
    vel_double first = 0, last = 0;
    MUST(vel_w_seq_count(&obj, window.u_offset, window.c_offset, &stored));
    MUST(vel_w_seq_first_double(&obj, window.u_offset, window.c_offset, &first));
    MUST(vel_w_seq_last_double(&obj, window.u_offset, window.c_offset, &last));
    printf("stored the window: %llu prices, first %.2f, last %.2f\n", (unsigned long long)stored,
           first, last);
    CHECK(stored == CLOSE_SEC - OPEN_SEC, "stored %llu", (unsigned long long)stored);
    CHECK(first == price_at(OPEN_SEC) && last == price_at(CLOSE_SEC - 1), "stored ends wrong");

    MUST(velh_commit(con));
    MUST(velh_disconnect(con));
    MUST(velh_db_close(db));
    if (failures != 0) {
        fprintf(stderr, "%d check(s) failed\n", failures);
        return 1;
    }
    printf("all checks passed\n");
    return 0;
}
