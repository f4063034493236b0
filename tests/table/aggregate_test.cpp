// The kernel registry against a model: random columns of several types
// (nulls, NaN, runs of equal values), random position windows and random
// time buckets; each answer must equal the one computed row by row below,
// bit for bit, validity included.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "model.h"
#include "velseq.hpp"

namespace {

using namespace velseq;
using table::array;

template <class T> std::string bytes_of(const T &v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

// The answer of kernel k over the values [b, e) of v, row by row: nulls
// skipped, NaN counted and summed but never an extreme, the first of equal
// extremes.  Integers are summed as the 64-bit integers they widen to
// (wrapping), floats as doubles in row order.
template <class T>
std::optional<std::string> answer(const std::string &k, const std::vector<std::optional<T>> &v,
                                  size_t b, size_t e) {
    uint64_t count = 0, isum = 0, argmin = 0, argmax = 0;
    double fsum = 0;
    std::optional<T> min, max, first, last;
    for (size_t i = b; i < e; i++) {
        if (!v[i])
            continue;
        const T &x = *v[i];
        count++;
        if constexpr (std::is_arithmetic_v<T>)
            fsum += double(x);
        if constexpr (std::is_integral_v<T>)
            isum += std::is_signed_v<T> ? uint64_t(int64_t(x)) : uint64_t(x);
        first = first ? first : x;
        last = x;
        if constexpr (std::is_arithmetic_v<T>)
            if (std::isnan(double(x)))
                continue;
        if (!min || x < *min)
            min = x, argmin = i;
        if (!max || *max < x)
            max = x, argmax = i;
    }
    if (k == "count" || k == "rows")
        return bytes_of(k == "count" ? count : uint64_t(e - b));
    if (k == "sum")
        return std::is_floating_point_v<T> ? bytes_of(fsum) : bytes_of(isum);
    if (k == "mean" && count == 0)
        return std::nullopt;
    if (k == "mean")
        return bytes_of(std::is_floating_point_v<T> ? fsum / double(count)
                        : std::is_signed_v<T>       ? double(int64_t(isum)) / double(count)
                                                    : double(isum) / double(count));
    const std::optional<T> &x = k == "first"                         ? first
                                : k == "last"                        ? last
                                : k.find("max") != std::string::npos ? max
                                                                     : min;
    if (!x)
        return std::nullopt;
    return k[0] != 'a' ? bytes_of(*x) : bytes_of(k == "argmax" ? argmax : argmin);
}

std::optional<std::string> answer_at(const array &a, size_t i) {
    if (!a.valid(i))
        return std::nullopt;
    return std::string(reinterpret_cast<const char *>(a.values.data()) + i * a.type.width,
                       a.type.width);
}

TEST(Aggregates, KernelsAgreeWithRowByRowAnswers) {
    config cfg; // small pages: leaves of different widths end at different rows
    cfg.seq_page_size = 512;
    database db(cfg);
    schema cls{"t"};
    const field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    const field<int32_t> i4 = cls.seq<int32_t>("i4");
    const field<int8_t> i1 = cls.seq<int8_t>("i1");
    const field<uint16_t> u2 = cls.seq<uint16_t>("u2");
    const field<double> f8 = cls.seq<double>("f8");
    const field<float> f4 = cls.seq<float>("f4");
    const field<chars<3>> c3 = cls.seq<chars<3>>("c3");
    db.define(cls);
    connection con(db);
    transaction tx(con, transaction::write);
    object o = tx.create(cls);
    std::mt19937_64 rng(7);
    const size_t n = 3000;
    // Each column's model: the answer of a kernel over rows [first, last).
    std::map<std::string,
             std::function<std::optional<std::string>(const std::string &, size_t, size_t)>>
        want;
    std::vector<datetime> times;
    int64_t t = -5'000'000'000;
    for (size_t i = 0; i < n; i++) {
        t += int64_t(rng() % 3) * 400'000'000; // runs of equal times
        times.push_back(datetime::from_ns(t));
    }
    o[ts].append(times);
    auto col = [&](const auto &f) {
        const velh_field_info_t &fi = f.info();
        return table::column{*o.handle(), fi, *table::type_of(fi)};
    };
    std::map<std::string, table::column> cols;
    auto fill = [&](const std::string &name, auto f, auto gen) {
        using T = decltype(gen());
        std::vector<std::optional<T>> v(n);
        for (size_t i = 0; i < n; i++)
            // Dense and sparse stretches of nulls (a run's nulls may all lie
            // past its first word, or in its last), none from the middle on.
            if (i > n / 2 || rng() % (i / 256 % 2 ? 7 : 150) != 0)
                v[i] = gen();
        o[f].append(v);
        cols.emplace(name, col(f));
        want[name] = [v](const std::string &k, size_t a, size_t b) { return answer(k, v, a, b); };
    };
    fill("i4", i4, [&] {
        return rng() % 50 == 0 ? INT32_MAX - int32_t(rng() % 8) : int32_t(rng() % 2000) - 1000;
    });
    fill("i1", i1, [&] { return int8_t(rng()); });
    fill("u2", u2, [&] { return uint16_t(rng() % 5); });
    fill("f8", f8, [&] { return rng() % 40 == 0 ? std::nan("") : double(int(rng() % 1000)) / 8; });
    fill("f4", f4, [&] { return float(int(rng() % 100)) / 4; });
    fill("c3", c3,
         [&] { return chars<3>::from(std::string(1 + rng() % 3, char('a' + rng() % 3))); });

    for (const auto &[name, c] : cols) {
        std::vector<std::string> ks;
        for (const table::kernel_info &k : table::kernels())
            if (table::applies(k.name, c.type))
                ks.push_back(k.name);
        ASSERT_EQ(ks.size(), c.type.code == VEL_DD_SEQUENCE_CHAR ? 8u : 10u);
        for (int round = 0; round < 20; round++) {
            size_t a = rng() % (n + 1), b = rng() % (n + 1);
            if (round == 0)
                a = b = 17; // nothing to answer from
            if (a > b)
                std::swap(a, b);
            std::vector<std::string> asked = ks; // all at once, or one alone
            if (round % 2)
                asked = {ks[rng() % ks.size()]};
            const std::vector<array> got = table::aggregate(c, a, b, asked);
            ASSERT_EQ(got.size(), asked.size());
            for (size_t j = 0; j < asked.size(); j++) {
                ASSERT_EQ(got[j].length, 1u);
                EXPECT_EQ(answer_at(got[j], 0), want[name](asked[j], a, b))
                    << name << " " << asked[j] << " [" << a << ", " << b << ")";
            }
        }
        // Buckets: every non-empty one, in time order, with the same answers.
        for (int round = 0; round < 6; round++) {
            const int64_t w = int64_t(1 + rng() % 4) * 700'000'000;
            const datetime origin =
                datetime::from_ns(int64_t(rng() % 1000) * 1'000'000 - 3'000'000'000);
            std::optional<std::pair<vel_datetime, vel_datetime>> window;
            size_t lo = 0, hi = n;
            if (round % 2) {
                const datetime from = times[rng() % n],
                               to = from + std::chrono::seconds(rng() % 200);
                window = {from.raw(), to.raw()};
                lo = size_t(std::lower_bound(times.begin(), times.end(), from) - times.begin());
                hi = size_t(std::lower_bound(times.begin(), times.end(), to) - times.begin());
            }
            const table::buckets got = table::resample(col(ts), c, w, origin.raw(), window, ks);
            auto bucket = [&](size_t i) { // floored: times before the origin too
                const int64_t d = times[i].ns() - origin.ns();
                return d / w - (d % w < 0);
            };
            size_t row = 0;
            for (size_t i = lo, j = lo; i < hi; i = j) {
                const int64_t k = bucket(i);
                while (j < hi && bucket(j) == k)
                    j++;
                ASSERT_LT(row, got.start.length);
                EXPECT_EQ(answer_at(got.start, row),
                          bytes_of(origin + std::chrono::nanoseconds(k * w)));
                for (size_t q = 0; q < ks.size(); q++)
                    EXPECT_EQ(answer_at(got.answers[q], row), want[name](ks[q], i, j))
                        << name << " " << ks[q] << " bucket " << row;
                row++;
            }
            EXPECT_EQ(got.start.length, row) << name;
        }
    }
    // Refusals: kernels that do not apply or do not exist, rows past the
    // end, keys that are not times, a width of 0, a window backwards.
    const table::column tc = col(ts), cc = cols.at("c3");
    const std::pair<int, std::function<void()>> refused[] = {
        {VEL_E_ILLEGAL_TYPE, [&] { table::aggregate(cc, 0, 1, {"sum"}); }},
        {VEL_E_ILLEGAL_PARAM, [&] { table::aggregate(cc, 0, 1, {"median"}); }},
        {VEL_E_ILLEGAL_PARAM, [&] { table::aggregate(cc, 0, n + 1, {"count"}); }},
        {VEL_E_ILLEGAL_TYPE, [&] { table::resample(cc, cc, 1, 0, std::nullopt, {"count"}); }},
        {VEL_E_ILLEGAL_PARAM, [&] { table::resample(tc, cc, 0, 0, std::nullopt, {"count"}); }},
        {VEL_E_ILLEGAL_PARAM, [&] {
             table::resample(tc, tc, 1, 0, {{5, 4}}, {"count"});
         }}};
    for (const auto &[code, call] : refused)
        EXPECT_EQ(model::code_of(call), code);
    EXPECT_FALSE(table::type_by_name("char(33)"));
    tx.commit();
}

} // namespace
