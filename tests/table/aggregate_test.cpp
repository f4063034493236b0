// The kernel registry against a model: random columns of several types
// (nulls, NaN, runs of equal values), random position windows and random
// time buckets; each answer must equal the one computed row by row below,
// bit for bit, validity included.
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "velseq.hpp"
#include "velseq/table.hpp"

namespace {

using namespace velseq;
using table::array;
using table::column_type;

// One row's value as bytes (empty when null) and as a double (for sums).
struct cell {
    std::string bytes;
    double num = 0;
    bool nan = false;
};

// The answer of kernel `k` over cells [first, last), row by row.
std::optional<std::string> model(const std::string &k, column_type t,
                                 const std::vector<std::optional<cell>> &c, size_t first,
                                 size_t last) {
    auto bytes_of = [](const auto &v) {
        return std::string(reinterpret_cast<const char *>(&v), sizeof v);
    };
    const bool is_float = t.code == VEL_DD_SEQUENCE_FLOAT || t.code == VEL_DD_SEQUENCE_DOUBLE;
    const bool is_signed = t.code >= VEL_DD_SEQUENCE_INT1 && t.code <= VEL_DD_SEQUENCE_INT8;
    // Byte strings of one width compare as the values they hold: little
    // endian integers are compared from their last byte; floats by value.
    auto less = [&](const cell &a, const cell &b) {
        if (t.code == VEL_DD_SEQUENCE_CHAR)
            return a.bytes < b.bytes;
        return a.num < b.num;
    };
    uint64_t count = 0, best_at = 0;
    double fsum = 0;
    uint64_t isum = 0;
    std::optional<cell> first_v, last_v, best;
    for (size_t i = first; i < last; i++) {
        if (!c[i])
            continue;
        const cell &v = *c[i];
        count++;
        fsum += v.num;
        isum += is_signed ? uint64_t(int64_t(v.num)) : uint64_t(v.num);
        if (!first_v)
            first_v = v;
        last_v = v;
        const bool max = k == "max" || k == "argmax";
        if (!v.nan && (!best || (max ? less(*best, v) : less(v, *best)))) {
            best = v;
            best_at = i;
        }
    }
    if (k == "count")
        return bytes_of(count);
    if (k == "rows")
        return bytes_of(uint64_t(last - first));
    if (k == "sum")
        return is_float ? bytes_of(fsum) : bytes_of(isum);
    if (k == "mean") {
        if (count == 0)
            return std::nullopt;
        return bytes_of(is_float
                            ? fsum / double(count)
                            : (is_signed ? double(int64_t(isum)) : double(isum)) / double(count));
    }
    if (k == "first" || k == "last") {
        const auto &v = k == "first" ? first_v : last_v;
        return v ? std::optional(v->bytes) : std::nullopt;
    }
    if (!best)
        return std::nullopt;
    return k[0] == 'a' ? bytes_of(uint64_t(best_at)) : best->bytes;
}

std::optional<std::string> answer_at(const array &a, size_t i) {
    if (!a.valid(i))
        return std::nullopt;
    return std::string(reinterpret_cast<const char *>(a.values.data()) + i * a.type.width,
                       a.type.width);
}

template <class T> cell cell_of(T v) {
    cell c;
    c.bytes.assign(reinterpret_cast<const char *>(&v), sizeof v);
    if constexpr (std::is_arithmetic_v<T>) {
        c.num = double(v);
        c.nan = std::isnan(c.num);
    }
    return c;
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
    std::map<std::string, std::vector<std::optional<cell>>> cells;
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
        for (const auto &x : v)
            cells[name].push_back(x ? std::optional(cell_of(*x)) : std::nullopt);
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
                EXPECT_EQ(answer_at(got[j], 0), model(asked[j], c.type, cells[name], a, b))
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
                          cell_of(origin + std::chrono::nanoseconds(k * w)).bytes);
                for (size_t q = 0; q < ks.size(); q++)
                    EXPECT_EQ(answer_at(got.answers[q], row),
                              model(ks[q], c.type, cells[name], i, j))
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
    auto code = [](auto f) {
        try {
            f();
        } catch (const error &e) {
            return e.code();
        }
        return 0;
    };
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
