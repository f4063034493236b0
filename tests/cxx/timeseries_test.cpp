// As-of lookups, gathers, aggregates and resampling of velseq.hpp against
// brute-force answers over random fields: duplicates in the keys, nulls in
// the values, empty and one-element fields, probes before the first and after
// the last key, sorted and shuffled probes.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <random>

#include "velseq.hpp"

namespace {

using namespace velseq;
using std::optional;
using std::vector;

struct Data {
    vector<int64_t> keys; // nanoseconds, ascending, with runs of equal keys
    vector<optional<int32_t>> vals;
    vector<optional<double>> prices;
};

Data make_data(std::mt19937_64 &rng, size_t n) {
    Data d;
    int64_t t = static_cast<int64_t>(rng() % 2000) - 1000; // some keys before 1970
    for (size_t i = 0; i < n; i++) {
        t += std::vector<int64_t>{0, 0, 1, 2, 7, 40}[rng() % 6];
        d.keys.push_back(t);
        d.vals.push_back(rng() % 5 == 0 ? optional<int32_t>()
                                        : optional<int32_t>(int32_t(rng() % 201) - 100));
        d.prices.push_back(rng() % 7 == 0 ? optional<double>()
                                          : optional<double>(double(rng() % 1000) / 4));
    }
    return d;
}

struct Db {
    database db;
    schema cls{"series"};
    field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    field<int32_t> val = cls.seq<int32_t>("val");
    field<double> price = cls.seq<double>("price");
    Db() { db.define(cls); }
};

void store(object &o, Db &s, const Data &d) {
    vector<datetime> ts;
    for (int64_t k : d.keys)
        ts.push_back(datetime::from_ns(k));
    // in pieces, so that leaves and tiles do not line up with the batches
    for (size_t i = 0; i < ts.size(); i += 777) {
        const size_t m = std::min<size_t>(777, ts.size() - i);
        o[s.ts].append(span<const datetime>(ts.data() + i, m));
        o[s.val].append(span<const optional<int32_t>>(d.vals.data() + i, m));
        o[s.price].append(span<const optional<double>>(d.prices.data() + i, m));
    }
}

optional<uint64_t> brute_asof(const vector<int64_t> &k, int64_t p, direction dir, bool strict,
                              optional<int64_t> tol) {
    // the keys are sorted: the standard library's bounds are the model
    const auto lb = size_t(std::lower_bound(k.begin(), k.end(), p) - k.begin());
    const auto ub = size_t(std::upper_bound(k.begin(), k.end(), p) - k.begin());
    optional<uint64_t> back, fwd;
    if ((strict ? lb : ub) > 0)
        back = (strict ? lb : ub) - 1;
    if ((strict ? ub : lb) < k.size())
        fwd = strict ? ub : lb;
    if (dir == direction::backward)
        fwd.reset();
    if (dir == direction::forward)
        back.reset();
    optional<uint64_t> pick = back ? back : fwd;
    if (back && fwd && p - k[*back] > k[*fwd] - p)
        pick = fwd;
    if (pick && tol && std::llabs(k[*pick] - p) > *tol)
        pick.reset();
    return pick;
}

TEST(Timeseries, AsofMatchesBruteForce) {
    std::mt19937_64 rng(1);
    const size_t sizes[] = {0, 1, 2, 5, 130, 600, 4000};
    for (int seed = 0; seed < 14; seed++) {
        const size_t n = sizes[seed % 7];
        const Data d = make_data(rng, n);
        Db s;
        connection con(s.db);
        transaction tx(con, transaction::write);
        object o = tx.create(s.cls);
        store(o, s, d);
        const int64_t lo = n ? d.keys.front() - 50 : -50, hi = n ? d.keys.back() + 50 : 50;
        vector<int64_t> probes;
        const size_t np = seed % 2 ? 40 : 3000; // sparse (seeks) and dense (merge) probes
        for (size_t i = 0; i < np; i++)
            probes.push_back(lo + static_cast<int64_t>(rng() % static_cast<uint64_t>(hi - lo + 1)));
        if (seed % 3 != 2)
            std::sort(probes.begin(), probes.end());
        if (n)
            probes.insert(probes.end(), {d.keys.front(), d.keys.back(), d.keys[n / 2]});
        vector<datetime> pts;
        for (int64_t p : probes)
            pts.push_back(datetime::from_ns(p));

        for (direction dir : {direction::backward, direction::forward, direction::nearest})
            for (bool strict : {false, true})
                for (optional<int64_t> tol : {optional<int64_t>(), optional<int64_t>(3)}) {
                    SCOPED_TRACE(testing::Message()
                                 << "seed " << seed << " dir " << int(dir) << " strict " << strict
                                 << " tol " << tol.value_or(-1));
                    asof_options<datetime> opt;
                    opt.dir = dir;
                    opt.strict = strict;
                    if (tol)
                        opt.tolerance = std::chrono::nanoseconds(*tol);
                    const auto got = asof(o[s.ts], span<const datetime>(pts), opt);
                    ASSERT_EQ(got.size(), probes.size());
                    for (size_t i = 0; i < probes.size(); i++)
                        ASSERT_EQ(got[i], brute_asof(d.keys, probes[i], dir, strict, tol))
                            << "probe " << probes[i];

                    // the prevailing values of two columns at those positions
                    const auto [v, p] =
                        asof_join(o[s.ts], span<const datetime>(pts), opt, o[s.val], o[s.price]);
                    for (size_t i = 0; i < probes.size(); i++) {
                        ASSERT_EQ(v[i], got[i] ? d.vals[*got[i]] : std::nullopt);
                        ASSERT_EQ(p[i], got[i] ? d.prices[*got[i]] : std::nullopt);
                    }
                }
        // probes stored in a field, with a null probe, answer the same
        if (n > 0) {
            schema pc("probes");
            auto pf = pc.seq<datetime>("p");
            s.db.define(pc);
            object po = tx.create(pc);
            vector<optional<datetime>> stored(pts.begin(), pts.begin() + 10);
            stored[4].reset();
            po[pf].append(span<const optional<datetime>>(stored));
            const auto got = asof(o[s.ts], po[pf]);
            for (size_t i = 0; i < stored.size(); i++)
                EXPECT_EQ(got[i], i == 4 ? std::nullopt
                                         : brute_asof(d.keys, probes[i], direction::backward, false,
                                                      std::nullopt));
        }
        // the module's join (probes up to the last key) and a value window
        if (n > 0) {
            vector<datetime> in;
            for (const datetime &p : pts)
                if (p.ns() <= d.keys.back())
                    in.push_back(p);
            size_t i = 0;
            for (const tile<uint64_t> &t : o[s.ts].join(in))
                for (uint64_t pos : t.values) {
                    const int64_t p = in[i++].ns();
                    ASSERT_EQ(pos, size_t(std::lower_bound(d.keys.begin(), d.keys.end(), p) -
                                          d.keys.begin()));
                }
            ASSERT_EQ(i, in.size());
            const int64_t w0 = probes[0], w1 = probes[0] + 60;
            vector<int64_t> want, got;
            for (int64_t k : d.keys)
                if (k > w0 && k <= w1)
                    want.push_back(k);
            for (optional<datetime> k : element_range<datetime>(
                     o[s.ts].window(datetime::from_ns(w0), datetime::from_ns(w1), bound::exclusive,
                                    bound::inclusive)))
                got.push_back(k->ns());
            ASSERT_EQ(got, want);
        }
        // last observation carried forward
        vector<optional<int32_t>> filled = read_filled(o[s.val], {0, n});
        optional<int32_t> last;
        for (size_t i = 0; i < n; i++) {
            last = d.vals[i] ? d.vals[i] : last;
            ASSERT_EQ(filled[i], last);
        }
    }
}

template <class T, class S>
void expect_summary(const summary<T> &got, const vector<optional<T>> &v, size_t a, size_t b,
                    S sum0) {
    uint64_t count = 0;
    S sum = sum0;
    optional<T> mn, mx, first, last;
    for (size_t i = a; i < b; i++) {
        if (!v[i])
            continue;
        count++;
        sum += *v[i];
        mn = mn ? std::min(*mn, *v[i]) : *v[i];
        mx = mx ? std::max(*mx, *v[i]) : *v[i];
        first = first ? first : v[i];
        last = v[i];
    }
    EXPECT_EQ(got.rows, b - a);
    EXPECT_EQ(got.count, count);
    EXPECT_EQ(got.sum, sum);
    EXPECT_EQ(got.min, mn);
    EXPECT_EQ(got.max, mx);
    EXPECT_EQ(got.first, first);
    EXPECT_EQ(got.last, last);
    EXPECT_EQ(got.mean(), count ? optional<double>(double(sum) / double(count)) : std::nullopt);
}

TEST(Timeseries, AggregatesAndResampleMatchBruteForce) {
    std::mt19937_64 rng(2);
    const size_t sizes[] = {0, 1, 3, 129, 2500};
    for (int seed = 0; seed < 10; seed++) {
        const size_t n = sizes[seed % 5];
        const Data d = make_data(rng, n);
        Db s;
        connection con(s.db);
        transaction tx(con, transaction::write);
        object o = tx.create(s.cls);
        store(o, s, d);
        for (int q = 0; q < 20; q++) {
            size_t a = n ? rng() % (n + 1) : 0, b = n ? rng() % (n + 1) : 0;
            if (a > b)
                std::swap(a, b);
            SCOPED_TRACE(testing::Message() << "seed " << seed << " range " << a << ".." << b);
            expect_summary(aggregate(o[s.val], {a, b}), d.vals, a, b, int64_t(0));
            expect_summary(aggregate(o[s.price], {a, b}), d.prices, a, b, 0.0);

            // a time window from <= ts < to, and its position range by brute force
            const int64_t lo = n ? d.keys.front() - 5 : 0;
            const int64_t t0 = lo + int64_t(rng() % 300), t1 = t0 + int64_t(rng() % 400);
            const size_t wa =
                size_t(std::lower_bound(d.keys.begin(), d.keys.end(), t0) - d.keys.begin());
            const size_t wb =
                size_t(std::lower_bound(d.keys.begin(), d.keys.end(), t1) - d.keys.begin());
            expect_summary(
                aggregate(o[s.val], o[s.ts], datetime::from_ns(t0), datetime::from_ns(t1)), d.vals,
                wa, wb, int64_t(0));

            // buckets of a random width and origin, over the whole field or the window
            const int64_t width = 1 + int64_t(rng() % 90), origin = int64_t(rng() % 50) - 25;
            const bool windowed = q % 2;
            const auto bars = resample(o[s.ts], o[s.val], std::chrono::nanoseconds(width),
                                       windowed ? std::make_optional(std::make_pair(
                                                      datetime::from_ns(t0), datetime::from_ns(t1)))
                                                : std::nullopt,
                                       datetime::from_ns(origin));
            std::map<int64_t, std::pair<size_t, size_t>> model; // bucket -> rows [first, last)
            for (size_t i = windowed ? wa : 0; i < (windowed ? wb : n); i++) {
                const int64_t off = d.keys[i] - origin;
                const int64_t k = off >= 0 ? off / width : -((-off + width - 1) / width);
                auto it = model.emplace(k, std::make_pair(i, i)).first;
                it->second.second = i + 1;
            }
            ASSERT_EQ(bars.size(), model.size());
            size_t j = 0;
            for (const auto &[k, rows] : model) {
                const bar<int32_t> &br = bars[j++];
                EXPECT_EQ(br.start.ns(), origin + k * width);
                summary<int32_t> as;
                as.rows = br.rows;
                as.count = br.count;
                as.sum = br.sum;
                as.min = br.min;
                as.max = br.max;
                as.first = br.first;
                as.last = br.last;
                expect_summary(as, d.vals, rows.first, rows.second, int64_t(0));
            }
        }
    }
}

} // namespace
