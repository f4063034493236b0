// Single-value inserts at random positions into a committed int4 field: the
// module's raw insert against the same inserts followed by velh_keep_compact.
// Reports the amortised time per insert (compactions included) and the
// field's shape at the end: depth, pages per 1000 values and pages against
// the append-built tree.  Arguments: log10 of the field's length, 0 raw / 1
// kept compact.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <vector>

#include "velembed.h"

namespace {

void must(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "%s failed with %d\n", what, static_cast<int>(rc));
        std::abort();
    }
}

constexpr int kInserts = 100000;

void BM_LateInserts(benchmark::State &state) {
    uint64_t n = 1;
    for (int64_t i = 0; i < state.range(0); ++i)
        n *= 10;
    const bool kept = state.range(1) != 0;
    velh_config_t cfg;
    velh_config_init(&cfg);
    // A warm pool for the raw path's page a split, so both measure inserts
    // rather than the first touch of fresh memory.
    cfg.warm_pages = static_cast<uint32_t>(2 * n / 989 + kInserts + 1024);
    velh_db_t *db;
    must(velh_db_open(&cfg, &db), "open");
    velh_field_def_t fields[] = {{"v", VEL_DD_SEQUENCE_INT4, 0, 0}};
    uint16_t cls;
    must(velh_class_define(db, "late", fields, 1, 0, VELH_PM_INMEM, &cls), "class");
    velh_field_info_t fi;
    must(velh_field_info(db, cls, 0, &fi), "field");
    vel_db_connection_h con;
    must(velh_connect(db, &con), "connect");
    std::mt19937_64 rng(42);
    velh_field_shape_t sh{};
    for (auto _ : state) {
        state.PauseTiming();
        must(velh_begin(con, VELH_READ_WRITE), "begin");
        vel_objhandle_t obj;
        must(velh_obj_create(con, cls, &obj), "object");
        std::vector<vel_int4> v(n);
        for (uint64_t i = 0; i < n; ++i)
            v[i] = static_cast<vel_int4>(i);
        must(vel_w_seq_append_int4(&obj, fi.u_offset, fi.c_offset, fi.fld_no, v.data(), n,
                                   VEL_SEQ_NO_ORDER, nullptr),
             "append");
        must(velh_commit(con), "commit");
        must(velh_begin(con, VELH_READ_WRITE), "begin");
        must(velh_obj_open(con, cls, obj.oid, &obj), "reopen");
        velh_compact_state_t st{};
        uint64_t len = n;
        state.ResumeTiming();
        for (int k = 0; k < kInserts; ++k) {
            vel_int4 x = -k;
            must(vel_w_seq_insert_int4(&obj, fi.u_offset, fi.c_offset, fi.fld_no, rng() % (len + 1),
                                       &x, 1, VEL_SEQ_NO_ORDER, nullptr),
                 "insert");
            ++len;
            if (kept)
                must(velh_keep_compact(&obj, fi.fld_no, VEL_SEQ_NO_ORDER, 1, &st), "keep");
        }
        state.PauseTiming();
        must(velh_field_shape(&obj, fi.fld_no, VEL_SEQ_NO_ORDER, &sh), "shape");
        must(velh_rollback(con), "rollback");
        state.ResumeTiming();
    }
    state.SetItemsProcessed(state.iterations() * kInserts);
    state.counters["ns_per_insert"] =
        benchmark::Counter(double(state.iterations() * kInserts),
                           benchmark::Counter::kIsRate | benchmark::Counter::kInvert);
    state.counters["depth"] = sh.depth;
    state.counters["pages_per_1000"] = 1000.0 * double(sh.pages) / double(sh.elements);
    state.counters["pages_vs_dense"] = double(sh.pages) / double(sh.dense_pages);
    must(velh_disconnect(con), "disconnect");
    must(velh_db_close(db), "close");
}
BENCHMARK(BM_LateInserts)
    ->ArgsProduct({{6, 7}, {0, 1}})
    ->Iterations(1)
    ->Unit(benchmark::kMillisecond);

} // namespace
