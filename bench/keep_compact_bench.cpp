// Single int64 inserts through the C++ API (sequence::insert, which calls
// velh_keep_compact after every insert) into a committed field of n values,
// one write transaction, warm page pool.  Each call is timed on its own, so
// the table gives the mean, the 99.9th percentile and the longest call, and
// the field's shape at the end.  Patterns: hot (always the middle of the
// original field), random (uniform over the field) and end (within 64
// values of the end).
//
// With `cpu`, each call is timed in the thread's CPU time instead (0.6 us
// of clock reading added to each call on the development VM): the longest
// call without the time slices other processes took on a loaded machine.
//
//   build/release/bench/velseq_keep_compact_bench [inserts] [log10 sizes...] [patterns] [cpu]
//   e.g. velseq_keep_compact_bench 100000 6 7 7.6 8 hot
#include <algorithm>
#include <cctype>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <time.h>
#include <vector>

#include "velseq.hpp"

namespace {

using namespace velseq;
using clk = std::chrono::steady_clock;

bool g_cpu = false;

double now_us() {
    if (!g_cpu)
        return std::chrono::duration<double, std::micro>(clk::now().time_since_epoch()).count();
    timespec ts;
    clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
    return double(ts.tv_sec) * 1e6 + double(ts.tv_nsec) / 1e3;
}

struct Result {
    double mean_us, p999_us, max_us, seconds;
    velh_field_shape_t shape;
};

Result run(uint64_t n, uint64_t inserts, const std::string &pattern) {
    config c;
    // The committed field's pages and twice the dense pages of the field
    // at the end (a leaf holds 502 int64 values), at most 4 GiB.
    c.warm_pages = static_cast<uint32_t>(
        std::min<uint64_t>(n / 500 + 11 * (n + inserts) / 2500 + 4096, 1u << 20));
    database db{c};
    schema cls{"s"};
    field<int64_t> v = cls.seq<int64_t>("v");
    db.define(cls);
    connection con{db};
    uint64_t oid;
    {
        transaction tx{con, transaction::write};
        object o = tx.create(cls);
        std::vector<int64_t> buf(1 << 16);
        for (uint64_t done = 0; done < n; done += buf.size()) {
            const size_t k = static_cast<size_t>(std::min<uint64_t>(buf.size(), n - done));
            for (size_t i = 0; i < k; ++i)
                buf[i] = static_cast<int64_t>(done + i);
            o[v].append(span<const int64_t>(buf.data(), k));
        }
        oid = o.oid();
        tx.commit();
    }
    transaction tx{con, transaction::write};
    object o = tx.open(cls, oid);
    sequence<int64_t> s = o[v];
    std::mt19937_64 rng(7);
    std::vector<double> t(inserts);
    uint64_t len = n;
    const auto start = clk::now();
    for (uint64_t k = 0; k < inserts; ++k) {
        uint64_t pos = n / 2;
        if (pattern == "random")
            pos = rng() % (len + 1);
        else if (pattern == "end")
            pos = len - rng() % 64;
        const int64_t x = -static_cast<int64_t>(k);
        const double a = now_us();
        s.insert(pos, span<const int64_t>(&x, 1));
        t[k] = now_us() - a;
        ++len;
    }
    Result r{};
    r.seconds = std::chrono::duration<double>(clk::now() - start).count();
    double sum = 0;
    for (double x : t)
        sum += x;
    r.mean_us = sum / double(inserts);
    std::sort(t.begin(), t.end());
    r.max_us = t.back();
    r.p999_us = t[std::min<size_t>(t.size() - 1, size_t(double(t.size()) * 0.999))];
    velh_field_shape(o.handle(), v.info().fld_no, VEL_SEQ_NO_ORDER, &r.shape);
    if (r.shape.elements != len) {
        std::fprintf(stderr, "field holds %llu values, %llu expected\n",
                     (unsigned long long)r.shape.elements, (unsigned long long)len);
        std::exit(1);
    }
    tx.rollback();
    return r;
}

} // namespace

int main(int argc, char **argv) {
    uint64_t inserts = argc > 1 ? std::strtoull(argv[1], nullptr, 10) : 100000;
    std::vector<double> sizes;
    std::vector<std::string> patterns;
    for (int i = 2; i < argc; ++i) {
        if (std::isdigit(static_cast<unsigned char>(argv[i][0])))
            sizes.push_back(std::strtod(argv[i], nullptr));
        else if (std::strcmp(argv[i], "cpu") == 0)
            g_cpu = true;
        else
            patterns.push_back(argv[i]);
    }
    if (sizes.empty())
        sizes = {6, 7, 7.60206, 8};
    if (patterns.empty())
        patterns = {"hot", "random", "end"};
    std::printf("| values | pattern | inserts | mean | 99.9%% | worst | depth | pages / dense | "
                "total |\n|---|---|---|---|---|---|---|---|---|\n");
    for (double lg : sizes)
        for (const std::string &p : patterns) {
            const auto n = static_cast<uint64_t>(std::llround(std::pow(10.0, lg)));
            Result r = run(n, inserts, p);
            std::printf("| %.3g | %s | %llu | %.2f us | %.1f us | %.3f ms | %u | %.3f | %.2f s |\n",
                        double(n), p.c_str(), (unsigned long long)inserts, r.mean_us, r.p999_us,
                        r.max_us / 1000.0, r.shape.depth,
                        double(r.shape.pages) / double(r.shape.dense_pages), r.seconds);
            std::fflush(stdout);
        }
    return 0;
}
