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
using table::column_type;

template <class T> std::string bytes_of(const T &v) {
    return std::string(reinterpret_cast<const char *>(&v), sizeof v);
}

// The answer of kernel k over the values [first, last) of v, row by row.
template <class T>
std::optional<std::string> answer(const std::string &k, const std::vector<std::optional<T>> &v,
                                  size_t first, size_t last) {
    const model::summary<T> s = model::summarize(v, first, last);
    if (k == "count" || k == "rows")
        return bytes_of(k == "count" ? s.count : s.rows);
    if (k == "sum")
        return std::is_floating_point_v<T> ? bytes_of(s.fsum) : bytes_of(s.isum);
    if (k == "mean")
        return s.mean() ? std::optional(bytes_of(*s.mean())) : std::nullopt;
    const std::optional<T> &x = k == "first"                         ? s.first
                                : k == "last"                        ? s.last
                                : k.find("max") != std::string::npos ? s.max
                                                                     : s.min;
    if (!x)
        return std::nullopt;
    return k[0] != 'a' ? bytes_of(*x) : bytes_of(k == "argmax" ? s.argmax : s.argmin);
}

std::optional<std::string> answer_at(const array &a, size_t i) {
    if (!a.valid(i))
        return std::nullopt;
    return std::string(reinterpret_cast<const char *>(a.values.data()) + i * a.type.width,
                       a.type.width);
}

// Small pages: leaves of different element sizes end at different rows, so
// that the tiles of two columns do not line up.
config small_pages() {
    config c;
    c.seq_page_size = 512;
    return c;
}

struct Fixture {
    database db{small_pages()};
    schema cls{"t"};
    field<datetime> ts = cls.seq<datetime>("ts", order::ascending);
    field<int32_t> i4 = cls.seq<int32_t>("i4");
    field<int8_t> i1 = cls.seq<int8_t>("i1");
    field<uint16_t> u2 = cls.seq<uint16_t>("u2");
    field<double> f8 = cls.seq<double>("f8");
    field<float> f4 = cls.seq<float>("f4");
    field<chars<3>> c3 = cls.seq<chars<3>>("c3");
    Fixture() { db.define(cls); }
};

TEST(Aggregates, KernelsAgreeWithRowByRowAnswers) {
    Fixture fx;
    connection con(fx.db);
    transaction tx(con, transaction::write);
    object o = tx.create(fx.cls);
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
    o[fx.ts].append(times);
    auto fill = [&](const std::string &name, auto f, auto gen) {
        using T = decltype(gen());
        std::vector<std::optional<T>> v(n);
        for (size_t i = 0; i < n; i++)
            if (i > n / 2 || rng() % 7 != 0) // leaves without a null from the middle on
                v[i] = gen();
        o[f].append(v);
        want[name] = [v](const std::string &k, size_t a, size_t b) { return answer(k, v, a, b); };
    };
    fill("i4", fx.i4, [&] {
        return rng() % 50 == 0 ? INT32_MAX - int32_t(rng() % 8) : int32_t(rng() % 2000) - 1000;
    });
    fill("i1", fx.i1, [&] { return int8_t(rng()); });
    fill("u2", fx.u2, [&] { return uint16_t(rng() % 5); });
    fill("f8", fx.f8,
         [&] { return rng() % 40 == 0 ? std::nan("") : double(int(rng() % 1000)) / 8; });
    fill("f4", fx.f4, [&] { return float(int(rng() % 100)) / 4; });
    fill("c3", fx.c3,
         [&] { return chars<3>::from(std::string(1 + rng() % 3, char('a' + rng() % 3))); });

    auto col = [&](const auto &f) {
        const velh_field_info_t &fi = f.info();
        return table::column{*o.handle(), fi, *table::type_of(fi)};
    };
    const std::map<std::string, table::column> cols = {{"i4", col(fx.i4)}, {"i1", col(fx.i1)},
                                                       {"u2", col(fx.u2)}, {"f8", col(fx.f8)},
                                                       {"f4", col(fx.f4)}, {"c3", col(fx.c3)}};
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
            const table::buckets got = table::resample(col(fx.ts), c, w, origin.raw(), window, ks);
            size_t row = 0;
            for (size_t i = lo; i < hi;) {
                const int64_t d = times[i].ns() - origin.ns();
                const int64_t k = d / w - (d % w < 0);
                size_t j = i;
                while (j < hi && (times[j].ns() - origin.ns()) / w -
                                         ((times[j].ns() - origin.ns()) % w < 0) ==
                                     k)
                    j++;
                ASSERT_LT(row, got.start.length);
                EXPECT_EQ(answer_at(got.start, row),
                          bytes_of(origin + std::chrono::nanoseconds(k * w)));
                for (size_t q = 0; q < ks.size(); q++)
                    EXPECT_EQ(answer_at(got.answers[q], row), want[name](ks[q], i, j))
                        << name << " " << ks[q] << " bucket " << row;
                row++;
                i = j;
            }
            EXPECT_EQ(got.start.length, row) << name;
        }
    }
    tx.commit();
}

TEST(Aggregates, RefusalsNameTheProblem) {
    Fixture fx;
    connection con(fx.db);
    transaction tx(con, transaction::write);
    object o = tx.create(fx.cls);
    o[fx.ts].append({datetime::from_ns(1)});
    o[fx.c3].append({chars<3>::from("x")});
    const table::column ts{*o.handle(), fx.ts.info(), *table::type_of(fx.ts.info())};
    const table::column c3{*o.handle(), fx.c3.info(), *table::type_of(fx.c3.info())};
    const auto code = model::code_of;
    EXPECT_EQ(code([&] { table::aggregate(c3, 0, 1, {"sum"}); }), VEL_E_ILLEGAL_TYPE);
    EXPECT_EQ(code([&] { table::aggregate(c3, 0, 1, {"median"}); }), VEL_E_ILLEGAL_PARAM);
    EXPECT_EQ(code([&] { table::aggregate(c3, 0, 2, {"count"}); }), VEL_E_ILLEGAL_PARAM);
    EXPECT_EQ(code([&] { table::resample(c3, c3, 1, 0, std::nullopt, {"count"}); }),
              VEL_E_ILLEGAL_TYPE);
    EXPECT_EQ(code([&] { table::resample(ts, c3, 0, 0, std::nullopt, {"count"}); }),
              VEL_E_ILLEGAL_PARAM);
    EXPECT_EQ(
        code([&] {
            table::resample(ts, ts, 1, 0, std::pair<vel_datetime, vel_datetime>{5, 4}, {"count"});
        }),
        VEL_E_ILLEGAL_PARAM);
    EXPECT_EQ(table::type_name(*table::type_by_name("char(12)")), "char(12)");
    EXPECT_FALSE(table::type_by_name("char(33)"));
    for (const char *name : {"int1", "uint8", "float", "double", "datetime"})
        EXPECT_EQ(table::type_name(*table::type_by_name(name)), name);
}

} // namespace
