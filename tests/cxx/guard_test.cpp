// Guard rails and RAII of velseq.hpp: every refused call throws velseq::error
// with its code, leaves the field as it was and the transaction usable; a
// transaction left by an exception rolls back.  Databases in files: what
// read-only opens and a commit the log refuses tell.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <cerrno>
#include <cmath>
#include <csignal>
#include <filesystem>
#include <functional>
#include <random>
#include <sstream>
#include <tuple>

#include "velseq/image.hpp"

namespace {

using namespace velseq;
using std::optional;
using std::vector;

// A write transaction holding one new object.
struct Guard : testing::Test {
    database db;
    schema cls{"guard"};
    field<double> asc = cls.seq<double>("asc", order::ascending);
    field<int32_t> desc = cls.seq<int32_t>("desc", order::descending);
    field<float> any = cls.seq<float>("any");
    char_field<4> code = cls.seq<chars<4>>("code", order::ascending);
    scalar_field<uint32_t> id = cls.value<uint32_t>("id");
    connection con{(db.define(cls), db)}; // the class is defined before the first connection
    transaction tx{con, transaction::write};
    object o = tx.create(cls);
    sequence<double> a = o[asc];
    sequence<int32_t> d = o[desc];
    sequence<float> u = o[any];
};

// Elements (of a field or a model) as text, "-" for a null: NaN equals itself here.
template <class R> std::string text(R &&r) {
    std::ostringstream os;
    for (const auto &x : r)
        x ? os << *x << ' ' : os << "- ";
    return os.str();
}

// f must throw velseq::error with this code, named in its message, which says `says`.
template <class F> void expect_error(int code, const F &f, const std::string &says = "") {
    try {
        f();
        ADD_FAILURE() << "not refused";
    } catch (const error &e) {
        EXPECT_EQ(e.code(), code) << e.what();
        EXPECT_STREQ(e.name(), code_name(code));
        EXPECT_NE(std::string(e.what()).find(code_name(code)), std::string::npos);
        EXPECT_NE(std::string(e.what()).find(says), std::string::npos) << e.what();
    }
}

TEST_F(Guard, RefusalsLeaveFieldsAndTransactionUsable) {
    a.append({1.0, 2.0, 2.0, 5.0});
    d.append({9, 7, 7, 2});
    u.append({3.0f, NAN, 1.0f}); // NaN is fine where there is no order
    const double nan = std::nan(""), nan_2nd[] = {6.0, nan}, down[] = {7.0, 6.0};
    const double across[] = {1.5, 2.5}, up[] = {1.0, 6.0}, fine[] = {6.0, 7.0};
    const optional<double> null_2nd[] = {6.0, std::nullopt};
    const bool one_null[] = {false, true};
    const uint64_t far_pos[] = {0, 9};
    const position_range reversed{2, 1};
    const vector<chars<4>> many(100000, chars<4>::from("zz"));
    const std::tuple<const char *, int, std::function<void()>> cases[] = {
        {"NaN appended", VEL_E_ILLEGAL_PARAM, [&] { a.append(nan_2nd); }},
        {"NaN inserted", VEL_E_ILLEGAL_PARAM, [&] { a.insert(1, {nan}); }},
        {"input out of order", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.append(down); }},
        {"below the last", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.append({4.0}); }},
        {"above the last (desc)", VEL_E_SEQ_OUT_OF_ORDER, [&] { d.append({3}); }},
        {"insert breaks left", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.insert(2, {1.5}); }},
        {"insert breaks right", VEL_E_SEQ_OUT_OF_ORDER, [&] { a.insert(1, across); }},
        {"null in ordered", VEL_E_SEQ_NULL_VALUE, [&] { a.append(fine, one_null); }},
        {"optional null in ordered", VEL_E_SEQ_NULL_VALUE, [&] { a.append(null_2nd); }},
        {"flags of another length", VEL_E_SEQ_LENGTH_MISMATCH, [&] { u.append({1.0f}, one_null); }},
        {"insert past the end", VEL_E_ILLEGAL_PARAM, [&] { u.insert(4, {1.0f}); }},
        {"erase reversed", VEL_E_ILLEGAL_PARAM, [&] { u.erase(2, 1); }},
        {"erase past the end", VEL_E_ILLEGAL_PARAM, [&] { u.erase(1, 4); }},
        {"scan past the end", VEL_E_ILLEGAL_PARAM, [&] { u.tiles(0, 4); }},
        {"at past the end", VEL_E_ILLEGAL_PARAM, [&] { u.at(3); }},
        {"map past the end", VEL_E_ILLEGAL_PARAM, [&] { u.map(far_pos); }},
        {"search reversed", VEL_E_ILLEGAL_PARAM, [&] { a.search(5.0, 1.0); }},
        {"search NaN", VEL_E_ILLEGAL_PARAM, [&] { a.search(nan, 1.0); }},
        {"search unordered", VEL_E_ILLEGAL_PARAM, [&] { u.search(1.0f, 2.0f); }},
        {"join past the last", VEL_S_NOTFOUND, [&] { a.join(up); }},
        {"asof on unordered keys", VEL_E_ILLEGAL_PARAM, [&] { asof(u, span<const float>()); }},
        {"aggregate reversed", VEL_E_ILLEGAL_PARAM, [&] { aggregate(u, reversed); }},
        {"char too long", VEL_E_ILLEGAL_PARAM, [&] { chars<4>::from("toolong"); }},
        {"ordered char past its key room", VEL_E_ILLEGAL_PARAM, [&] { o[code].append(many); }},
    };
    for (const auto &[what, want, call] : cases) {
        SCOPED_TRACE(what);
        const std::string before = text(a.elements()) + text(d.elements()) + text(u.elements());
        expect_error(want, call);
        EXPECT_EQ(text(a.elements()) + text(d.elements()) + text(u.elements()), before);
    }
    // The transaction goes on: accepted edges of the same checks, then commit.
    a.append({5.0, 6.0});
    a.insert(1, {1.0, 1.5});
    a.insert(0, {0.5});
    d.insert(4, {2, 1});
    o[code].append({chars<4>::from("ab"), chars<4>::from("abc"), chars<4>::from("b")});
    EXPECT_THROW(o[code].append({chars<4>::from("aa")}), error);
    EXPECT_EQ(text(d.elements()), "9 7 7 2 2 1 ");
    const position_range r = a.search(1.0, 2.0, bound::inclusive, bound::exclusive);
    const position_range rd = d.search(2, 7); // value order, whatever the field's order
    EXPECT_EQ((vector<uint64_t>{r.first, r.last, rd.first, rd.last}),
              (vector<uint64_t>{1, 4, 1, 5}));
    u.erase(0, 1);
    EXPECT_EQ(u.size(), 2u);
    o.set(id, 17u);
    const uint64_t oid = o.oid();
    tx.commit();
    EXPECT_THROW(tx.commit(), error);

    transaction rd_tx(con, transaction::read);
    object back = rd_tx.open(cls, oid);
    EXPECT_EQ(back.get(id), 17u);
    EXPECT_EQ(text(back[asc].elements()), "0.5 1 1 1.5 2 2 5 5 6 ");
    EXPECT_EQ(back[code].front()->view(), "ab");
    expect_error(VEL_E_HOST_READ_ONLY, [&] { back[asc].append({7.0}); });
}

// An appender against a model: random pushes with nulls and random flushes
// land in order, whole batches at a time; a refused batch throws and is
// dropped; one refused at destruction makes the commit throw.  Transactions
// left uncommitted, by an exception or not, roll back.
TEST_F(Guard, AppenderBatchesAgreeWithTheModel) {
    vector<optional<float>> model;
    std::mt19937 rng(3);
    {
        appender<float> ap(u, 150); // bitmaps of several words
        for (int i = 0; i < 2000; i++) {
            model.push_back(rng() % 60 ? optional<float>(float(rng() % 100)) : std::nullopt);
            ap.push(model.back());
            if (rng() % 400 == 0)
                ap.flush();
            ASSERT_EQ(u.size() + ap.pending(), model.size());
            ASSERT_LT(ap.pending(), 150u);
        }
    } // the last partial batch at destruction
    EXPECT_EQ(text(u.elements()), text(model));

    appender<double> ap(a, 4);
    for (double v : {1.0, 2.0, 3.0, 4.0, 5.0, 7.0, 6.0})
        ap.push(v);
    EXPECT_EQ(ap.pending(), 3u);
    expect_error(VEL_E_SEQ_OUT_OF_ORDER, [&] { ap.push(8.0); }); // the batch 5, 7, 6, 8
    EXPECT_EQ(ap.pending(), 0u);
    EXPECT_EQ(text(a.elements()), "1 2 3 4 ");
    ap.push(9.0);
    const uint64_t oid = o.oid();
    tx.commit(); // flushes 9 first
    EXPECT_EQ(ap.pending(), 0u);
    {
        transaction tx2(con, transaction::write);
        object o2 = tx2.open(cls, oid);
        tx2.create(cls);
        appender<double>(o2[asc]).push(0.5); // before the stored 9: refused when destroyed
        expect_error(VEL_E_SEQ_OUT_OF_ORDER, [&] { tx2.commit(); });
        EXPECT_TRUE(tx2.is_open());
    }
    expect_error(VEL_E_SEQ_OUT_OF_ORDER, [&] {
        transaction tx3(con, transaction::write);
        tx3.create(cls);
        tx3.open(cls, oid)[asc].append({0.0}); // throws: the destructor rolls back
    });
    transaction rd(con, transaction::read);
    EXPECT_EQ(rd.count(cls), 1u);
    EXPECT_EQ(text(rd.open(cls, oid)[asc].elements()), "1 2 3 4 9 ");
}

// Writes the log cannot take say which file and why; names too long for it
// are refused before they reach the host.  (Read-only opens, damage and
// recovery: the program's and the Python package's tests over this API.)
TEST(Files, RefusedWritesSayWhichFileAndWhy) {
    const std::string dir = testing::TempDir() + "velseq_cxx_files/", img = dir + "a.img",
                      log = dir + "a.log";
    std::filesystem::remove_all(dir);
    std::filesystem::create_directories(dir);
    config cfg;
    cfg.log_path = log.c_str();
    // Class `cls` (field `name`), defined in `db` or bound to its class 1, and
    // an object of n values committed (none with n == 0).
    auto add = [](database &db, size_t n, bool define = false, const std::string &name = "v",
                  const char *cls = "c") {
        schema s(cls);
        field<int64_t> v = s.seq<int64_t>(name);
        define ? db.define(s) : attach(db, s, 1);
        connection con(db);
        transaction tx(con, transaction::write);
        tx.create(s)[v].append(std::vector<int64_t>(n, 7));
        n > 0 ? tx.commit() : tx.rollback();
    };
    database mem;
    expect_error(
        VEL_E_ILLEGAL_PARAM, [&] { add(mem, 0, true, std::string(70000, 'w')); },
        "field 0 of class c: name 'wwww");
    add(mem, 1, true);
    save_image(mem, img);
    auto db = open_image(img, cfg);
    add(*db, 2);                   // a record in the log, whose size is the limit below
    std::signal(SIGXFSZ, SIG_IGN); // a write past the limit fails with EFBIG instead
    rlimit lim{};
    getrlimit(RLIMIT_FSIZE, &lim);
    const rlimit low{std::filesystem::file_size(log), lim.rlim_max};
    setrlimit(RLIMIT_FSIZE, &low);
    expect_error(
        VEL_E_HOST_IO, [&] { add(*db, 1); }, log + ": " + std::strerror(EFBIG));
    expect_error(
        VEL_E_HOST_IO, [&] { add(*db, 0, true, "v", "d"); }, "defining class d: ");
    setrlimit(RLIMIT_FSIZE, &lim);
    add(*db, 1); // the refused records were cut: the log goes on
}

// The API's iterator records come zeroed with their tile on a cache line,
// wherever the allocator puts them (a tile across a 4 KiB boundary slows
// every scan through it).
TEST(Iterators, TilesStartOnACacheLine) {
    std::vector<velseq::detail::iter_ptr> its;
    for (int i = 0; i < 64; i++) {
        its.push_back(velseq::detail::new_iter());
        EXPECT_EQ(reinterpret_cast<uintptr_t>(its.back()->tile.u.arr_char) % 64, 0u);
        EXPECT_EQ(its.back()->next, nullptr);
        EXPECT_EQ(its.back()->tile_size, 0);
    }
}

// C callers may leave a field as deep as an iterator can read, where one
// more level traps: an insert through the API keeps the field first.  Then
// single-value inserts and erases at random places, against a vector: the
// contents follow the model and the tree stays near its dense shape.
struct Trapped {};

TEST(Deep, ApiInsertsKeepAFieldCompact) {
    config cfg;
    cfg.seq_page_size = 128;
    database db(cfg);
    schema cls{"deep"};
    field<int64_t> f = cls.seq<int64_t>("v", order::descending);
    db.define(cls);
    connection con(db);
    vector<int64_t> model(1000);
    for (size_t i = 0; i < model.size(); i++)
        model[i] = int64_t(3 * (model.size() - i));
    uint64_t oid;
    {
        transaction tx(con, transaction::write);
        object o = tx.create(cls);
        o[f].append(model);
        oid = o.oid();
        tx.commit();
    }
    // Raw single inserts at one spot, one transaction each, until one traps
    // (and is rolled back): the field is left one insert short of the trap.
    velh_set_trap_handler([](int, const char *, int, void *) { throw Trapped{}; }, nullptr);
    const velh_field_info_t fi = f.info();
    const int64_t v = model[500];
    try {
        for (;;) {
            ASSERT_LT(model.size(), 1000000u);
            transaction tx(con, transaction::write);
            vel_objhandle_t h{};
            ASSERT_EQ(velh_obj_open(tx.connection_handle(), cls.code(), oid, &h), VEL_S_OK);
            ASSERT_EQ(vel_w_seq_insert_int8(&h, fi.u_offset, fi.c_offset, fi.fld_no, 500, &v, 1,
                                            VEL_SEQ_DESC_ORDER, nullptr),
                      VEL_S_OK);
            tx.commit();
            model.insert(model.begin() + 500, v);
        }
    } catch (const Trapped &) {
    }
    velh_set_trap_handler(nullptr, nullptr);
    transaction tx(con, transaction::write);
    object o = tx.open(cls, oid);
    std::mt19937 rng(3);
    for (int i = 0; i < 3000; i++) {
        const bool erase = i % 10 == 9;
        const size_t at = i == 0 ? 500 : rng() % (model.size() + !erase);
        if (erase) {
            o[f].erase(at, at + 1);
            model.erase(model.begin() + long(at));
        } else { // a neighbour's value keeps the descending order
            const int64_t x = at < model.size() ? model[at] : model[at - 1];
            o[f].insert(at, {x});
            model.insert(model.begin() + long(at), x);
        }
    }
    ASSERT_EQ(text(o[f].elements()), text(vector<optional<int64_t>>(model.begin(), model.end())));
    velh_field_shape_t shape{};
    ASSERT_EQ(velh_field_shape(o.handle(), fi.fld_no, VEL_SEQ_DESC_ORDER, &shape), VEL_S_OK);
    EXPECT_LE(shape.depth, unsigned(VELH_COMPACT_MAX_DEPTH));
    EXPECT_LE(shape.pages, 2 * shape.dense_pages);
    tx.commit();
}

} // namespace
