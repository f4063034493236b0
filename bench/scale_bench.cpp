// One field of N ascending int64 timestamps, from 10^6 up to 10^9 values:
// built in appends of a batch each in a fresh database (first touches of
// fresh memory included), then a scan through the module's tiles, a scan of
// the leaves in place (table::visit_leaves), 10 000 value-range searches
// of 1000 rows and 2^20 random probes through the module's join.  The
// plain side does the same with a std::vector (reserved: no growth) and
// std::lower_bound.  One length per process, so that the peak resident
// memory printed is that length's own:
//
//   velseq_scale_bench LOG10 [velseq|plain] [BATCH]
//
// prints one line of `key=value` figures; scripts/bench-scale.sh runs the
// lengths and makes the table and the plot.
#include <sys/resource.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <numeric>
#include <random>
#include <string>
#include <vector>

#include "velembed.h"
#include "velseq/table.hpp"
#include "velseq/types.hpp"

namespace {

void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK) {
        std::fprintf(stderr, "%s failed with %d\n", what, static_cast<int>(rc));
        std::exit(1);
    }
}

double now() {
    return std::chrono::duration<double>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

double max_rss_mib() {
    struct rusage ru {};
    getrusage(RUSAGE_SELF, &ru);
    return static_cast<double>(ru.ru_maxrss) / 1024.0;
}

constexpr uint64_t kProbes = uint64_t{1} << 20;
constexpr int kSearches = 10000;
constexpr int kScans = 3; // the best of these

// Timestamp i is 3 i: a search of [lo, lo + 3000) holds 1000 rows.
vel_int8 stamp(uint64_t i) { return static_cast<vel_int8>(3 * i); }

int run_velseq(uint64_t n, uint64_t batch) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    velh_db_t *db = nullptr;
    check(velh_db_open(&cfg, &db), "open");
    velh_field_def_t f[] = {{"t", VEL_DD_SEQUENCE_INT8, 0, 0}, {"p", VEL_DD_SEQUENCE_INT8, 0, 0}};
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

    std::vector<vel_int8> buf(batch);
    const double t0 = now();
    for (uint64_t i = 0; i < n; i += batch) {
        const uint64_t k = std::min(batch, n - i);
        for (uint64_t j = 0; j < k; j++)
            buf[j] = stamp(i + j);
        check(vel_w_seq_append_int8(&obj, t.u_offset, t.c_offset, t.fld_no, buf.data(), k,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              "append");
    }
    const double append_s = now() - t0;
    velh_page_stats_t ps{};
    check(velh_page_stats(db, VELH_PM_ALL, &ps), "stats");

    // The expected sum of the stamps, so that each scan is checked.
    const auto want = static_cast<int64_t>(3 * (n * (n - 1) / 2));
    double scan_s = 1e9, leaves_s = 1e9;
    for (int r = 0; r < kScans; r++) {
        auto it_rec = velseq::detail::new_iter();
        vel_seq_iterator_t &it = *it_rec;
        const double a = now();
        check(vel_w_seq_subseq_int8(&obj, t.u_offset, t.c_offset, &it, 0, ~0ull), "subseq");
        int64_t sum = 0;
        while (it.next(&it) == VEL_S_OK)
            for (int i = 0; i < it.tile_size; i++)
                sum += it.tile.u.arr_int8[i];
        const double b = now();
        const velseq::table::column c{obj, t, {VEL_DD_SEQUENCE_INT8, 8}};
        int64_t lsum = 0;
        velseq::table::visit_leaves(c, 0, n, [&](const velseq::table::leaf_run &run) {
            const auto *v = static_cast<const vel_int8 *>(run.values);
            int64_t s = 0;
            for (uint64_t i = 0; i < run.length; i++)
                s += v[i];
            lsum += s;
            return true;
        });
        const double e = now();
        if (sum != want || lsum != want) {
            std::fprintf(stderr, "scan sums %lld, %lld, not %lld\n", static_cast<long long>(sum),
                         static_cast<long long>(lsum), static_cast<long long>(want));
            return 1;
        }
        scan_s = std::min(scan_s, b - a);
        leaves_s = std::min(leaves_s, e - b);
    }

    std::mt19937_64 rng(7);
    auto it_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &it = *it_rec;
    const double s0 = now();
    for (int s = 0; s < kSearches; s++) {
        const auto lo = static_cast<vel_int8>(rng() % (3 * n - 3000));
        check(vel_w_seq_search_int8(&obj, t.u_offset, t.c_offset, &it, lo,
                                    VEL_SEQ_BOUNDARY_INCLUSIVE, lo + 3000,
                                    VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
              "search");
        if (it.last_seq_no - it.first_seq_no != 999) {
            std::fprintf(stderr, "search found %llu rows\n",
                         static_cast<unsigned long long>(it.last_seq_no - it.first_seq_no + 1));
            return 1;
        }
    }
    const double search_s = now() - s0;

    std::vector<vel_int8> probes(kProbes);
    uint64_t want_pos = 0;
    for (auto &v : probes) {
        v = static_cast<vel_int8>(rng() % (3 * n - 3));
        want_pos += static_cast<uint64_t>(v + 2) / 3; // the first stamp at or after v
    }
    check(vel_w_seq_append_int8(&obj, p.u_offset, p.c_offset, p.fld_no, probes.data(), kProbes,
                                VEL_SEQ_NO_ORDER, nullptr),
          "probes");
    auto src_rec = velseq::detail::new_iter(), join_rec = velseq::detail::new_iter();
    vel_seq_iterator_t &src = *src_rec, &join = *join_rec;
    const double j0 = now();
    check(vel_w_seq_subseq_int8(&obj, p.u_offset, p.c_offset, &src, 0, ~0ull), "probe scan");
    check(vel_w_seq_join_int8(&obj, t.u_offset, t.c_offset, &join, &src, VEL_SEQ_ASC_ORDER),
          "join");
    uint64_t jsum = 0;
    while (join.next(&join) == VEL_S_OK)
        for (int i = 0; i < join.tile_size; i++)
            jsum += join.tile.u.arr_uint8[i];
    const double probe_s = now() - j0;
    if (jsum != want_pos) {
        std::fprintf(stderr, "join positions sum %llu, not %llu\n",
                     static_cast<unsigned long long>(jsum),
                     static_cast<unsigned long long>(want_pos));
        return 1;
    }

    const double bytes = static_cast<double>(ps.peak) * cfg.seq_page_size;
    std::printf("side=velseq n=%llu batch=%llu bytes_per_value=%.3f peak_pages_MiB=%.1f "
                "max_rss_MiB=%.1f append_Mps=%.1f scan_Gps=%.3f leaves_Gps=%.3f search_us=%.2f "
                "probe_ns=%.1f\n",
                static_cast<unsigned long long>(n), static_cast<unsigned long long>(batch),
                bytes / static_cast<double>(n), bytes / (1024.0 * 1024.0), max_rss_mib(),
                static_cast<double>(n) / append_s / 1e6, static_cast<double>(n) / scan_s / 1e9,
                static_cast<double>(n) / leaves_s / 1e9, search_s / kSearches * 1e6,
                probe_s / kProbes * 1e9);
    velh_rollback(con);
    velh_disconnect(con);
    velh_db_close(db);
    return 0;
}

int run_plain(uint64_t n, uint64_t batch) {
    std::vector<int64_t> buf(batch);
    const double t0 = now();
    std::vector<int64_t> v;
    v.reserve(n);
    for (uint64_t i = 0; i < n; i += batch) {
        const uint64_t k = std::min(batch, n - i);
        for (uint64_t j = 0; j < k; j++)
            buf[j] = stamp(i + j);
        v.insert(v.end(), buf.begin(), buf.begin() + static_cast<int64_t>(k));
    }
    const double append_s = now() - t0;
    double scan_s = 1e9;
    int64_t sum = 0;
    for (int r = 0; r < kScans; r++) {
        const double a = now();
        sum += std::accumulate(v.begin(), v.end(), int64_t{0});
        scan_s = std::min(scan_s, now() - a);
    }
    std::mt19937_64 rng(7);
    const double s0 = now();
    int64_t w = 0;
    for (int s = 0; s < kSearches; s++) {
        const auto lo = static_cast<int64_t>(rng() % (3 * n - 3000));
        w += std::lower_bound(v.begin(), v.end(), lo + 3000) -
             std::lower_bound(v.begin(), v.end(), lo);
    }
    const double search_s = now() - s0;
    std::vector<int64_t> probes(kProbes);
    for (auto &x : probes)
        x = static_cast<int64_t>(rng() % (3 * n - 3));
    const double j0 = now();
    uint64_t jsum = 0;
    for (int64_t x : probes)
        jsum += static_cast<uint64_t>(std::lower_bound(v.begin(), v.end(), x) - v.begin());
    const double probe_s = now() - j0;
    std::printf("side=plain n=%llu batch=%llu bytes_per_value=%.3f max_rss_MiB=%.1f "
                "append_Mps=%.1f scan_Gps=%.3f search_us=%.2f probe_ns=%.1f check=%lld\n",
                static_cast<unsigned long long>(n), static_cast<unsigned long long>(batch),
                static_cast<double>(v.capacity() * sizeof(int64_t)) / static_cast<double>(n),
                max_rss_mib(), static_cast<double>(n) / append_s / 1e6,
                static_cast<double>(n) / scan_s / 1e9, search_s / kSearches * 1e6,
                probe_s / kProbes * 1e9,
                static_cast<long long>((sum + w + static_cast<int64_t>(jsum)) & 1));
    return 0;
}

} // namespace

int main(int argc, char **argv) {
    if (argc < 2 || argc > 4) {
        std::fprintf(stderr, "usage: %s LOG10 [velseq|plain] [BATCH]\n", argv[0]);
        return 2;
    }
    const int lg = std::atoi(argv[1]);
    if (lg < 4 || lg > 10) {
        std::fprintf(stderr, "LOG10 from 4 to 10\n");
        return 2;
    }
    uint64_t n = 1;
    for (int i = 0; i < lg; i++)
        n *= 10;
    const std::string side = argc > 2 ? argv[2] : "velseq";
    const uint64_t batch = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 65536;
    if (batch == 0 || (side != "velseq" && side != "plain")) {
        std::fprintf(stderr, "usage: %s LOG10 [velseq|plain] [BATCH]\n", argv[0]);
        return 2;
    }
    return side == "plain" ? run_plain(n, batch) : run_velseq(n, batch);
}
