// Every refused input, for every element family: the code returned, and the
// field's content (read from its pages) unchanged where nothing may change.
#include <cmath>
#include <functional>
#include <memory>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

enum Fld { ASC = 0, DESC = 1, NONE = 2, EMPTY_ASC = 3, EMPTY_NONE = 4 };

struct Ctx {
    Env &env;
    const Family &f;
    std::vector<FieldSpec> fields;
    // Checks made by the row itself beyond the code (empty = fine).
    std::string extra;

    const FieldLoc &l(int fi) const { return env.loc(fi); }
    vel_seq_order_t order(int fi) const { return fields[fi].order; }
    VEL_RET append(int fi, const std::vector<uint8_t> &v, vel_seq_order_t o,
                   const vel_bitmap_word_t *nb = nullptr) {
        return f.append(env.obj(), l(fi).u, l(fi).c, l(fi).fld_no, v.data(), v.size() / f.width, o,
                        nb, f.width);
    }
    // Scan / search of field fi into `it`, which rows then inspect.
    VEL_RET subseq(int fi, uint64_t from, uint64_t till) {
        return f.subseq(env.obj(), l(fi).u, l(fi).c, &it, from, till, f.width);
    }
    VEL_RET search(int fi, int lo, vel_seq_boundary_kind_t lk, int hi, vel_seq_boundary_kind_t hk) {
        auto a = kth(f, lo), b = kth(f, hi);
        return f.search(env.obj(), l(fi).u, l(fi).c, &it, a.data(), lk, b.data(), hk,
                        VEL_SEQ_ASC_ORDER, f.width);
    }
    // Join / map of field fi over an operand into `it`.
    VEL_RET join(int fi, VecIter &with, vel_seq_order_t o = VEL_SEQ_ASC_ORDER) {
        it = {};
        return f.join(env.obj(), l(fi).u, l(fi).c, &it, &with.it, o);
    }
    VEL_RET map(int fi, VecIter &pos) {
        it = {};
        return f.map(env.obj(), l(fi).u, l(fi).c, &it, &pos.it, f.width);
    }
    // The first next of a set-up that must succeed.
    VEL_RET next_after(VEL_RET setup) {
        return setup != VEL_S_OK ? VEL_E_HOST_BAD_ARG : it.next(&it);
    }
    void expect(bool ok, const char *what) {
        if (!ok)
            extra = what;
    }
    vel_seq_iterator_t it{};
    VEL_RET insert(int fi, uint64_t pos, const std::vector<uint8_t> &v, vel_seq_order_t o,
                   const vel_bitmap_word_t *nb = nullptr) {
        return f.insert(env.obj(), l(fi).u, l(fi).c, l(fi).fld_no, pos, v.data(),
                        v.size() / f.width, o, nb, f.width);
    }
};

// Every row must leave every field's content as it was.
struct Row {
    const char *name;
    VEL_RET want;
    std::function<VEL_RET(Ctx &)> call;
    bool float_only = false;
};

std::unique_ptr<VecIter> values_iter(const Family &f, std::initializer_list<int> ks) {
    auto v = std::make_unique<VecIter>();
    v->setup(f.elem_type, static_cast<uint16_t>(f.width));
    v->data = pack(f, ks);
    return v;
}

std::unique_ptr<VecIter> positions_iter(std::vector<uint64_t> pos) {
    auto v = std::make_unique<VecIter>();
    v->setup(VEL_DD_UINT8, 8);
    v->data.resize(pos.size() * 8);
    std::memcpy(v->data.data(), pos.data(), v->data.size());
    return v;
}

std::vector<uint8_t> nan_of(const Family &f) {
    std::vector<uint8_t> v(f.width);
    if (f.width == 4) {
        float x = std::nanf("");
        std::memcpy(v.data(), &x, 4);
    } else {
        double x = std::nan("");
        std::memcpy(v.data(), &x, 8);
    }
    return v;
}

const vel_bitmap_word_t kBit0[2] = {1, 0};

std::vector<Row> catalogue() {
    auto O = [](int v) { return static_cast<vel_seq_order_t>(v); };
    std::vector<Row> r;
    // ---- append
    r.push_back({"append: buffer out of order (ascending)", VEL_E_SEQ_OUT_OF_ORDER, [](Ctx &c) {
                     return c.append(ASC, pack(c.f, {40, 35}), c.order(ASC));
                 }});
    r.push_back({"append: buffer out of order (descending)", VEL_E_SEQ_OUT_OF_ORDER, [](Ctx &c) {
                     return c.append(DESC, pack(c.f, {5, 8}), c.order(DESC));
                 }});
    r.push_back({"append: first value before the stored last (ascending)", VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.append(ASC, pack(c.f, {25}), c.order(ASC)); }});
    r.push_back({"append: first value after the stored last (descending)", VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.append(DESC, pack(c.f, {15}), c.order(DESC)); }});
    r.push_back({"append: null in an ordered field", VEL_E_SEQ_NULL_VALUE,
                 [](Ctx &c) { return c.append(ASC, pack(c.f, {40}), c.order(ASC), kBit0); }});
    r.push_back({"append: null in a whole bitmap word", VEL_E_SEQ_NULL_VALUE, [](Ctx &c) {
                     std::vector<uint8_t> v;
                     for (int i = 0; i < 64; ++i) {
                         auto e = kth(c.f, 5);
                         v.insert(v.end(), e.begin(), e.end());
                     }
                     vel_bitmap_word_t nb[2] = {uint64_t{1} << 63, 0};
                     return c.append(DESC, v, c.order(DESC), nb);
                 }});
    r.push_back({"append: null in the tail bits the test examines (n=3, bit 0)",
                 VEL_E_SEQ_NULL_VALUE, [](Ctx &c) {
                     return c.append(ASC, pack(c.f, {40, 41, 42}), c.order(ASC), kBit0);
                 }});
    r.push_back({"append: order value 3 on a non-empty field", VEL_E_SEQ_OUT_OF_ORDER,
                 [O](Ctx &c) { return c.append(ASC, pack(c.f, {40}), O(3)); }});
    r.push_back({"append: order value 7 on a non-empty field", VEL_E_SEQ_OUT_OF_ORDER,
                 [O](Ctx &c) { return c.append(DESC, pack(c.f, {5}), O(7)); }});
    r.push_back({"append: NaN as first value onto an ordered field", VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.append(ASC, nan_of(c.f), c.order(ASC)); }, true});
    // ---- insert
    r.push_back({"insert: null in an ordered field", VEL_E_SEQ_NULL_VALUE,
                 [](Ctx &c) { return c.insert(ASC, 1, pack(c.f, {15}), c.order(ASC), kBit0); }});
    r.push_back({"insert: buffer out of order", VEL_E_SEQ_OUT_OF_ORDER, [](Ctx &c) {
                     return c.insert(ASC, 1, pack(c.f, {15, 12}), c.order(ASC));
                 }});
    r.push_back({"insert: first value before the left neighbour (ascending)",
                 VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.insert(ASC, 2, pack(c.f, {15}), c.order(ASC)); }});
    r.push_back({"insert: first value after the left neighbour (descending)",
                 VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.insert(DESC, 2, pack(c.f, {25}), c.order(DESC)); }});
    r.push_back({"insert: at position 0, after the first element", VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.insert(ASC, 0, pack(c.f, {15}), c.order(ASC)); }});
    r.push_back({"insert: position past the end (ordered)", VEL_E_ILLEGAL_PARAM,
                 [](Ctx &c) { return c.insert(ASC, 4, pack(c.f, {40}), c.order(ASC)); }});
    r.push_back({"insert: position past the end (unordered)", VEL_E_ILLEGAL_PARAM,
                 [](Ctx &c) { return c.insert(NONE, 4, pack(c.f, {40}), c.order(NONE)); }});
    r.push_back({"insert: position 1 on an empty field", VEL_E_ILLEGAL_PARAM, [](Ctx &c) {
                     return c.insert(EMPTY_NONE, 1, pack(c.f, {1}), c.order(EMPTY_NONE));
                 }});
    r.push_back({"insert: order value 3 on a non-empty field", VEL_E_SEQ_OUT_OF_ORDER,
                 [O](Ctx &c) { return c.insert(ASC, 3, pack(c.f, {40}), O(3)); }});
    r.push_back({"insert: NaN into an ordered field", VEL_E_SEQ_OUT_OF_ORDER,
                 [](Ctx &c) { return c.insert(ASC, 1, nan_of(c.f), c.order(ASC)); }, true});
    // ---- count, first, last on empty fields
    for (bool last : {false, true})
        r.push_back(
            {last ? "last: empty field" : "first: empty field", VEL_S_NOTFOUND, [last](Ctx &c) {
                 uint8_t v[32];
                 std::memset(v, 0x77, sizeof v);
                 auto get = last ? c.f.last : c.f.first;
                 const FieldLoc &l = c.l(last ? EMPTY_NONE : EMPTY_ASC);
                 VEL_RET rc = get(c.env.obj(), l.u, l.c, v, c.f.width);
                 for (uint8_t b : v)
                     if (b != 0x77)
                         c.extra = "wrote its output";
                 return rc;
             }});
    // ---- scans and searches
    const auto inc = VEL_SEQ_BOUNDARY_INCLUSIVE, open = VEL_SEQ_BOUNDARY_OPEN;
    struct ScanRow {
        const char *name;
        int field;
        std::function<VEL_RET(Ctx &)> call;
        uint64_t typed_first; // the empty range left behind: first/next, last = first - 1
    };
    const ScanRow scans[] = {
        {"subseq: empty field", EMPTY_ASC, [](Ctx &c) { return c.subseq(EMPTY_ASC, 0, 10); }, 1},
        {"subseq: from at the length", ASC, [](Ctx &c) { return c.subseq(ASC, 3, 10); }, 1},
        {"subseq: till before from", ASC, [](Ctx &c) { return c.subseq(ASC, 2, 1); }, 1},
        {"search: empty field", EMPTY_ASC,
         [=](Ctx &c) { return c.search(EMPTY_ASC, 0, inc, 100, inc); }, 1},
        {"search: low bound above every value", ASC,
         [=](Ctx &c) { return c.search(ASC, 40, inc, 40, open); }, 1},
        {"search: high bound below every value", ASC,
         [=](Ctx &c) { return c.search(ASC, 5, open, 5, inc); }, 1},
        // Typed: just behind the range's end; char: 1/1/0.
        {"search: empty value range between elements", ASC,
         [=](Ctx &c) { return c.search(ASC, 21, inc, 29, inc); }, 3},
    };
    for (const ScanRow &sr : scans)
        r.push_back({sr.name, VEL_S_NOTFOUND, [sr](Ctx &c) {
                         VEL_RET rc = sr.call(c);
                         const uint64_t first = c.f.is_char ? 1 : sr.typed_first;
                         const vel_seq_iterator_t &it = c.it;
                         if (it.first_seq_no != first || it.next_seq_no != first ||
                             it.last_seq_no != first - 1)
                             c.extra = "range left as " + std::to_string(it.first_seq_no) + "/" +
                                       std::to_string(it.next_seq_no) + "/" +
                                       std::to_string(it.last_seq_no);
                         else if (c.it.next(&c.it) != VEL_S_CURSOR_END)
                             c.extra = "empty range delivered something";
                         return rc;
                     }});
    // ---- join, map
    r.push_back({"join: field declared without order", VEL_E_ILLEGAL_PARAM, [](Ctx &c) {
                     auto v = values_iter(c.f, {10});
                     VEL_RET rc = c.join(NONE, *v, VEL_SEQ_NO_ORDER);
                     c.expect(!v->it.bounded, "refused join bound its operand");
                     return rc;
                 }});
    r.push_back({"join: empty field", VEL_S_NOTFOUND, [](Ctx &c) {
                     auto v = values_iter(c.f, {10});
                     VEL_RET rc = c.join(EMPTY_ASC, *v);
                     c.expect(v->it.bounded, "join on an empty field left its operand unbound");
                     return rc;
                 }});
    r.push_back({"join: operand already bound", VEL_E_SEQ_BOUNDED, [](Ctx &c) {
                     auto v = values_iter(c.f, {10});
                     v->it.bounded = 1;
                     return c.join(ASC, *v);
                 }});
    r.push_back({"join next: value after every element", VEL_S_NOTFOUND, [](Ctx &c) {
                     auto v = values_iter(c.f, {10, 40});
                     return c.next_after(c.join(ASC, *v));
                 }});
    r.push_back({"map: positions iterator of another element type", VEL_E_ILLEGAL_TYPE, [](Ctx &c) {
                     auto p = positions_iter({0});
                     p->it.elem_type = VEL_DD_INT8;
                     VEL_RET rc = c.map(ASC, *p);
                     c.expect(!p->it.bounded, "refused map bound its operand");
                     return rc;
                 }});
    r.push_back({"map: positions iterator already bound", VEL_E_SEQ_BOUNDED, [](Ctx &c) {
                     auto p = positions_iter({0});
                     return c.map(ASC, *p) != VEL_S_OK ? VEL_E_HOST_BAD_ARG : c.map(ASC, *p);
                 }});
    r.push_back({"map next: position at the length", VEL_S_NOTFOUND, [](Ctx &c) {
                     auto p = positions_iter({1, 3});
                     return c.next_after(c.map(NONE, *p));
                 }});
    r.push_back({"map next: empty field", VEL_E_NOMEM, [](Ctx &c) {
                     auto p = positions_iter({0});
                     return c.next_after(c.map(EMPTY_NONE, *p));
                 }});
    r.push_back({"project: source range past the end of the field", VEL_S_NOTFOUND, [](Ctx &c) {
                     vel_seq_iterator_t src{};
                     src.first_seq_no = src.next_seq_no = 5;
                     src.last_seq_no = 9;
                     vel_seq_iterator_t copy = src;
                     auto it = std::make_unique<vel_seq_iterator_t>();
                     VEL_RET rc = c.f.project(c.env.obj(), c.l(NONE).u, c.l(NONE).c, it.get(), &src,
                                              c.f.width);
                     if (std::memcmp(&copy, &src, sizeof src) != 0)
                         c.extra = "project changed its source";
                     return rc;
                 }});
    // ---- store
    r.push_back({"store: tile with nulls into an ordered field", VEL_E_SEQ_NULL_VALUE, [](Ctx &c) {
                     auto it = std::make_unique<vel_seq_iterator_t>();
                     // NONE holds 10, 20 (null), 30: appended after ASC's 30 it is in order.
                     VEL_RET rc = c.f.subseq(c.env.obj(), c.l(NONE).u, c.l(NONE).c, it.get(), 0, 2,
                                             c.f.width);
                     if (rc != VEL_S_OK)
                         return VEL_E_HOST_BAD_ARG;
                     return c.f.store(c.env.obj(), c.l(DESC).u, c.l(DESC).c, c.l(DESC).fld_no,
                                      it.get(), c.order(DESC), c.f.width);
                 }});
    r.push_back({"store: tile against the declared order", VEL_E_SEQ_OUT_OF_ORDER, [](Ctx &c) {
                     auto it = std::make_unique<vel_seq_iterator_t>();
                     VEL_RET rc = c.f.subseq(c.env.obj(), c.l(DESC).u, c.l(DESC).c, it.get(), 0, 2,
                                             c.f.width);
                     if (rc != VEL_S_OK)
                         return VEL_E_HOST_BAD_ARG;
                     return c.f.store(c.env.obj(), c.l(ASC).u, c.l(ASC).c, c.l(ASC).fld_no,
                                      it.get(), c.order(ASC), c.f.width);
                 }});
    // ---- delete ranges that select nothing
    r.push_back({"delete: from at the length", VEL_S_OK, [](Ctx &c) {
                     return c.f.del(c.env.obj(), c.l(ASC).u, c.l(ASC).c, c.l(ASC).fld_no, 3, 10,
                                    c.order(ASC), c.f.width);
                 }});
    r.push_back({"delete: till before from", VEL_S_OK, [](Ctx &c) {
                     return c.f.del(c.env.obj(), c.l(NONE).u, c.l(NONE).c, c.l(NONE).fld_no, 2, 1,
                                    c.order(NONE), c.f.width);
                 }});
    return r;
}

class BadInputCatalogue : public ::testing::TestWithParam<int> {};

TEST_P(BadInputCatalogue, EveryRefusalKeepsTheField) {
    const Family f = all_families()[GetParam()];
    std::vector<FieldSpec> fields = {{f, VEL_SEQ_ASC_ORDER},
                                     {f, VEL_SEQ_DESC_ORDER},
                                     {f, VEL_SEQ_NO_ORDER},
                                     {f, VEL_SEQ_ASC_ORDER},
                                     {f, VEL_SEQ_NO_ORDER}};
    VEL_RET rc;
    EnvConfig cfg;
    cfg.seq_page_size = 512;
    auto env = Env::open(cfg, fields, &rc);
    ASSERT_TRUE(env) << "database could not be made: " << rc;
    Ctx c{*env, f, fields, {}};
    const vel_bitmap_word_t mid_null[1] = {2};
    ASSERT_EQ(c.append(ASC, pack(f, {10, 20, 30}), VEL_SEQ_ASC_ORDER), VEL_S_OK);
    ASSERT_EQ(c.append(DESC, pack(f, {30, 20, 10}), VEL_SEQ_DESC_ORDER), VEL_S_OK);
    ASSERT_EQ(c.append(NONE, pack(f, {10, 20, 30}), VEL_SEQ_NO_ORDER, mid_null), VEL_S_OK);
    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);

    const std::vector<SeqModel> before = read_all(*env, fields, true);
    ASSERT_EQ(before[NONE].nulls, (std::vector<uint8_t>{0, 1, 0}));

    int tried = 0;
    for (const Row &row : catalogue()) {
        if (row.float_only && !f.is_float)
            continue;
        SCOPED_TRACE(std::string(f.name) + ": " + row.name);
        c.extra.clear();
        VEL_RET got = row.call(c);
        ++tried;
        EXPECT_EQ(got, row.want);
        EXPECT_EQ(c.extra, "");
        EXPECT_TRUE(read_all(*env, fields, true) == before) << "a field changed";
        ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    }
    std::printf("[catalogue] %s: %d refused or empty-result inputs checked\n", f.name, tried);
    RecordProperty("inputs_tried", tried);
}

INSTANTIATE_TEST_SUITE_P(AllFamilies, BadInputCatalogue,
                         ::testing::Range(0, static_cast<int>(all_families().size())),
                         [](const ::testing::TestParamInfo<int> &i) {
                             return std::string(all_families()[i.param].name);
                         });

} // namespace
} // namespace velrel
