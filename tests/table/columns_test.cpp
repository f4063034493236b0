// Tables through the catalogue, and the column operations against a model:
// random batches appended, then windows read and values inserted and erased
// at random places; positions gathered and probes matched as-of on every
// path; each compared with the answer computed from plain vectors.
#include <gtest/gtest.h>

#include <algorithm>
#include <random>

#include "model.h"
#include "velseq.hpp"

namespace {

using namespace velseq;
using table::array;

using model::array_of, model::code_of, model::values_of;

TEST(Columns, FollowAModel) {
    config cfg; // small pages: edits split the tree, which must be kept compact
    cfg.seq_page_size = 256;
    database db(cfg);
    const table::column_type i8 = *table::type_by_name("int8"), f8 = *table::type_by_name("double"),
                             i4 = *table::type_by_name("int4");
    table::define_table(db.get(), "quotes",
                        {{"t", i8, VEL_SEQ_ASC_ORDER},
                         {"px", f8},
                         {"venue", i8, VEL_SEQ_NO_ORDER, true},
                         {"k", i4, VEL_SEQ_DESC_ORDER}});
    // Found again by name; names are unique.
    const table::table_info t = *table::find_table(db.get(), "quotes");
    ASSERT_EQ(t.columns.size(), 4u);
    EXPECT_EQ(code_of([&] { t.field("nope"); }), VEL_E_HOST_NO_FIELD);
    EXPECT_NE(code_of([&] { table::define_table(db.get(), "quotes", {{"x", i8}}); }), 0);
    EXPECT_FALSE(table::find_table(db.get(), "quote"));
    EXPECT_EQ(table::tables(db.get()).size(), 1u);

    connection con(db);
    ASSERT_EQ(velh_begin(con.get(), VELH_READ_WRITE), VEL_S_OK);
    vel_objhandle_t h{};
    ASSERT_EQ(velh_obj_create(con.get(), t.code, &h), VEL_S_OK);
    auto column = [&](const char *name) { return table::column_of(h, db.get(), t, t.field(name)); };
    const table::column tc = column("t"), pc = column("px"), kc = column("k");

    std::mt19937_64 rng(11);
    std::vector<std::optional<int64_t>> keys;
    std::vector<std::optional<double>> px;
    int64_t k = -1000;
    for (int batch = 0; batch < 40; batch++) {
        const long len = 1 + long(rng() % 300);
        for (long i = 0; i < len; i++) {
            k += int64_t(rng() % 3);
            keys.push_back(k);
            px.push_back(rng() % 5 ? std::optional(double(rng() % 1000) / 4) : std::nullopt);
        }
        table::append(tc, array_of(std::vector(keys.end() - len, keys.end()), i8));
        table::append(pc, array_of(std::vector(px.end() - len, px.end()), f8));
    }
    const size_t n = keys.size();
    EXPECT_EQ(values_of<int64_t>(table::read(tc, 0, table::count(tc))), keys);
    EXPECT_EQ(code_of([&] { table::append(tc, array_of<double>({1.0}, f8)); }), VEL_E_ILLEGAL_TYPE);
    EXPECT_EQ(code_of([&] { table::read(pc, 0, n + 1); }), VEL_E_ILLEGAL_PARAM);

    for (int round = 0; round < 30; round++) {
        size_t a = rng() % (n + 1), b = rng() % (n + 1);
        if (a > b)
            std::swap(a, b);
        const std::vector<std::optional<double>> window(px.begin() + long(a), px.begin() + long(b));
        EXPECT_EQ(values_of<double>(table::read(pc, a, b)), window);
    }
    EXPECT_EQ(code_of([&] { table::asof(pc, array_of<double>({1.0}, f8)); }), VEL_E_ILLEGAL_PARAM);

    // Inserts and erases at random places (single values and runs, the
    // ordered column kept in order with a neighbour's value): the tree
    // splits and is kept compact; refused edits change nothing.  Scalars
    // round-trip.
    std::vector<std::optional<int32_t>> model;
    for (int32_t v = 3000; v > 0; v -= 3)
        model.push_back(v);
    table::append(kc, array_of(model, i4));
    velh_compact_state_t state{};
    auto compact = [&] {
        velh_field_shape_t shape{};
        ASSERT_EQ(velh_field_shape(&h, kc.field.fld_no, VEL_SEQ_DESC_ORDER, &shape), VEL_S_OK);
        EXPECT_LE(shape.depth, unsigned(VELH_COMPACT_MAX_DEPTH));
        EXPECT_LE(shape.pages, 2 * shape.dense_pages);
    };
    for (int i = 0; i < 3000; i++) {
        const size_t at = i < 1500 ? 400 : rng() % (model.size() + 1);
        if (i == 1500)
            compact(); // after a hot spot of inserts alone
        if (i > 1500 && i % 7 == 6 && !model.empty()) {
            const size_t till = std::min(model.size(), at + 1 + rng() % 30);
            if (at >= till)
                continue;
            table::erase(kc, at, till, state);
            model.erase(model.begin() + long(at), model.begin() + long(till));
            continue;
        }
        if (i % 50 == 0 && at > 0) { // above the left neighbour: refused
            const int32_t up = *model[at - 1] + 1;
            EXPECT_EQ(code_of([&] { table::insert(kc, at, array_of<int32_t>({up}, i4), state); }),
                      VEL_E_SEQ_OUT_OF_ORDER);
        }
        const int32_t v = at < model.size() ? *model[at] : at > 0 ? *model[at - 1] : 7;
        table::insert(kc, at, array_of<int32_t>({v, v}, i4), state);
        model.insert(model.begin() + long(at), {v, v});
    }
    EXPECT_EQ(values_of<int32_t>(table::read(kc, 0, table::count(kc))), model);
    compact();
    EXPECT_EQ(code_of([&] { table::erase(kc, 1, model.size() + 1, state); }), VEL_E_ILLEGAL_PARAM);

    EXPECT_EQ(values_of<int64_t>(table::get_scalar(h, t, 2)), decltype(keys){0});
    table::set_scalar(h, t, 2, array_of<int64_t>({-9}, i8));
    EXPECT_EQ(values_of<int64_t>(table::get_scalar(h, t, 2)), decltype(keys){-9});
    EXPECT_EQ(code_of([&] { table::set_scalar(h, t, 2, array_of<int32_t>({1}, i4)); }),
              VEL_E_ILLEGAL_TYPE);
    EXPECT_EQ(code_of([&] { table::get_scalar(h, t, 0); }), VEL_E_HOST_WRONG_FIELD);
    table::truncate(kc);
    EXPECT_EQ(table::count(kc), 0u);

    EXPECT_EQ(velh_commit(con.get()), VEL_S_OK);
}

// Two answers agree, else the first index where they differ is named.
template <class T> void expect_same(const std::vector<T> &got, const std::vector<T> &want) {
    const auto at = std::mismatch(got.begin(), got.end(), want.begin(), want.end()).first;
    EXPECT_EQ(size_t(at - got.begin()), want.size());
}

// The elements of v at positions pos, null where a position is.
template <class V> auto picked(const V &v, const std::vector<std::optional<uint64_t>> &pos) {
    std::vector<decltype(std::optional(v[0]))> out(pos.size());
    for (size_t i = 0; i < pos.size(); i++)
        if (pos[i])
            out[i] = v[*pos[i]];
    return out;
}

// The paths of the as-of merge and of gather against the model, on keys
// with runs of equal values, some longer than a tile (runs straddle tile
// starts): probes at every value and between, each twice (nearest's second
// bound starts from the first's tile), a few keys apart (galloping), far
// apart (the module's join) and shuffled; positions gathered in clusters
// (whole tiles, with hops and jumps), scattered (map) and shuffled; and the
// C++ API's views over random probes, crowding the keys (a range read once)
// and sparse (the probes' value order reused by the join, radix-sorted when
// many).
TEST(Columns, AsofAndGatherPaths) {
    database db;
    schema cls{"runs"};
    field<int64_t> k = cls.seq<int64_t>("k", order::ascending);
    field<int32_t> v = cls.seq<int32_t>("v");
    db.define(cls);
    connection con(db);
    transaction tx(con, transaction::write);
    object o = tx.create(cls);

    std::mt19937_64 rng(3);
    std::vector<int64_t> keys;
    std::vector<std::optional<int32_t>> vals;
    for (int64_t key = -300; keys.size() < 20000; key += 1 + int64_t(rng() % 3))
        for (size_t run = rng() % 4 ? 1 + rng() % 3 : 100 + rng() % 200; run > 0; run--) {
            keys.push_back(key);
            vals.push_back(rng() % 5 || vals.empty() ? std::optional<int32_t>(int32_t(rng()))
                                                     : std::nullopt);
        }
    o[k].append(span<const int64_t>(keys));
    o[v].append(span<const std::optional<int32_t>>(vals));
    const table::table_info t = *table::find_table(db.get(), "runs");
    const table::column kc = table::column_of(*o.handle(), db.get(), t, t.field("k"));
    const table::column vc = table::column_of(*o.handle(), db.get(), t, t.field("v"));

    std::vector<std::vector<int64_t>> sets(7);
    for (int64_t x = keys[keys.size() / 3] + 1; x <= keys.back() + 2; x++)
        sets[0].insert(sets[0].end(), 16, x); // denser than the keys: merged
    for (int64_t x = keys.front() - 2; x <= keys.back() + 2; x++)
        sets[6].insert(sets[6].end(), 16, x); // merged, before the first key and past the last
    for (size_t i = 0; i < keys.size(); i += 1 + rng() % 40)
        sets[1].push_back(keys[i] + int64_t(rng() % 3) - 1);
    std::sort(sets[1].begin(), sets[1].end());
    for (size_t i = 0; i < keys.size(); i += 700 + rng() % 2000)
        sets[2].insert(sets[2].end(), {keys[i], keys[i]});
    sets[3] = sets[1];
    std::shuffle(sets[3].begin(), sets[3].end(), rng);
    sets[4] = {INT64_MAX, INT64_MIN}; // no successor, no predecessor
    sets[5] = sets[0];
    std::shuffle(sets[5].begin(), sets[5].end(), rng);
    // Into buffers holding garbage: every position is written, ~0 where none matches.
    for (size_t s = 0; s < sets.size(); s++) {
        std::vector<std::optional<int64_t>> probes(sets[s].begin(), sets[s].end());
        for (size_t i = 3; (s % 5 == 0 || s == 1) && i < probes.size(); i += 13)
            probes[i].reset(); // null probes match nothing
        const array pa = array_of(probes, kc.type);
        for (int d = 0; d < 3; d++)
            for (bool strict : {false, true})
                for (int tol : {-1, 1}) {
                    SCOPED_TRACE(testing::Message() << "set " << s << " direction " << d
                                                    << " strict " << strict << " tol " << tol);
                    const table::asof_options opt{table::direction(d), strict,
                                                  tol < 0 ? std::nullopt : std::optional(tol)};
                    std::vector<uint64_t> pos(probes.size(), 7);
                    std::vector<uint8_t> valid((probes.size() + 7) / 8, 0xA5);
                    table::asof(kc, table::view(pa), opt, pos.data(), valid.data());
                    for (size_t i = 0; i < probes.size(); i++) {
                        const auto want =
                            probes[i] ? model::asof(keys, *probes[i], opt) : std::nullopt;
                        ASSERT_EQ(pos[i], want.value_or(~uint64_t(0))) << i;
                        ASSERT_EQ(bool(valid[i / 8] >> (i % 8) & 1), want.has_value()) << i;
                    }
                }
    }

    std::vector<std::vector<std::optional<uint64_t>>> gathers(3);
    for (uint64_t at = 0; at < keys.size(); at += rng() % 32 ? 1 : rng() % 1000)
        gathers[0].push_back(rng() % 10 ? std::optional<uint64_t>(at) : std::nullopt);
    for (int i = 0; i < 200; i++)
        gathers[1].push_back(rng() % 10 ? std::optional<uint64_t>(rng() % keys.size())
                                        : std::nullopt);
    gathers[2] = gathers[0];
    std::shuffle(gathers[2].begin(), gathers[2].end(), rng);
    for (const auto &pos : gathers) {
        const array pa = array_of(pos, {VEL_DD_SEQUENCE_UINT8, 8});
        expect_same(values_of<int32_t>(table::gather(vc, pa)), picked(vals, pos));
    }

    // The C++ views: results written in place, two columns gathered at once.
    for (size_t count : {20000, 200}) {
        std::vector<int64_t> many(count);
        for (int64_t &x : many)
            x = keys.front() - 2 + int64_t(rng() % uint64_t(keys.back() - keys.front() + 4));
        const asof_options<int64_t> opt{direction::backward, false, 1}; // some match nothing
        std::vector<std::optional<uint64_t>> want;
        for (int64_t p : many)
            want.push_back(model::asof(keys, p, opt));
        expect_same(asof(o[k], span<const int64_t>(many), opt).to_optionals(), want);
        const auto [gv, gk] = asof_join(o[k], span<const int64_t>(many), opt, o[v], o[k]);
        expect_same(gv.to_optionals(), picked(vals, want));
        expect_same(gk.to_optionals(), picked(keys, want));
        expect_same(gather(o[v], span<const std::optional<uint64_t>>(want)).to_optionals(),
                    picked(vals, want));
    }
    // Probes stored in a field: the keys themselves, each matching the end
    // of its run (20005 rows: the validity's last byte is partly used).
    const auto runs_end = asof(o[k], o[k]);
    for (size_t i = 0; i < keys.size(); i++)
        ASSERT_EQ(runs_end[i], model::asof(keys, keys[i], table::asof_options{})) << i;

    // As-of within groups (an object each) against the model on each
    // group's keys: probes of every group interleaved, some of no group, some
    // of a group without keys; dense and sparse groups (merge and join).
    const size_t sizes[] = {3000, 0, 100000, 17};
    std::vector<object> objs;
    std::vector<std::vector<int64_t>> gkeys(4);
    std::vector<std::vector<std::optional<int32_t>>> gvals(4);
    for (size_t g = 0; g < 4; g++) {
        objs.push_back(tx.create(cls));
        for (int64_t x = int64_t(rng() % 50); gkeys[g].size() < sizes[g]; x += int64_t(rng() % 4)) {
            gkeys[g].push_back(x);
            gvals[g].push_back(rng() % 8 ? std::optional(int32_t(rng())) : std::nullopt);
        }
        objs[g][k].append(span<const int64_t>(gkeys[g]));
        objs[g][v].append(span<const std::optional<int32_t>>(gvals[g]));
    }
    std::vector<int64_t> probes(5000);
    std::vector<uint32_t> group(probes.size());
    for (size_t i = 0; i < probes.size(); i++) {
        group[i] = rng() % 9 == 0 ? kNoGroup : uint32_t(rng() % 4);
        probes[i] = int64_t(rng() % 80000) - 100;
    }
    for (bool strict : {false, true}) {
        const asof_options<int64_t> opt{direction::backward, strict, {}};
        const auto [px] = asof_join_by(span<const object>(objs), span<const uint32_t>(group), k,
                                       span<const int64_t>(probes), opt, v);
        for (size_t i = 0; i < probes.size(); i++) {
            const auto at =
                group[i] == kNoGroup ? std::nullopt : model::asof(gkeys[group[i]], probes[i], opt);
            ASSERT_EQ(px[i], at ? gvals[group[i]][*at] : std::nullopt) << i;
        }
    }
    group[3] = 4;
    EXPECT_EQ(code_of([&] {
                  asof_join_by(span<const object>(objs), span<const uint32_t>(group), k,
                               span<const int64_t>(probes), asof_options<int64_t>{}, v);
              }),
              VEL_E_ILLEGAL_PARAM);
}

} // namespace
