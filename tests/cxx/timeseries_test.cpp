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

struct Timeseries : testing::Test {
    database db;
    schema cls{"series"}, pcls{"probes"};
    field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    field<int32_t> val = cls.seq<int32_t>("val");
    field<double> price = cls.seq<double>("price");
    field<datetime> probe = pcls.seq<datetime>("p");
    connection con{(db.define(cls), db.define(pcls), db)}; // classes before the connection
    transaction tx{con, transaction::write};
    vector<int64_t> keys; // nanoseconds, ascending, with runs of equal keys
    vector<optional<int32_t>> vals;
    vector<optional<double>> prices;
    vector<datetime> stamps; // the keys as datetimes

    // n random rows in a new object, appended in pieces so that leaves and
    // tiles do not line up with the batches.
    object make(std::mt19937_64 &rng, size_t n) {
        keys.clear(), vals.clear(), prices.clear(), stamps.clear();
        int64_t t = int64_t(rng() % 2000) - 1000; // some keys before 1970
        for (size_t i = 0; i < n; i++) {
            t += vector<int64_t>{0, 0, 1, 2, 7, 40}[rng() % 6];
            keys.push_back(t);
            stamps.push_back(datetime::from_ns(t));
            vals.push_back(rng() % 5 ? optional<int32_t>(int32_t(rng() % 201) - 100)
                                     : std::nullopt);
            prices.push_back(rng() % 7 ? optional<double>(double(rng() % 1000) / 4) : std::nullopt);
        }
        object o = tx.create(cls);
        for (size_t i = 0; i < n; i += 777) {
            const size_t m = std::min<size_t>(777, n - i);
            o[ts].append(span<const datetime>(stamps.data() + i, m));
            o[val].append(span<const optional<int32_t>>(vals.data() + i, m));
            o[price].append(span<const optional<double>>(prices.data() + i, m));
        }
        return o;
    }
    size_t lower(int64_t p) const {
        return size_t(std::lower_bound(keys.begin(), keys.end(), p) - keys.begin());
    }
    // The key a probe matches (tol < 0: no tolerance), from the sorted keys' bounds.
    optional<uint64_t> brute_asof(int64_t p, direction dir = direction::backward,
                                  bool strict = false, int64_t tol = -1) const {
        const size_t nb = lower(p + !strict), nf = lower(p + strict);
        optional<uint64_t> back, fwd;
        if (nb > 0 && dir != direction::forward)
            back = nb - 1;
        if (nf < keys.size() && dir != direction::backward)
            fwd = nf;
        optional<uint64_t> pick = back && (!fwd || p - keys[*back] <= keys[*fwd] - p) ? back : fwd;
        if (pick && tol >= 0 && std::llabs(keys[*pick] - p) > tol)
            pick.reset();
        return pick;
    }
};

TEST_F(Timeseries, AsofMatchesBruteForce) {
    std::mt19937_64 rng(1);
    for (int seed = 0; seed < 14; seed++) {
        const size_t n = vector<size_t>{0, 1, 2, 5, 130, 600, 4000}[seed % 7];
        object o = make(rng, n);
        const int64_t lo = n ? keys.front() - 50 : -50, hi = n ? keys.back() + 50 : 50;
        vector<datetime> pts;
        const size_t np = seed % 2 ? 40 : 3000; // sparse (seeks) and dense (merge) probes
        for (size_t i = 0; i < np; i++)
            pts.push_back(datetime::from_ns(lo + int64_t(rng() % uint64_t(hi - lo + 1))));
        if (seed % 3 != 2)
            std::sort(pts.begin(), pts.end());
        if (n)
            pts.insert(pts.end(), {stamps.front(), stamps.back(), stamps[n / 2]});

        for (direction dir : {direction::backward, direction::forward, direction::nearest})
            for (bool strict : {false, true})
                for (int64_t tol : {-1, 3}) {
                    SCOPED_TRACE(testing::Message() << "seed " << seed << " dir " << int(dir)
                                                    << " strict " << strict << " tol " << tol);
                    const asof_options<datetime> opt{
                        dir, strict,
                        tol < 0 ? std::nullopt : std::make_optional(std::chrono::nanoseconds(tol))};
                    const auto got = asof(o[ts], span<const datetime>(pts), opt);
                    // the prevailing values of two columns at those positions
                    const auto [v, p] =
                        asof_join(o[ts], span<const datetime>(pts), opt, o[val], o[price]);
                    ASSERT_EQ(got.size(), pts.size());
                    for (size_t i = 0; i < pts.size(); i++) {
                        const optional<uint64_t> want = brute_asof(pts[i].ns(), dir, strict, tol);
                        ASSERT_EQ(got[i], want) << "probe " << pts[i].ns();
                        ASSERT_EQ(v[i], want ? vals[*want] : std::nullopt);
                        ASSERT_EQ(p[i], want ? prices[*want] : std::nullopt);
                    }
                }
        // last observation carried forward
        const vector<optional<int32_t>> filled = read_filled(o[val], {0, n});
        optional<int32_t> last;
        for (size_t i = 0; i < n; i++)
            ASSERT_EQ(filled[i], last = vals[i] ? vals[i] : last);
        if (n == 0)
            continue;

        // probes stored in a field, with a null probe, answer the same
        object po = tx.create(pcls);
        vector<optional<datetime>> stored(pts.begin(), pts.begin() + 10);
        stored[4].reset();
        po[probe].append(span<const optional<datetime>>(stored));
        const auto got = asof(o[ts], po[probe]);
        for (size_t i = 0; i < stored.size(); i++)
            EXPECT_EQ(got[i], i == 4 ? std::nullopt : brute_asof(pts[i].ns()));
    }
}

// Checks an aggregate or a bar against rows [a, b) of v.
template <class G, class T>
void expect_summary(const G &got, const vector<optional<T>> &v, size_t a, size_t b) {
    uint64_t count = 0;
    decltype(got.sum) sum{};
    optional<T> mn, mx, first, last;
    for (size_t i = a; i < b; i++)
        if (v[i]) {
            count++, sum += *v[i];
            mn = std::min(mn.value_or(*v[i]), *v[i]), mx = std::max(mx.value_or(*v[i]), *v[i]);
            first = first ? first : v[i], last = v[i];
        }
    EXPECT_EQ(std::tie(got.rows, got.count, got.sum), std::make_tuple(uint64_t(b - a), count, sum));
    EXPECT_EQ(std::tie(got.min, got.max, got.first, got.last), std::tie(mn, mx, first, last));
    if constexpr (std::is_same_v<G, summary<T>>) {
        EXPECT_EQ(got.mean(), count ? optional<double>(double(sum) / double(count)) : std::nullopt);
    }
}

TEST_F(Timeseries, AggregatesAndResampleMatchBruteForce) {
    std::mt19937_64 rng(2);
    for (int seed = 0; seed < 10; seed++) {
        const size_t n = vector<size_t>{0, 1, 3, 129, 2500}[seed % 5];
        object o = make(rng, n);
        for (int q = 0; q < 20; q++) {
            const size_t x = rng() % (n + 1), y = rng() % (n + 1);
            const size_t a = std::min(x, y), b = std::max(x, y);
            SCOPED_TRACE(testing::Message() << "seed " << seed << " range " << a << ".." << b);
            expect_summary(aggregate(o[val], {a, b}), vals, a, b);
            expect_summary(aggregate(o[price], {a, b}), prices, a, b);

            // a time window from <= ts < to, and its position range by brute force
            const int64_t t0 = (n ? keys.front() - 5 : 0) + int64_t(rng() % 300);
            const int64_t t1 = t0 + int64_t(rng() % 400);
            const datetime from = datetime::from_ns(t0), to = datetime::from_ns(t1);
            const size_t wa = lower(t0), wb = lower(t1);
            expect_summary(aggregate(o[val], o[ts], from, to), vals, wa, wb);

            // buckets of a random width and origin, over the whole field or the window
            const int64_t width = 1 + int64_t(rng() % 90), origin = int64_t(rng() % 50) - 25;
            const bool windowed = q % 2;
            const auto bars =
                resample(o[ts], o[val], std::chrono::nanoseconds(width),
                         windowed ? std::make_optional(std::make_pair(from, to)) : std::nullopt,
                         datetime::from_ns(origin));
            std::map<int64_t, std::pair<size_t, size_t>> model; // bucket -> rows [first, last)
            for (size_t i = windowed ? wa : 0; i < (windowed ? wb : n); i++) {
                const int64_t off = keys[i] - origin, k = (off - (off < 0 ? width - 1 : 0)) / width;
                model.emplace(k, std::make_pair(i, i)).first->second.second = i + 1;
            }
            ASSERT_EQ(bars.size(), model.size());
            auto br = bars.begin();
            for (const auto &[k, rows] : model) {
                EXPECT_EQ(br->start.ns(), origin + k * width);
                expect_summary(*br++, vals, rows.first, rows.second);
            }
        }
    }
}

} // namespace
