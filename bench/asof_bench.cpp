// As-of lookups and joins of the C++ API against a plain std::upper_bound
// loop over std::vectors of the same data, over the shapes users run:
// probes:keys of 10:1, 1:1, 1:10 and 1:1000, ascending and random probes,
// positions alone and 1 or 4 gathered double columns (backward matches).
// Keys are random sorted nanosecond times, committed in one object; every
// answer is checked equal to the plain one before any time is printed.
// With DuckDB's library at hand (scripts/fetch-duckdb.sh, or $VELSEQ_DUCKDB)
// its ASOF JOIN on one thread joins the same data, the sums of the joined
// positions and values checked equal to velseq's; each side then sums what
// it joined (DuckDB in the query).  Each figure is the best of `reps` runs,
// in milliseconds.
//
//   build/release/bench/velseq_asof_bench [keys] [reps] [max probes]
//   (default 1000000 3 10000000; shapes of more probes are left out)
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "duckdb_peer.h"
#include "velseq.hpp"

namespace {

using namespace velseq;
using clk = std::chrono::steady_clock;

template <class F> double best_ms(int reps, F &&f) {
    double best = 1e300;
    for (int r = 0; r < reps; r++) {
        const auto a = clk::now();
        f();
        best = std::min(best, std::chrono::duration<double, std::milli>(clk::now() - a).count());
    }
    return best;
}

void require(bool ok, const std::string &what) {
    if (!ok) {
        std::fprintf(stderr, "asof_bench: %s differs from the plain answer\n", what.c_str());
        std::exit(1);
    }
}

struct Data {
    std::vector<int64_t> keys;
    std::vector<std::vector<double>> cols; // 4 value columns
};

// The plain answer: the last key at or before each probe, and its values.
struct Plain {
    std::vector<uint64_t> pos;
    std::vector<uint8_t> found;
    std::vector<std::vector<double>> vals;
};

void plain_asof(const Data &d, const std::vector<int64_t> &probes, size_t ncols, Plain &out) {
    out.pos.resize(probes.size());
    out.found.resize(probes.size());
    out.vals.resize(ncols);
    for (auto &v : out.vals)
        v.resize(probes.size());
    for (size_t i = 0; i < probes.size(); i++) {
        const auto it = std::upper_bound(d.keys.begin(), d.keys.end(), probes[i]);
        out.found[i] = it != d.keys.begin();
        out.pos[i] = out.found[i] ? uint64_t(it - d.keys.begin() - 1) : 0;
        for (size_t c = 0; c < ncols; c++)
            out.vals[c][i] = out.found[i] ? d.cols[c][out.pos[i]] : 0;
    }
}

// Cents, as DuckDB holds the values: exact sums on both sides.
int64_t cents(double x) { return std::llround(x * 100); }

// Sums of velseq's answers, as DuckDB's queries give them.
int64_t sum_positions(const nullable_vector<uint64_t> &at) {
    int64_t s = 0;
    for (size_t i = 0; i < at.size(); i++)
        s += at.valid(i) ? int64_t(at.data()[i]) : 0;
    return s;
}
int64_t sum_cents(std::initializer_list<const nullable_vector<double> *> cols) {
    int64_t s = 0;
    for (const auto *c : cols)
        for (size_t i = 0; i < c->size(); i++)
            s += c->valid(i) ? cents(c->data()[i]) : 0;
    return s;
}

// DuckDB on one thread with the keys (t, pos, c0..c3) and probes (t).
struct Duck {
    duck::db db{1};
    explicit Duck(const Data &d) {
        db.exec("CREATE TABLE k (t BIGINT, pos BIGINT, c0 BIGINT, c1 BIGINT, c2 BIGINT, "
                "c3 BIGINT)");
        duck::appender a(db, "k");
        for (size_t i = 0; i < d.keys.size(); i++)
            a.row({d.keys[i], int64_t(i), cents(d.cols[0][i]), cents(d.cols[1][i]),
                   cents(d.cols[2][i]), cents(d.cols[3][i])});
        a.flush();
    }
    void probes(const std::vector<int64_t> &p) {
        db.exec("CREATE OR REPLACE TABLE p (t BIGINT)");
        duck::appender a(db, "p");
        for (int64_t t : p)
            a.row({t});
        a.flush();
    }
    int64_t sum(const char *what) {
        return db.scalar(std::string("SELECT coalesce(sum(") + what +
                         "), 0) FROM p ASOF LEFT JOIN k ON p.t >= k.t");
    }
};

} // namespace

int main(int argc, char **argv) {
    const uint64_t nkeys = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 1000000;
    const int reps = argc > 2 ? std::atoi(argv[2]) : 3;
    const uint64_t max_probes = argc > 3 ? std::strtoull(argv[3], nullptr, 10) : 10000000;
    std::mt19937_64 rng(42);
    Data d;
    d.keys.resize(nkeys);
    int64_t t = 1'700'000'000'000'000'000;
    for (auto &k : d.keys)
        k = t += 1 + int64_t(rng() % 2'000'000);
    d.cols.assign(4, std::vector<double>(nkeys));
    for (auto &c : d.cols)
        for (auto &x : c)
            x = double(rng() % 100000) / 100;

    config cfg;
    cfg.warm_pages = static_cast<uint32_t>(std::min<uint64_t>(nkeys / 50 + 4096, 1u << 20));
    database db{cfg};
    schema cls{"ticks"};
    field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    std::vector<field<double>> px;
    for (int c = 0; c < 4; c++)
        px.push_back(cls.seq<double>("px" + std::to_string(c)));
    db.define(cls);
    connection con{db};
    uint64_t oid;
    {
        transaction tx{con, transaction::write};
        object o = tx.create(cls);
        std::vector<datetime> k(nkeys);
        for (size_t i = 0; i < nkeys; i++)
            k[i] = datetime::from_ns(d.keys[i]);
        o[ts].append(span<const datetime>(k));
        for (int c = 0; c < 4; c++)
            o[px[c]].append(span<const double>(d.cols[c]));
        oid = o.oid();
        tx.commit();
    }
    transaction tx{con, transaction::read};
    object o = tx.open(cls, oid);

    std::unique_ptr<Duck> duck;
    if (duck::api::get() != nullptr)
        duck = std::make_unique<Duck>(d);
    std::printf("%llu keys, best of %d; ms (velseq / plain upper_bound%s)\n",
                (unsigned long long)nkeys, reps, duck ? " / DuckDB ASOF JOIN" : "");
    std::printf("%-8s %-10s %10s %28s %28s %28s\n", "probes", "order", "count", "positions",
                "1 column", "4 columns");
    for (const auto &[num, den] : {std::pair{10, 1}, {1, 1}, {1, 10}, {1, 30}, {1, 100}, {1, 1000}})
        for (const bool random : {false, true}) {
            const uint64_t np = nkeys * num / den;
            if (np > max_probes)
                continue;
            std::vector<int64_t> probes(np);
            const int64_t lo = d.keys.front() - 1'000'000, span_ns = d.keys.back() - lo + 1'000'000;
            for (auto &p : probes)
                p = lo + int64_t(rng() % uint64_t(span_ns));
            if (!random)
                std::sort(probes.begin(), probes.end());
            std::vector<datetime> dp(np);
            for (size_t i = 0; i < np; i++)
                dp[i] = datetime::from_ns(probes[i]);
            const span<const datetime> ps(dp);
            const asof_options<datetime> opt;

            // Correctness first: positions and all four columns.
            Plain plain;
            plain_asof(d, probes, 4, plain);
            const auto at = asof(o[ts], ps, opt);
            const auto [c0, c1, c2, c3] =
                asof_join(o[ts], ps, opt, o[px[0]], o[px[1]], o[px[2]], o[px[3]]);
            const nullable_vector<double> *got[] = {&c0, &c1, &c2, &c3};
            for (size_t i = 0; i < np; i++) {
                require(at.valid(i) == bool(plain.found[i]) &&
                            (!at.valid(i) || at.data()[i] == plain.pos[i]),
                        "a position");
                for (int c = 0; c < 4; c++)
                    require(got[c]->valid(i) == bool(plain.found[i]) &&
                                (!plain.found[i] || got[c]->data()[i] == plain.vals[c][i]),
                            "a joined value");
            }

            double dp_ = 0, d1 = 0, d4 = 0;
            if (duck) {
                duck->probes(probes);
                require(duck->sum("k.pos") == sum_positions(at), "DuckDB's positions");
                require(duck->sum("k.c0") == sum_cents({&c0}), "DuckDB's column");
                require(duck->sum("k.c0 + k.c1 + k.c2 + k.c3") == sum_cents({&c0, &c1, &c2, &c3}),
                        "DuckDB's columns");
                dp_ = best_ms(reps, [&] { (void)duck->sum("k.pos"); });
                d1 = best_ms(reps, [&] { (void)duck->sum("k.c0"); });
                d4 = best_ms(reps, [&] { (void)duck->sum("k.c0 + k.c1 + k.c2 + k.c3"); });
            }

            Plain scratch;
            int64_t sink = 0;
            const double vp = best_ms(reps, [&] { sink += sum_positions(asof(o[ts], ps, opt)); });
            const double pp = best_ms(reps, [&] { plain_asof(d, probes, 0, scratch); });
            const double v1 = best_ms(reps, [&] {
                const auto [a] = asof_join(o[ts], ps, opt, o[px[0]]);
                sink += sum_cents({&a});
            });
            const double p1 = best_ms(reps, [&] { plain_asof(d, probes, 1, scratch); });
            const double v4 = best_ms(reps, [&] {
                const auto [a, b, c, e] =
                    asof_join(o[ts], ps, opt, o[px[0]], o[px[1]], o[px[2]], o[px[3]]);
                sink += sum_cents({&a, &b, &c, &e});
            });
            const double p4 = best_ms(reps, [&] { plain_asof(d, probes, 4, scratch); });
            char shape[16];
            std::snprintf(shape, sizeof shape, "%d:%d", num, den);
            auto cell = [&](double v, double p, double dk) {
                char b[48];
                if (duck)
                    std::snprintf(b, sizeof b, "%.2f / %.2f / %.2f", v, p, dk);
                else
                    std::snprintf(b, sizeof b, "%.2f / %.2f", v, p);
                return std::string(b);
            };
            std::printf("%-8s %-10s %10llu %28s %28s %28s\n", shape,
                        random ? "random" : "ascending", (unsigned long long)np,
                        cell(vp, pp, dp_).c_str(), cell(v1, p1, d1).c_str(),
                        cell(v4, p4, d4).c_str());
            if (sink == 42)
                std::printf(" ");
        }
    return 0;
}
