// Guard rails and RAII of velseq.hpp: every refused call throws velseq::error
// with its code, leaves the field as it was and the transaction usable; a
// transaction left by an exception rolls back.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <random>

#include "velseq.hpp"

namespace {

using namespace velseq;
using std::optional;
using std::vector;

struct Db {
    database db;
    schema cls{"guard"};
    field<double> asc = cls.seq<double>("asc", order::ascending);
    field<int32_t> desc = cls.seq<int32_t>("desc", order::descending);
    field<float> any = cls.seq<float>("any");
    char_field<4> code = cls.seq<chars<4>>("code", order::ascending);
    scalar_field<uint32_t> id = cls.value<uint32_t>("id");
    Db() { db.define(cls); }
};

template <class T> vector<optional<T>> contents(const sequence<T> &s) {
    vector<optional<T>> v;
    for (optional<T> x : s.elements())
        v.push_back(x);
    return v;
}

TEST(Guard, RefusalsLeaveFieldsAndTransactionUsable) {
    Db s;
    connection con(s.db);
    transaction tx(con, transaction::write);
    object o = tx.create(s.cls);
    sequence<double> a = o[s.asc];
    sequence<int32_t> d = o[s.desc];
    sequence<float> u = o[s.any];
    a.append({1.0, 2.0, 2.0, 5.0});
    d.append({9, 7, 7, 2});
    u.append({3.0f, NAN, 1.0f}); // NaN is fine where there is no order
    const double nan = std::nan("");
    const bool one_null[] = {false, true};
    const uint64_t far_pos[] = {0, 9};

    const struct {
        const char *what;
        int code;
        std::function<void()> call;
    } cases[] = {
        {"NaN appended", VEL_E_ILLEGAL_PARAM,
         [&] {
             a.append({6.0, nan});
         }},
        {"NaN inserted", VEL_E_ILLEGAL_PARAM, [&] { a.insert(1, {nan}); }},
        {"input out of order", VEL_E_SEQ_OUT_OF_ORDER,
         [&] {
             a.append({7.0, 6.0});
         }},
        {"below the last", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.append({4.0}); }},
        {"above the last (desc)", VEL_E_SEQ_OUT_OF_ORDER, [&] { d.append({3}); }},
        {"insert breaks left", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.insert(2, {1.5}); }},
        {"insert breaks right", VEL_E_SEQ_OUT_OF_ORDER,
         [&] {
             a.insert(1, {1.5, 2.5});
         }},
        {"null in ordered", VEL_E_SEQ_NULL_VALUE,
         [&] {
             a.append({6.0, 7.0}, one_null);
         }},
        {"optional null in ordered", VEL_E_SEQ_NULL_VALUE,
         [&] {
             a.append(vector<optional<double>>{6.0, std::nullopt});
         }},
        {"null flags of another length", VEL_E_SEQ_LENGTH_MISMATCH,
         [&] { u.append({1.0f}, one_null); }},
        {"insert past the end", VEL_E_ILLEGAL_PARAM, [&] { u.insert(4, {1.0f}); }},
        {"erase reversed", VEL_E_ILLEGAL_PARAM, [&] { u.erase(2, 1); }},
        {"erase past the end", VEL_E_ILLEGAL_PARAM, [&] { u.erase(1, 4); }},
        {"scan past the end", VEL_E_ILLEGAL_PARAM, [&] { u.tiles(0, 4); }},
        {"at past the end", VEL_E_ILLEGAL_PARAM, [&] { u.at(3); }},
        {"map past the end", VEL_E_ILLEGAL_PARAM, [&] { u.map(far_pos); }},
        {"search reversed", VEL_E_ILLEGAL_PARAM, [&] { a.search(5.0, 1.0); }},
        {"search NaN", VEL_E_ILLEGAL_PARAM, [&] { a.search(nan, 1.0); }},
        {"search unordered", VEL_E_ILLEGAL_PARAM, [&] { u.search(1.0f, 2.0f); }},
        {"join past the last", VEL_S_NOTFOUND,
         [&] {
             a.join({1.0, 6.0});
         }},
        {"asof on unordered keys", VEL_E_ILLEGAL_PARAM, [&] { asof(u, span<const float>()); }},
        {"aggregate reversed", VEL_E_ILLEGAL_PARAM,
         [&] {
             aggregate(u, position_range{2, 1});
         }},
        {"bad datetime text", VEL_E_ILLEGAL_PARAM, [&] { datetime::parse("1970-02-30"); }},
        {"char too long", VEL_E_ILLEGAL_PARAM, [&] { chars<4>::from("toolong"); }},
        {"ordered char past its key room", VEL_E_ILLEGAL_PARAM,
         [&] {
             vector<chars<4>> many(100000, chars<4>::from("zz"));
             o[s.code].append(span<const chars<4>>(many.data(), many.size()));
         }},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.what);
        const auto before_a = contents(a);
        const auto before_d = contents(d);
        const auto before_u = contents(u);
        try {
            c.call();
            ADD_FAILURE() << "not refused";
        } catch (const error &e) {
            EXPECT_EQ(e.code(), c.code) << e.what();
            EXPECT_STREQ(e.name(), code_name(c.code));
            EXPECT_NE(std::string(e.what()).find(code_name(c.code)), std::string::npos);
        }
        EXPECT_EQ(contents(a), before_a);
        EXPECT_EQ(contents(d), before_d);
        // NaN != NaN: compare the unordered field's bits
        const auto now_u = contents(u);
        ASSERT_EQ(now_u.size(), before_u.size());
        for (size_t i = 0; i < now_u.size(); i++)
            EXPECT_EQ(std::memcmp(&*now_u[i], &*before_u[i], sizeof(float)), 0);
    }
    // The transaction goes on: accepted edges of the same checks, then commit.
    a.append({5.0, 6.0});
    a.insert(1, {1.0, 1.5});
    a.insert(0, {0.5});
    d.insert(4, {2, 1});
    o[s.code].append({chars<4>::from("ab"), chars<4>::from("abc"), chars<4>::from("b")});
    EXPECT_THROW(o[s.code].append({chars<4>::from("aa")}), error);
    EXPECT_EQ(contents(a), (vector<optional<double>>{0.5, 1.0, 1.0, 1.5, 2.0, 2.0, 5.0, 5.0, 6.0}));
    EXPECT_EQ(contents(d), (vector<optional<int32_t>>{9, 7, 7, 2, 2, 1}));
    const position_range r = a.search(1.0, 2.0, bound::inclusive, bound::exclusive);
    EXPECT_EQ(r.first, 1u);
    EXPECT_EQ(r.last, 4u);
    const position_range rd = d.search(2, 7); // value order, whatever the field's order
    EXPECT_EQ(rd.first, 1u);
    EXPECT_EQ(rd.last, 5u);
    u.erase(0, 1);
    EXPECT_EQ(u.size(), 2u);
    o.set(s.id, 17u);
    const uint64_t oid = o.oid();
    tx.commit();
    EXPECT_THROW(tx.commit(), error);

    transaction rd_tx(con, transaction::read);
    object back = rd_tx.open(s.cls, oid);
    EXPECT_EQ(back.get(s.id), 17u);
    EXPECT_EQ(back[s.asc].size(), 9u);
    EXPECT_EQ(back[s.asc].back(), 6.0);
    EXPECT_EQ(back[s.code].front()->view(), "ab");
    try {
        back[s.asc].append({7.0});
        ADD_FAILURE() << "write in a read transaction";
    } catch (const error &e) {
        EXPECT_EQ(e.code(), VEL_E_HOST_READ_ONLY);
    }
}

TEST(Guard, TransactionRollsBackWhenUnwinding) {
    Db s;
    connection con(s.db);
    try {
        transaction tx(con, transaction::write);
        object o = tx.create(s.cls);
        o[s.asc].append({1.0, 2.0});
        o[s.asc].append({0.0}); // throws: the destructor rolls back
        tx.commit();
    } catch (const error &e) {
        EXPECT_EQ(e.code(), VEL_E_SEQ_OUT_OF_ORDER);
    }
    {
        transaction tx(con, transaction::read);
        EXPECT_EQ(tx.count(s.cls), 0u);
    }
    {
        transaction tx(con, transaction::write);
        tx.create(s.cls); // destroyed uncommitted
    }
    transaction tx(con, transaction::read);
    EXPECT_EQ(tx.count(s.cls), 0u);
}

// Single-value inserts and erases at random places, against a vector: the
// contents follow the model and the tree stays near its dense shape.
TEST(Guard, SingleInsertsKeepTheFieldDense) {
    Db s;
    connection con(s.db);
    transaction tx(con, transaction::write);
    object o = tx.create(s.cls);
    sequence<int32_t> d = o[s.desc];
    vector<optional<int32_t>> model;
    std::mt19937 rng(3);
    for (int i = 0; i < 6000; i++) {
        if (i % 10 == 9 && !model.empty()) {
            const size_t at = rng() % model.size();
            d.erase(at, at + 1);
            model.erase(model.begin() + long(at));
            continue;
        }
        // a value between its neighbours keeps the descending order
        const size_t at = model.empty() ? 0 : rng() % (model.size() + 1);
        const int32_t v = at < model.size() ? *model[at] : at > 0 ? *model[at - 1] : 1000000;
        d.insert(at, {v});
        model.insert(model.begin() + long(at), v);
    }
    ASSERT_EQ(contents(d), model);
    velh_field_shape_t shape{};
    ASSERT_EQ(velh_field_shape(o.handle(), s.desc.info().fld_no, VEL_SEQ_DESC_ORDER, &shape),
              VEL_S_OK);
    EXPECT_EQ(shape.elements, model.size());
    EXPECT_LE(shape.depth, unsigned(VELH_COMPACT_MAX_DEPTH));
    EXPECT_LE(shape.pages, 2 * shape.dense_pages);
    tx.commit();
}

// An appender against a model: random pushes with nulls and random flushes
// land in order, whole batches at a time; a refused batch throws and is
// dropped; one refused at destruction makes the commit throw.
TEST(Guard, AppenderBatchesAgreeWithTheModel) {
    Db s;
    connection con(s.db);
    transaction tx(con, transaction::write);
    object o = tx.create(s.cls);
    vector<optional<float>> model;
    std::mt19937 rng(3);
    {
        appender<float> ap(o[s.any], 150); // bitmaps of several words
        for (int i = 0; i < 2000; i++) {
            const optional<float> v =
                rng() % 60 == 0 ? std::nullopt : optional<float>(static_cast<float>(rng() % 100));
            ap.push(v);
            model.push_back(v);
            if (rng() % 400 == 0)
                ap.flush();
            ASSERT_EQ(contents(o[s.any]).size() + ap.pending(), model.size());
            ASSERT_LT(ap.pending(), 150u);
        }
    } // the last partial batch at destruction
    EXPECT_EQ(contents(o[s.any]), model);

    appender<double> asc(o[s.asc], 4);
    for (double v : {1.0, 2.0, 3.0, 4.0, 5.0, 7.0, 6.0})
        asc.push(v);
    EXPECT_EQ(asc.pending(), 3u);
    try {
        asc.push(8.0); // fills the batch 5, 7, 6, 8
        FAIL() << "an out-of-order batch was accepted";
    } catch (const error &e) {
        EXPECT_EQ(e.code(), VEL_E_SEQ_OUT_OF_ORDER);
    }
    EXPECT_EQ(asc.pending(), 0u);
    EXPECT_EQ(contents(o[s.asc]), (vector<optional<double>>{1.0, 2.0, 3.0, 4.0}));
    asc.push(9.0);
    tx.commit(); // flushes 9 first
    EXPECT_EQ(asc.pending(), 0u);

    transaction tx2(con, transaction::write);
    object o2 = tx2.open(s.cls, o.oid());
    EXPECT_EQ(contents(o2[s.asc]), (vector<optional<double>>{1.0, 2.0, 3.0, 4.0, 9.0}));
    {
        appender<double> late(o2[s.asc]);
        late.push(0.5); // before the stored 9: refused when destroyed
    }
    try {
        tx2.commit();
        FAIL() << "a commit went through after an appender lost its batch";
    } catch (const error &e) {
        EXPECT_EQ(e.code(), VEL_E_SEQ_OUT_OF_ORDER);
    }
    EXPECT_TRUE(tx2.is_open());
}

} // namespace
