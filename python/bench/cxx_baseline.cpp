// The C++ API's side of the Python benchmarks (python/bench/bench_vs_pandas.py),
// done the way the binding does it: appending 10^7 doubles in one call to a
// field of a new object in a write transaction that is then rolled back (so
// that later repetitions reuse the pages, as in the Python run), and reading
// a committed field back in a read transaction by a full scan whose tiles are
// copied into a fresh, untouched buffer (as the binding fills a new NumPy
// array).  Prints "append <s>" and
// "scan <s>", best of 3.
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <vector>

#include "velseq.hpp"

int main() {
    using clk = std::chrono::steady_clock;
    constexpr size_t n = 10'000'000;
    std::vector<double> px(n);
    for (size_t i = 0; i < n; i++)
        px[i] = 100.0 + double(i % 10007) / 100.0;
    velseq::database db;
    velseq::schema cls("ticks");
    auto f = cls.seq<double>("px");
    db.define(cls);
    velseq::connection con(db);
    double best_append = 1e9, best_scan = 1e9;
    for (int rep = 0; rep < 3; rep++) {
        velseq::transaction tx(con, velseq::transaction::write);
        velseq::object o = tx.create(cls);
        auto t0 = clk::now();
        o[f].append(px);
        best_append = std::min(best_append, std::chrono::duration<double>(clk::now() - t0).count());
    }
    uint64_t oid;
    {
        velseq::transaction tx(con, velseq::transaction::write);
        velseq::object o = tx.create(cls);
        o[f].append(px);
        oid = o.oid();
        tx.commit();
    }
    velseq::transaction tx(con, velseq::transaction::read);
    velseq::object o = tx.open(cls, oid);
    for (int rep = 0; rep < 3; rep++) {
        auto t0 = clk::now();
        std::unique_ptr<double[]> out(new double[n]);
        size_t at = 0;
        for (const velseq::tile<double> &t : o[f].tiles()) {
            std::memcpy(out.get() + at, t.values.data(), t.size() * sizeof(double));
            at += t.size();
        }
        best_scan = std::min(best_scan, std::chrono::duration<double>(clk::now() - t0).count());
        if (at != n || out[n - 1] != px[n - 1])
            return 1;
    }
    std::printf("append %.4f\nscan %.4f\n", best_append, best_scan);
    return 0;
}
