// Throughput of the main paths on the embedded host: append, positional scan,
// value search, join followed by map, insert in the middle, delete of a range.
//
// Every case runs on a warm page pool (velh_config_t::warm_pages): the first
// write to memory fresh from the operating system costs about 10 us per 4 KiB
// page on these machines, forty times a memcpy of it, and would otherwise
// dominate what is measured here.  Build with the `release` preset and run
// build/release/bench/velseq_bench.
#include <benchmark/benchmark.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "velembed.h"

namespace {

void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "%s failed with %d\n", what, static_cast<int>(rc));
        std::abort();
    }
}

// One database with a class of two sequence fields: an ascending datetime
// field `ts` and an unordered double field `px`; one object, in an open
// read-write transaction.
struct Fixture {
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;
    uint16_t cls = 0;
    vel_objhandle_t obj{};
    velh_field_info_t ts{}, px{};

    explicit Fixture(uint32_t warm_pages = 8192) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.warm_pages = warm_pages;
        check(velh_db_open(&cfg, &db), "open");
        velh_field_def_t fields[] = {{"ts", VEL_DD_SEQUENCE_DATETIME, 0, 0},
                                     {"px", VEL_DD_SEQUENCE_DOUBLE, 0, 0}};
        check(velh_class_define(db, "quotes", fields, 2, 0, VELH_PM_INMEM, &cls), "class");
        check(velh_field_info(db, cls, 0, &ts), "ts");
        check(velh_field_info(db, cls, 1, &px), "px");
        check(velh_connect(db, &con), "connect");
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        check(velh_obj_create(con, cls, &obj), "object");
    }
    ~Fixture() {
        velh_rollback(con);
        velh_disconnect(con);
        velh_db_close(db);
    }
    // Commits and reopens the object in a new read-write transaction.
    void renew_transaction() {
        check(velh_commit(con), "commit");
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        check(velh_obj_open(con, cls, obj.oid, &obj), "reopen");
    }
    // ts = 1000, 1002, ...; px = prices.  `fill` once per fixture.
    void fill(uint64_t n) {
        std::vector<vel_datetime> t(n);
        for (uint64_t i = 0; i < n; i++)
            t[i] = 1000 + 2 * i;
        check(vel_w_seq_append_datetime(&obj, ts.u_offset, ts.c_offset, ts.fld_no, t.data(), n,
                                        VEL_SEQ_ASC_ORDER, nullptr),
              "append ts");
        fill_prices(n);
    }
    void fill_prices(uint64_t n) {
        std::vector<vel_double> p(n);
        for (uint64_t i = 0; i < n; i++)
            p[i] = 100.0 + static_cast<double>(i % 97);
        check(vel_w_seq_append_double(&obj, px.u_offset, px.c_offset, px.fld_no, p.data(), n,
                                      VEL_SEQ_NO_ORDER, nullptr),
              "append px");
    }
};

void BM_AppendDatetime(benchmark::State &state) {
    const auto batch = static_cast<uint64_t>(state.range(0));
    std::vector<vel_datetime> vals(batch);
    Fixture f;
    for (auto _ : state) {
        // Emptying the field is not measured.  Pages freed in a transaction
        // return to the pool when it ends, so end it and go on in a new one.
        state.PauseTiming();
        check(vel_w_seq_truncate(&f.obj, f.ts.u_offset, f.ts.c_offset, f.ts.fld_no), "truncate");
        f.renew_transaction();
        uint64_t next = 0;
        state.ResumeTiming();
        for (int b = 0; b < 256; b++) {
            for (auto &v : vals)
                v = next++;
            check(vel_w_seq_append_datetime(&f.obj, f.ts.u_offset, f.ts.c_offset, f.ts.fld_no,
                                            vals.data(), batch, VEL_SEQ_ASC_ORDER, nullptr),
                  "append");
        }
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 256 *
                            static_cast<int64_t>(batch));
}
BENCHMARK(BM_AppendDatetime)->Arg(1)->Arg(128)->Arg(4096);

void BM_ScanDouble(benchmark::State &state) {
    const uint64_t n = 1'000'000;
    Fixture f;
    f.fill(n);
    vel_seq_iterator_t it{};
    for (auto _ : state) {
        check(vel_w_seq_subseq_double(&f.obj, f.px.u_offset, f.px.c_offset, &it, 0, ~0ull),
              "subseq");
        double sum = 0;
        while (it.next(&it) == VEL_S_OK)
            for (int i = 0; i < it.tile_size; i++)
                sum += it.tile.u.arr_double[i];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n));
}
BENCHMARK(BM_ScanDouble);

void BM_SearchWindow(benchmark::State &state) {
    const uint64_t n = 1'000'000;
    Fixture f;
    f.fill(n);
    vel_seq_iterator_t it{};
    uint64_t k = 0;
    for (auto _ : state) {
        vel_datetime lo = 1000 + (k++ * 7919) % (2 * n);
        VEL_RET rc = vel_w_seq_search_datetime(&f.obj, f.ts.u_offset, f.ts.c_offset, &it, lo,
                                               VEL_SEQ_BOUNDARY_INCLUSIVE, lo + 200,
                                               VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER);
        if (rc != VEL_S_NOTFOUND)
            check(rc, "search");
        benchmark::DoNotOptimize(it.first_seq_no);
    }
}
BENCHMARK(BM_SearchWindow);

// As-of lookup of 128 timestamps per tile followed by a gather of the prices.
void BM_JoinThenMap(benchmark::State &state) {
    const uint64_t n = 1'000'000;
    Fixture f;
    f.fill(n);
    // The probe timestamps live in a second object's field.
    vel_objhandle_t probe_obj{};
    check(velh_obj_create(f.con, f.cls, &probe_obj), "probe object");
    const uint64_t n_probe = 100'000;
    std::vector<vel_datetime> probes(n_probe);
    for (uint64_t i = 0; i < n_probe; i++)
        probes[i] = 1001 + 19 * i;
    check(vel_w_seq_append_datetime(&probe_obj, f.ts.u_offset, f.ts.c_offset, f.ts.fld_no,
                                    probes.data(), n_probe, VEL_SEQ_ASC_ORDER, nullptr),
          "probes");
    vel_seq_iterator_t src{}, join{}, map{};
    for (auto _ : state) {
        check(vel_w_seq_subseq_datetime(&probe_obj, f.ts.u_offset, f.ts.c_offset, &src, 0, ~0ull),
              "probe scan");
        check(vel_w_seq_join_datetime(&f.obj, f.ts.u_offset, f.ts.c_offset, &join, &src,
                                      VEL_SEQ_ASC_ORDER),
              "join");
        check(vel_w_seq_map_double(&f.obj, f.px.u_offset, f.px.c_offset, &map, &join), "map");
        double sum = 0;
        while (map.next(&map) == VEL_S_OK)
            for (int i = 0; i < map.tile_size; i++)
                sum += map.tile.u.arr_double[i];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * n_probe));
}
BENCHMARK(BM_JoinThenMap);

void BM_InsertMiddle(benchmark::State &state) {
    const uint64_t n = 200'000;
    Fixture f;
    f.fill(n);
    const vel_double v[1] = {1.5};
    uint64_t k = 0;
    for (auto _ : state) {
        uint64_t pos = (k++ * 104729) % n;
        check(vel_w_seq_insert_double(&f.obj, f.px.u_offset, f.px.c_offset, f.px.fld_no, pos, v, 1,
                                      VEL_SEQ_NO_ORDER, nullptr),
              "insert");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()));
}
BENCHMARK(BM_InsertMiddle);

void BM_DeleteRange(benchmark::State &state) {
    const uint64_t n = 1'000'000;
    Fixture f;
    f.fill_prices(n);
    uint64_t remaining = n;
    for (auto _ : state) {
        if (remaining < 1000) {
            state.PauseTiming();
            f.renew_transaction();
            f.fill_prices(n);
            remaining += n;
            state.ResumeTiming();
        }
        uint64_t from = remaining / 3;
        check(vel_w_seq_delete_double(&f.obj, f.px.u_offset, f.px.c_offset, f.px.fld_no, from,
                                      from + 499, VEL_SEQ_NO_ORDER),
              "delete");
        remaining -= 500;
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * 500);
}
BENCHMARK(BM_DeleteRange);

} // namespace

BENCHMARK_MAIN();
