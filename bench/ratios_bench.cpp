// velseq against plain C++ on the same data, in one process: every workload
// runs as a pair of benchmarks, `<Name>/velseq/...` and `<Name>/plain/...`,
// whose times scripts/bench-ratios.sh divides.  The data of one length N is
// generated once per process (fixed seeds) and shared by every case:
//
//   ts    N ascending datetimes (1000 + 2 i), an ordered sequence field
//   val   N int4 values, an unordered field
//   px    N doubles (a random walk), an unordered field
//   probe 2^20 datetimes, uniformly random over the span of ts, or ascending
//   posn  2^20 positions into val (uint8), uniformly random, or ascending
//
// Sequence pages are 4 KiB; the database is opened with a warm pool, so the
// figures are those of memory already touched once.  Build with the release
// preset; `scripts/bench-ratios.sh` runs it and makes the table and plots.
#include <benchmark/benchmark.h>

#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <memory>
#include <numeric>
#include <random>
#include <vector>

#include "duckdb_peer.h"
#include "velembed.h"
#include "velseq/table.hpp"
#include "velseq/types.hpp"

namespace {

void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "%s failed with %d\n", what, static_cast<int>(rc));
        std::abort();
    }
}

constexpr uint64_t kProbes = uint64_t{1} << 20;

// One database holding every sequence of one length N, plus the plain copies.
struct Data {
    uint64_t n = 0;
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;
    uint16_t cls = 0;
    vel_objhandle_t obj{};
    velh_field_info_t ts{}, val{}, probe_rnd{}, probe_asc{}, posn_rnd{}, posn_asc{}, dst{}, px{};
    std::vector<vel_datetime> p_ts, p_probe_rnd, p_probe_asc;
    std::vector<int32_t> p_val;
    std::vector<double> p_px;
    std::vector<uint64_t> p_posn_rnd, p_posn_asc;

    explicit Data(uint64_t len) : n(len) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.warm_pages = 4096;
        check(velh_db_open(&cfg, &db), "open");
        velh_field_def_t f[] = {{"ts", VEL_DD_SEQUENCE_DATETIME, 0, 0},
                                {"val", VEL_DD_SEQUENCE_INT4, 0, 0},
                                {"probe_rnd", VEL_DD_SEQUENCE_DATETIME, 0, 0},
                                {"probe_asc", VEL_DD_SEQUENCE_DATETIME, 0, 0},
                                {"posn_rnd", VEL_DD_SEQUENCE_UINT8, 0, 0},
                                {"posn_asc", VEL_DD_SEQUENCE_UINT8, 0, 0},
                                {"dst", VEL_DD_SEQUENCE_INT4, 0, 0},
                                {"px", VEL_DD_SEQUENCE_DOUBLE, 0, 0}};
        check(velh_class_define(db, "data", f, 8, 0, VELH_PM_INMEM, &cls), "class");
        velh_field_info_t *info[] = {&ts,       &val,      &probe_rnd, &probe_asc,
                                     &posn_rnd, &posn_asc, &dst,       &px};
        for (uint16_t i = 0; i < 8; i++)
            check(velh_field_info(db, cls, i, info[i]), "field");
        check(velh_connect(db, &con), "connect");
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        check(velh_obj_create(con, cls, &obj), "object");

        std::mt19937_64 rng(42);
        p_ts.resize(n);
        p_val.resize(n);
        p_px.resize(n);
        double walk = 100;
        for (uint64_t i = 0; i < n; i++) {
            p_ts[i] = 1000 + 2 * i;
            p_val[i] = static_cast<int32_t>(rng());
            walk += static_cast<double>(static_cast<int64_t>(rng() % 2001) - 1000) / 4096;
            p_px[i] = walk;
        }
        p_probe_rnd.resize(kProbes);
        p_posn_rnd.resize(kProbes);
        p_probe_asc.resize(kProbes);
        p_posn_asc.resize(kProbes);
        // Random probes stay inside the span, so that every one is found.
        for (uint64_t i = 0; i < kProbes; i++) {
            p_probe_rnd[i] = 1000 + rng() % (2 * n - 1);
            p_posn_rnd[i] = rng() % n;
        }
        p_probe_asc = p_probe_rnd;
        std::sort(p_probe_asc.begin(), p_probe_asc.end());
        p_posn_asc = p_posn_rnd;
        std::sort(p_posn_asc.begin(), p_posn_asc.end());

        append(ts, p_ts.data(), VEL_SEQ_ASC_ORDER);
        append(val, p_val.data());
        check(vel_w_seq_append_double(&obj, px.u_offset, px.c_offset, px.fld_no, p_px.data(), n,
                                      VEL_SEQ_NO_ORDER, nullptr),
              "append double");
        append(probe_rnd, p_probe_rnd.data(), VEL_SEQ_NO_ORDER, kProbes);
        append(probe_asc, p_probe_asc.data(), VEL_SEQ_NO_ORDER, kProbes);
        append_u8(posn_rnd, p_posn_rnd.data(), VEL_SEQ_NO_ORDER, kProbes);
        append_u8(posn_asc, p_posn_asc.data(), VEL_SEQ_NO_ORDER, kProbes);
        renew();
    }
    ~Data() {
        velh_rollback(con);
        velh_disconnect(con);
        velh_db_close(db);
    }
    Data(const Data &) = delete;
    Data &operator=(const Data &) = delete;

    void append(const velh_field_info_t &f, const vel_datetime *v, vel_seq_order_t o,
                uint64_t count = 0) {
        check(vel_w_seq_append_datetime(&obj, f.u_offset, f.c_offset, f.fld_no, v,
                                        count ? count : n, o, nullptr),
              "append datetime");
    }
    void append(const velh_field_info_t &f, const int32_t *v) {
        check(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v, n, VEL_SEQ_NO_ORDER,
                                    nullptr),
              "append int4");
    }
    void append_u8(const velh_field_info_t &f, const uint64_t *v, vel_seq_order_t o,
                   uint64_t count) {
        check(vel_w_seq_append_uint8(&obj, f.u_offset, f.c_offset, f.fld_no, v, count, o, nullptr),
              "append uint8");
    }
    // Commit and go on in a new read-write transaction: pages freed so far
    // return to the pool.
    void renew() {
        check(velh_commit(con), "commit");
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        check(velh_obj_open(con, cls, obj.oid, &obj), "reopen");
    }
};

Data &data(uint64_t n) {
    static std::map<uint64_t, std::unique_ptr<Data>> cache;
    auto &d = cache[n];
    if (!d) {
        cache.clear(); // one length at a time: 10^8 needs the memory
        auto &slot = cache[n];
        slot = std::make_unique<Data>(n);
        return *slot;
    }
    return *d;
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

uint64_t pow10(int64_t k) {
    uint64_t v = 1;
    while (k-- > 0)
        v *= 10;
    return v;
}

// ---- append ----------------------------------------------------------------

constexpr uint64_t kAppendValues = uint64_t{1} << 20;

void BM_Append_velseq(benchmark::State &state) {
    const auto batch = static_cast<uint64_t>(state.range(1));
    Data &d = data(pow10(state.range(0)));
    std::vector<int32_t> buf(batch);
    auto fill = [&] {
        for (uint64_t i = 0; i < kAppendValues; i += batch) {
            for (uint64_t k = 0; k < batch; k++)
                buf[k] = static_cast<int32_t>(i + k);
            check(vel_w_seq_append_int4(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no,
                                        buf.data(), batch, VEL_SEQ_ASC_ORDER, nullptr),
                  "append");
        }
    };
    // Once untimed, so that the pages are warm.
    check(vel_w_seq_truncate(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no), "truncate");
    fill();
    for (auto _ : state) {
        state.PauseTiming();
        check(vel_w_seq_truncate(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no), "truncate");
        d.renew();
        state.ResumeTiming();
        fill();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kAppendValues));
}

void BM_Append_plain(benchmark::State &state) {
    const auto batch = static_cast<uint64_t>(state.range(1));
    std::vector<int32_t> buf(batch);
    for (auto _ : state) {
        std::vector<int32_t> v; // fresh, as a new field is
        for (uint64_t i = 0; i < kAppendValues; i += batch) {
            for (uint64_t k = 0; k < batch; k++)
                buf[k] = static_cast<int32_t>(i + k);
            v.insert(v.end(), buf.begin(), buf.end());
        }
        benchmark::DoNotOptimize(v.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kAppendValues));
}

// ---- scan, range read, store --------------------------------------------------

int64_t sum_tiles(vel_seq_iterator_t &it) {
    int64_t sum = 0;
    while (it.next(&it) == VEL_S_OK)
        for (int i = 0; i < it.tile_size; i++)
            sum += it.tile.u.arr_int4[i];
    return sum;
}

void BM_Scan_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    auto it_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &it = *it_rec;
    for (auto _ : state) {
        check(vel_w_seq_subseq_int4(&d.obj, d.val.u_offset, d.val.c_offset, &it, 0, ~0ull),
              "subseq");
        benchmark::DoNotOptimize(sum_tiles(it));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

void BM_Scan_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    for (auto _ : state)
        benchmark::DoNotOptimize(std::accumulate(d.p_val.begin(), d.p_val.end(), int64_t{0}));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

// The table layer's zero-copy path: the field's leaves summed in place.
void BM_ZeroCopyScan_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const velseq::table::column c{d.obj, d.val, {VEL_DD_SEQUENCE_INT4, 4}};
    for (auto _ : state) {
        int64_t sum = 0;
        velseq::table::visit_leaves(c, 0, d.n, [&](const velseq::table::leaf_run &r) {
            const auto *v = static_cast<const int32_t *>(r.values);
            int64_t s = 0; // in a register: the loop vectorises
            for (uint64_t i = 0; i < r.length; i++)
                s += v[i];
            sum += s;
            return true;
        });
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

// ---- aggregate: count, sum, min, max of a whole field ---------------------------

const std::vector<std::string> kAggKernels = {"count", "sum", "min", "max"};

// The table layer's aggregate (one fused pass over the leaves in place);
// argument 1 picks the field: 0 the int4 `val`, 1 the double `px`.
void BM_Aggregate_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const velseq::table::column c =
        state.range(1) ? velseq::table::column{d.obj, d.px, {VEL_DD_SEQUENCE_DOUBLE, 8}}
                       : velseq::table::column{d.obj, d.val, {VEL_DD_SEQUENCE_INT4, 4}};
    for (auto _ : state)
        benchmark::DoNotOptimize(velseq::table::aggregate(c, 0, d.n, kAggKernels));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

// One plain loop of the same four answers.
template <class T, class S> void plain_summary(const std::vector<T> &v) {
    S sum = 0;
    T mn = v[0], mx = v[0];
    for (T x : v) {
        sum += x;
        mn = x < mn ? x : mn;
        mx = mx < x ? x : mx;
    }
    const uint64_t count = v.size();
    benchmark::DoNotOptimize(count);
    benchmark::DoNotOptimize(sum);
    benchmark::DoNotOptimize(mn);
    benchmark::DoNotOptimize(mx);
}

void BM_Aggregate_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    for (auto _ : state) {
        if (state.range(1))
            plain_summary<double, double>(d.p_px);
        else
            plain_summary<int32_t, int64_t>(d.p_val);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

constexpr uint64_t kRange = 1'000'000;

void BM_RangeRead_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    auto it_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &it = *it_rec;
    uint64_t k = 0;
    for (auto _ : state) {
        const uint64_t from = (k++ * 7919 * 4099) % (d.n - kRange);
        check(vel_w_seq_subseq_int4(&d.obj, d.val.u_offset, d.val.c_offset, &it, from,
                                    from + kRange - 1),
              "subseq");
        benchmark::DoNotOptimize(sum_tiles(it));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRange));
}

void BM_RangeRead_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    uint64_t k = 0;
    for (auto _ : state) {
        const uint64_t from = (k++ * 7919 * 4099) % (d.n - kRange);
        benchmark::DoNotOptimize(
            std::accumulate(d.p_val.begin() + static_cast<int64_t>(from),
                            d.p_val.begin() + static_cast<int64_t>(from + kRange), int64_t{0}));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRange));
}

void BM_Store_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    auto it_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &it = *it_rec;
    // Once untimed, so that the target's pages are warm.
    check(vel_w_seq_truncate(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no), "truncate");
    check(vel_w_seq_subseq_int4(&d.obj, d.val.u_offset, d.val.c_offset, &it, 0, ~0ull), "subseq");
    check(vel_w_seq_store_int4(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no, &it,
                               VEL_SEQ_NO_ORDER),
          "store");
    for (auto _ : state) {
        state.PauseTiming();
        check(vel_w_seq_truncate(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no), "truncate");
        d.renew(); // the freed pages are warm again
        check(vel_w_seq_subseq_int4(&d.obj, d.val.u_offset, d.val.c_offset, &it, 0, ~0ull),
              "subseq");
        state.ResumeTiming();
        check(vel_w_seq_store_int4(&d.obj, d.dst.u_offset, d.dst.c_offset, d.dst.fld_no, &it,
                                   VEL_SEQ_NO_ORDER),
              "store");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

void BM_Store_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    std::vector<int32_t> dst(d.n); // warm: written once before
    for (auto _ : state) {
        std::copy(d.p_val.begin(), d.p_val.end(), dst.begin());
        benchmark::DoNotOptimize(dst.data());
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * d.n));
}

// ---- value-range search ---------------------------------------------------------

// A window of 1000 elements at a random place.
void BM_Search_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    auto it_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &it = *it_rec;
    uint64_t k = 0;
    for (auto _ : state) {
        const vel_datetime lo = d.p_probe_rnd[k++ % kProbes];
        check(vel_w_seq_search_datetime(&d.obj, d.ts.u_offset, d.ts.c_offset, &it, lo,
                                        VEL_SEQ_BOUNDARY_INCLUSIVE, lo + 2000,
                                        VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
              "search");
        benchmark::DoNotOptimize(it.last_seq_no - it.first_seq_no);
    }
}

void BM_Search_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    uint64_t k = 0;
    for (auto _ : state) {
        const vel_datetime lo = d.p_probe_rnd[k++ % kProbes];
        auto a = std::lower_bound(d.p_ts.begin(), d.p_ts.end(), lo);
        auto b = std::lower_bound(d.p_ts.begin(), d.p_ts.end(), lo + 2000);
        benchmark::DoNotOptimize(b - a);
    }
}

// ---- join and map --------------------------------------------------------------

void BM_Join_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const velh_field_info_t &pf = state.range(1) ? d.probe_asc : d.probe_rnd;
    auto src_rec = velseq::detail::new_iter(), join_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &src = *src_rec, &join = *join_rec;
    for (auto _ : state) {
        check(vel_w_seq_subseq_datetime(&d.obj, pf.u_offset, pf.c_offset, &src, 0, ~0ull),
              "probes");
        check(vel_w_seq_join_datetime(&d.obj, d.ts.u_offset, d.ts.c_offset, &join, &src,
                                      VEL_SEQ_ASC_ORDER),
              "join");
        uint64_t sum = 0;
        while (join.next(&join) == VEL_S_OK)
            for (int i = 0; i < join.tile_size; i++)
                sum += join.tile.u.arr_uint8[i];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

void BM_Join_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const auto &probes = state.range(1) ? d.p_probe_asc : d.p_probe_rnd;
    for (auto _ : state) {
        uint64_t sum = 0;
        for (vel_datetime p : probes)
            sum += static_cast<uint64_t>(std::lower_bound(d.p_ts.begin(), d.p_ts.end(), p) -
                                         d.p_ts.begin());
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

void BM_Map_velseq(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const velh_field_info_t &pf = state.range(1) ? d.posn_asc : d.posn_rnd;
    auto src_rec = velseq::detail::new_iter(), map_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &src = *src_rec, &map = *map_rec;
    for (auto _ : state) {
        check(vel_w_seq_subseq_uint8(&d.obj, pf.u_offset, pf.c_offset, &src, 0, ~0ull),
              "positions");
        check(vel_w_seq_map_int4(&d.obj, d.val.u_offset, d.val.c_offset, &map, &src), "map");
        benchmark::DoNotOptimize(sum_tiles(map));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

void BM_Map_plain(benchmark::State &state) {
    Data &d = data(pow10(state.range(0)));
    const auto &posn = state.range(1) ? d.p_posn_asc : d.p_posn_rnd;
    for (auto _ : state) {
        int64_t sum = 0;
        for (uint64_t p : posn)
            sum += d.p_val[p];
        benchmark::DoNotOptimize(sum);
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

// ---- 10^8 int8 timestamps --------------------------------------------------------

// Builds 10^8 ascending int8 timestamps in calls of 2048 in a fresh
// database and reports the build rate, bytes per value and peak memory,
// then times a scan, a 1000-row search and 2^20 random joins on them.
void BM_Big_velseq(benchmark::State &state) {
    const uint64_t n = pow10(state.range(0));
    for (auto _ : state) {
        velh_config_t cfg;
        velh_config_init(&cfg);
        velh_db_t *db = nullptr;
        check(velh_db_open(&cfg, &db), "open");
        velh_field_def_t f[] = {{"t", VEL_DD_SEQUENCE_INT8, 0, 0},
                                {"p", VEL_DD_SEQUENCE_INT8, 0, 0}};
        uint16_t cls = 0;
        check(velh_class_define(db, "big", f, 2, 0, VELH_PM_INMEM, &cls), "class");
        velh_field_info_t t{}, p{};
        check(velh_field_info(db, cls, 0, &t), "t");
        check(velh_field_info(db, cls, 1, &p), "p");
        vel_db_connection_h con = nullptr;
        check(velh_connect(db, &con), "connect");
        check(velh_begin(con, VELH_READ_WRITE), "begin");
        vel_objhandle_t obj{};
        check(velh_obj_create(con, cls, &obj), "object");

        std::vector<vel_int8> buf(2048);
        auto t0 = now();
        for (uint64_t i = 0; i < n; i += buf.size()) {
            const uint64_t k = std::min<uint64_t>(buf.size(), n - i);
            for (uint64_t j = 0; j < k; j++)
                buf[j] = static_cast<vel_int8>(3 * (i + j));
            check(vel_w_seq_append_int8(&obj, t.u_offset, t.c_offset, t.fld_no, buf.data(), k,
                                        VEL_SEQ_ASC_ORDER, nullptr),
                  "append");
        }
        auto t1 = now();
        velh_page_stats_t ps{};
        check(velh_page_stats(db, VELH_PM_ALL, &ps), "stats");

        auto it_rec = velseq::detail::new_iter();
        vel_seq_iterator_t &it = *it_rec;
        check(vel_w_seq_subseq_int8(&obj, t.u_offset, t.c_offset, &it, 0, ~0ull), "subseq");
        int64_t sum = 0;
        while (it.next(&it) == VEL_S_OK)
            for (int i = 0; i < it.tile_size; i++)
                sum += it.tile.u.arr_int8[i];
        benchmark::DoNotOptimize(sum);
        auto t2 = now();

        std::mt19937_64 rng(7);
        const int searches = 10000;
        for (int s = 0; s < searches; s++) {
            const auto lo = static_cast<vel_int8>(rng() % (3 * n - 3000));
            check(vel_w_seq_search_int8(&obj, t.u_offset, t.c_offset, &it, lo,
                                        VEL_SEQ_BOUNDARY_INCLUSIVE, lo + 3000,
                                        VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
                  "search");
        }
        auto t3 = now();

        std::vector<vel_int8> probes(kProbes);
        for (auto &v : probes)
            v = static_cast<vel_int8>(rng() % (3 * n - 3));
        check(vel_w_seq_append_int8(&obj, p.u_offset, p.c_offset, p.fld_no, probes.data(), kProbes,
                                    VEL_SEQ_NO_ORDER, nullptr),
              "probes");
        auto src_rec = velseq::detail::new_iter(), join_rec = velseq::detail::new_iter();
        vel_seq_iterator_t &src = *src_rec, &join = *join_rec;
        auto t4 = now();
        check(vel_w_seq_subseq_int8(&obj, p.u_offset, p.c_offset, &src, 0, ~0ull), "probe scan");
        check(vel_w_seq_join_int8(&obj, t.u_offset, t.c_offset, &join, &src, VEL_SEQ_ASC_ORDER),
              "join");
        uint64_t jsum = 0;
        while (join.next(&join) == VEL_S_OK)
            for (int i = 0; i < join.tile_size; i++)
                jsum += join.tile.u.arr_uint8[i];
        benchmark::DoNotOptimize(jsum);
        auto t5 = now();

        struct rusage ru {};
        getrusage(RUSAGE_SELF, &ru);
        state.counters["append_Mps"] = static_cast<double>(n) / (t1 - t0) / 1e6;
        state.counters["bytes_per_value"] =
            static_cast<double>(ps.peak * cfg.seq_page_size) / static_cast<double>(n);
        state.counters["scan_Gps"] = static_cast<double>(n) / (t2 - t1) / 1e9;
        state.counters["search_us"] = (t3 - t2) / searches * 1e6;
        state.counters["join_ns_per_probe"] = (t5 - t4) / kProbes * 1e9;
        state.counters["peak_pages_MiB"] =
            static_cast<double>(ps.peak * cfg.seq_page_size) / (1024.0 * 1024.0);
        state.counters["max_rss_MiB"] = static_cast<double>(ru.ru_maxrss) / 1024.0;
        velh_rollback(con);
        velh_disconnect(con);
        velh_db_close(db);
    }
}

void BM_Big_plain(benchmark::State &state) {
    const uint64_t n = pow10(state.range(0));
    for (auto _ : state) {
        auto t0 = now();
        std::vector<int64_t> v;
        std::vector<int64_t> buf(2048);
        for (uint64_t i = 0; i < n; i += buf.size()) {
            const uint64_t k = std::min<uint64_t>(buf.size(), n - i);
            for (uint64_t j = 0; j < k; j++)
                buf[j] = static_cast<int64_t>(3 * (i + j));
            v.insert(v.end(), buf.begin(), buf.begin() + static_cast<int64_t>(k));
        }
        auto t1 = now();
        benchmark::DoNotOptimize(std::accumulate(v.begin(), v.end(), int64_t{0}));
        auto t2 = now();
        std::mt19937_64 rng(7);
        const int searches = 10000;
        int64_t w = 0;
        for (int s = 0; s < searches; s++) {
            const auto lo = static_cast<int64_t>(rng() % (3 * n - 3000));
            w += std::lower_bound(v.begin(), v.end(), lo + 3000) -
                 std::lower_bound(v.begin(), v.end(), lo);
        }
        benchmark::DoNotOptimize(w);
        auto t3 = now();
        std::vector<int64_t> probes(kProbes);
        for (auto &x : probes)
            x = static_cast<int64_t>(rng() % (3 * n - 3));
        auto t4 = now();
        uint64_t jsum = 0;
        for (int64_t x : probes)
            jsum += static_cast<uint64_t>(std::lower_bound(v.begin(), v.end(), x) - v.begin());
        benchmark::DoNotOptimize(jsum);
        auto t5 = now();
        struct rusage ru {};
        getrusage(RUSAGE_SELF, &ru);
        state.counters["append_Mps"] = static_cast<double>(n) / (t1 - t0) / 1e6;
        state.counters["bytes_per_value"] =
            static_cast<double>(v.capacity() * sizeof(int64_t)) / static_cast<double>(n);
        state.counters["scan_Gps"] = static_cast<double>(n) / (t2 - t1) / 1e9;
        state.counters["search_us"] = (t3 - t2) / searches * 1e6;
        state.counters["join_ns_per_probe"] = (t5 - t4) / kProbes * 1e9;
        state.counters["max_rss_MiB"] = static_cast<double>(ru.ru_maxrss) / 1024.0;
    }
}

// ---- DuckDB, when its library is there -------------------------------------------

// The same data as Data(10^7) in DuckDB tables, one database per thread
// count: ts(pos, t), v(val), vp(pos, val), probe_rnd/probe_asc(p),
// posn_rnd/posn_asc(p), dst(val).
duck::db &duck_data(int threads) {
    static std::map<int, std::unique_ptr<duck::db>> dbs;
    auto &slot = dbs[threads];
    if (slot)
        return *slot;
    Data &d = data(pow10(7));
    slot = std::make_unique<duck::db>(threads);
    duck::db &x = *slot;
    x.exec("CREATE TABLE ts(pos BIGINT, t BIGINT)");
    x.exec("CREATE TABLE v(val INTEGER)");
    x.exec("CREATE TABLE dst(val INTEGER)");
    {
        duck::appender a(x, "ts");
        for (uint64_t i = 0; i < d.n; i++)
            a.row(static_cast<int64_t>(i), static_cast<int64_t>(d.p_ts[i]));
        a.flush();
        duck::appender b(x, "v");
        for (int32_t val : d.p_val)
            b.row(val);
        b.flush();
    }
    x.exec("CREATE TABLE vp AS SELECT rowid AS pos, val FROM v");
    // px is 100 plus a multiple of 1/4096: its steps cross as integers.
    x.exec("CREATE TABLE pxsteps(c BIGINT, unused BIGINT)");
    {
        duck::appender a(x, "pxsteps");
        for (double v : d.p_px)
            a.row(static_cast<int64_t>((v - 100) * 4096), 0);
        a.flush();
    }
    x.exec("CREATE TABLE pxt AS SELECT 100 + CAST(c AS DOUBLE) / 4096 AS px FROM pxsteps");
    auto column = [&](const char *name, const auto &values) {
        x.exec(std::string("CREATE TABLE ") + name + "(p BIGINT, unused BIGINT)");
        duck::appender a(x, name);
        for (auto p : values)
            a.row(static_cast<int64_t>(p), 0);
        a.flush();
    };
    column("probe_rnd", d.p_probe_rnd);
    column("probe_asc", d.p_probe_asc);
    column("posn_rnd", d.p_posn_rnd);
    column("posn_asc", d.p_posn_asc);
    return x;
}

// Rows through the appender, one row per call whatever the batch: that is
// the appender's interface.  A fresh table each time, as a new field is.
void BM_Append_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(2)));
    for (auto _ : state) {
        state.PauseTiming();
        x.exec("DROP TABLE IF EXISTS app; CREATE TABLE app(val INTEGER)");
        state.ResumeTiming();
        duck::appender a(x, "app");
        for (uint64_t i = 0; i < kAppendValues; i++)
            a.row(static_cast<int32_t>(i));
        a.flush();
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kAppendValues));
}

void BM_Scan_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(1)));
    for (auto _ : state)
        benchmark::DoNotOptimize(x.sum_query<int32_t>("SELECT val FROM v"));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pow10(7)));
}

void BM_Aggregate_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(2)));
    const char *sql = state.range(1) ? "SELECT count(px), sum(px), min(px), max(px) FROM pxt"
                                     : "SELECT count(val), sum(val), min(val), max(val) FROM v";
    for (auto _ : state)
        benchmark::DoNotOptimize(x.scalar(sql));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pow10(7)));
}

void BM_RangeRead_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(1)));
    uint64_t k = 0;
    for (auto _ : state) {
        const uint64_t from = (k++ * 7919 * 4099) % (pow10(7) - kRange);
        benchmark::DoNotOptimize(x.sum_query<int32_t>("SELECT val FROM vp WHERE pos BETWEEN " +
                                                      std::to_string(from) + " AND " +
                                                      std::to_string(from + kRange - 1)));
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kRange));
}

void BM_Store_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(1)));
    for (auto _ : state) {
        state.PauseTiming();
        x.exec("DELETE FROM dst");
        state.ResumeTiming();
        x.exec("INSERT INTO dst SELECT val FROM v");
    }
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * pow10(7)));
}

void BM_Search_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(1)));
    Data &d = data(pow10(7));
    duck::prepared q(x, "SELECT count(*) FROM ts WHERE t >= $1 AND t < $2");
    uint64_t k = 0;
    for (auto _ : state) {
        const auto lo = static_cast<int64_t>(d.p_probe_rnd[k++ % kProbes]);
        benchmark::DoNotOptimize(q.scalar(lo, lo + 2000));
    }
}

// The position of the first timestamp at or after each probe: an as-of join.
void BM_Join_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(2)));
    const std::string sql = std::string("SELECT sum(ts.pos) FROM ") +
                            (state.range(1) ? "probe_asc" : "probe_rnd") +
                            " p ASOF JOIN ts ON ts.t >= p.p";
    for (auto _ : state)
        benchmark::DoNotOptimize(x.scalar(sql));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

void BM_Map_duckdb(benchmark::State &state) {
    duck::db &x = duck_data(static_cast<int>(state.range(2)));
    const std::string sql = std::string("SELECT sum(vp.val) FROM ") +
                            (state.range(1) ? "posn_asc" : "posn_rnd") +
                            " p JOIN vp ON vp.pos = p.p";
    for (auto _ : state)
        benchmark::DoNotOptimize(x.scalar(sql));
    state.SetItemsProcessed(static_cast<int64_t>(state.iterations() * kProbes));
}

} // namespace

// Registered grouped by length, so that each length's data is built once:
// every workload at 10^7 (the table; append at several batch sizes, its
// plot), then join and map at 10^5, 10^6 and 10^8 (their plots), then the
// 10^8 int8 build.
int main(int argc, char **argv) {
    using Fn = void (*)(benchmark::State &);
    struct Pair {
        const char *name;
        Fn velseq, plain;
    };
    auto reg = [](const Pair &p, std::vector<int64_t> args) {
        char name[128];
        for (int side = 0; side < 2; side++) {
            std::snprintf(name, sizeof name, "Ratio/%s/%s", p.name, side == 0 ? "velseq" : "plain");
            benchmark::RegisterBenchmark(name, side == 0 ? p.velseq : p.plain)->Args(args);
        }
    };
    const Pair append{"Append", BM_Append_velseq, BM_Append_plain};
    const Pair table[] = {{"Scan", BM_Scan_velseq, BM_Scan_plain},
                          {"ZeroCopyScan", BM_ZeroCopyScan_velseq, BM_Scan_plain},
                          {"RangeRead", BM_RangeRead_velseq, BM_RangeRead_plain},
                          {"Store", BM_Store_velseq, BM_Store_plain},
                          {"Search", BM_Search_velseq, BM_Search_plain}};
    const Pair join{"Join", BM_Join_velseq, BM_Join_plain};
    const Pair map{"Map", BM_Map_velseq, BM_Map_plain};
    const Pair agg{"Aggregate", BM_Aggregate_velseq, BM_Aggregate_plain};
    for (int64_t batch : {1, 4, 16, 64, 256, 2048})
        reg(append, {7, batch});
    for (const Pair &p : table)
        reg(p, {7});
    for (int64_t field : {0, 1}) // int4, double
        reg(agg, {7, field});
    for (int64_t order : {0, 1}) { // random, ascending
        reg(join, {7, order});
        reg(map, {7, order});
    }
    // DuckDB beside them, with 1 and 2 threads (the last argument), when
    // scripts/fetch-duckdb.sh has fetched its library.
    if (duck::api::get() != nullptr) {
        auto dreg = [](const char *name, Fn fn, std::vector<int64_t> args, int threads) {
            char full[128];
            std::snprintf(full, sizeof full, "Ratio/%s/duckdb%d", name, threads);
            args.push_back(threads);
            // The calling thread's CPU time misses the work of DuckDB's
            // second thread: with two, wall time is the honest measure.
            auto *b = benchmark::RegisterBenchmark(full, fn)->Args(args);
            if (threads > 1)
                b->UseRealTime();
        };
        for (int threads : {1, 2}) {
            for (int64_t batch : {1, 2048})
                dreg("Append", BM_Append_duckdb, {7, batch}, threads);
            dreg("Scan", BM_Scan_duckdb, {7}, threads);
            dreg("ZeroCopyScan", BM_Scan_duckdb, {7}, threads);
            for (int64_t field : {0, 1})
                dreg("Aggregate", BM_Aggregate_duckdb, {7, field}, threads);
            dreg("RangeRead", BM_RangeRead_duckdb, {7}, threads);
            dreg("Store", BM_Store_duckdb, {7}, threads);
            dreg("Search", BM_Search_duckdb, {7}, threads);
            for (int64_t order : {0, 1}) {
                dreg("Join", BM_Join_duckdb, {7, order}, threads);
                dreg("Map", BM_Map_duckdb, {7, order}, threads);
            }
        }
    } else {
        std::fprintf(stderr, "ratios: no DuckDB library (scripts/fetch-duckdb.sh), its cases "
                             "are left out\n");
    }
    for (int64_t lg : {5, 6, 8}) {
        reg(join, {lg, 0});
        reg(map, {lg, 0});
    }
    benchmark::RegisterBenchmark("Big/velseq/8", BM_Big_velseq)
        ->Arg(8)
        ->Iterations(1)
        ->Unit(benchmark::kSecond);
    benchmark::RegisterBenchmark("Big/plain/8", BM_Big_plain)
        ->Arg(8)
        ->Iterations(1)
        ->Unit(benchmark::kSecond);
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
