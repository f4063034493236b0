// Every refused input, for every element family: the code returned, and the
// content of every field (read from its pages) unchanged.
#include <algorithm>
#include <functional>
#include <memory>

#include <cstdio>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

// ASC holds 10 20 30, DESC 30 20 10, NONE 10 null 30; the last two are empty.
enum { ASC, DESC, NONE, EMPTY_ASC, EMPTY_NONE };
constexpr VEL_RET OOO = VEL_E_SEQ_OUT_OF_ORDER, NUL = VEL_E_SEQ_NULL_VALUE,
                  BAD = VEL_E_ILLEGAL_PARAM, NOTFOUND = VEL_S_NOTFOUND;
const vel_bitmap_word_t kBit0[2] = {1, 0}, kBit63[2] = {uint64_t{1} << 63, 0};

// An append (pos < 0) or insert of values k (-1: NaN, float families only)
// with an order override (-1: the declared one).
struct Update {
    int fi, pos;
    std::vector<int> ks;
    const vel_bitmap_word_t *nulls;
    int order;
    VEL_RET want;
};
const Update kUpdates[] = {
    // append: buffer out of order; first value against the stored last
    {ASC, -1, {40, 35}, nullptr, -1, OOO},
    {DESC, -1, {5, 8}, nullptr, -1, OOO},
    {ASC, -1, {25}, nullptr, -1, OOO},
    {DESC, -1, {15}, nullptr, -1, OOO},
    // nulls in ordered fields: one value, a whole bitmap word, the tail bits (n=3, bit 0)
    {ASC, -1, {40}, kBit0, -1, NUL},
    {DESC, -1, std::vector<int>(64, 5), kBit63, -1, NUL},
    {ASC, -1, {40, 41, 42}, kBit0, -1, NUL},
    // order values other than 0, 1, 2 on a non-empty field; NaN
    {ASC, -1, {40}, nullptr, 3, OOO},
    {DESC, -1, {5}, nullptr, 7, OOO},
    {ASC, -1, {-1}, nullptr, -1, OOO},
    // insert: null, buffer order, either neighbour, past the end, order 3, NaN
    {ASC, 1, {15}, kBit0, -1, NUL},
    {ASC, 1, {15, 12}, nullptr, -1, OOO},
    {ASC, 2, {15}, nullptr, -1, OOO},
    {DESC, 2, {25}, nullptr, -1, OOO},
    {ASC, 0, {15}, nullptr, -1, OOO},
    {ASC, 4, {40}, nullptr, -1, BAD},
    {NONE, 4, {40}, nullptr, -1, BAD},
    {EMPTY_NONE, 1, {1}, nullptr, -1, BAD},
    {ASC, 3, {40}, nullptr, 3, OOO},
    {ASC, 1, {-1}, nullptr, -1, OOO},
};

// A subseq a..b (lk < 0) or a search of values a..b that selects nothing:
// NOTFOUND, and an empty range first = next = last + 1 left behind, with
// first 1 except where typed searches stop just behind the range's end.
struct Selection {
    int fi, a, b, lk, hk;
    uint64_t typed_first;
};
constexpr int INC = VEL_SEQ_BOUNDARY_INCLUSIVE, OPEN = VEL_SEQ_BOUNDARY_OPEN;
const Selection kSelections[] = {
    {EMPTY_ASC, 0, 10, -1, 0, 1},     {ASC, 3, 10, -1, 0, 1},      {ASC, 2, 1, -1, 0, 1},
    {EMPTY_ASC, 0, 100, INC, INC, 1}, {ASC, 40, 40, INC, OPEN, 1}, {ASC, 5, 5, OPEN, INC, 1},
    {ASC, 21, 29, INC, INC, 3},
};

struct Ctx {
    Env &env;
    const Family &f;
    const std::vector<FieldSpec> &fields;
    vel_seq_iterator_t it{};
    std::unique_ptr<VecIter> opd; // the operand of a join or map
    std::string extra;            // what a row found wrong beyond its code

    Field operator[](int i) { return {env.obj(), fields[i], env.loc(i)}; }
    // Operands: values of the family, or positions (uint8 unless `type` says
    // otherwise), bound already when `bound`.
    vel_seq_iterator_t *operand(const Family &of, std::vector<int> ks, uint8_t type, bool bound) {
        opd = std::make_unique<VecIter>();
        opd->setup(type, static_cast<uint16_t>(of.width));
        opd->data = pack(of, ks);
        opd->it.bounded = bound;
        return &opd->it;
    }
    vel_seq_iterator_t *values(std::vector<int> ks, bool bound = false) {
        return operand(f, ks, f.elem_type, bound);
    }
    vel_seq_iterator_t *positions(std::vector<int> ks, bool bound = false,
                                  uint8_t type = VEL_DD_UINT8) {
        return operand(family_of(VEL_DD_UINT8), ks, type, bound);
    }
    // The first next of a set-up that must succeed.
    VEL_RET next_after(VEL_RET setup) {
        return setup != VEL_S_OK ? VEL_E_HOST_BAD_ARG : it.next(&it);
    }
    // first / last of an empty field, which must not write its output.
    VEL_RET end_of_empty(bool last) {
        uint8_t v[32];
        std::memset(v, 0x77, sizeof v);
        Field e = (*this)[last ? EMPTY_NONE : EMPTY_ASC];
        VEL_RET rc = (last ? f.last : f.first)(env.obj(), e.l.u, e.l.c, v, f.width);
        if (std::count(v, v + sizeof v, 0x77) != sizeof v)
            extra = "wrote its output";
        return rc;
    }
    // Stores elements 0..2 of field `from` into field `to`.
    VEL_RET store_scan(int from, int to) {
        return (*this)[from].subseq(&it, 0, 2) != VEL_S_OK ? VEL_E_HOST_BAD_ARG
                                                           : (*this)[to].store(&it);
    }
};

// A call refused with `want`; `bound` 0 / 1: the operand must be left
// unbound / bound (-1: either).
struct Row {
    const char *name;
    VEL_RET want;
    int bound;
    std::function<VEL_RET(Ctx &)> call;
};
const Row kRows[] = {
    {"first: empty field", NOTFOUND, -1, [](Ctx &c) { return c.end_of_empty(false); }},
    {"last: empty field", NOTFOUND, -1, [](Ctx &c) { return c.end_of_empty(true); }},
    {"join: field declared without order", BAD, 0,
     [](Ctx &c) { return c[NONE].join(&c.it, c.values({10})); }},
    {"join: empty field", NOTFOUND, 1,
     [](Ctx &c) { return c[EMPTY_ASC].join(&c.it, c.values({10})); }},
    {"join: operand already bound", VEL_E_SEQ_BOUNDED, -1,
     [](Ctx &c) { return c[ASC].join(&c.it, c.values({10}, true)); }},
    {"join next: value after every element", NOTFOUND, -1,
     [](Ctx &c) {
         return c.next_after(c[ASC].join(&c.it, c.values({10, 40})));
     }},
    {"map: positions of another element type", VEL_E_ILLEGAL_TYPE, 0,
     [](Ctx &c) { return c[ASC].map(&c.it, c.positions({0}, false, VEL_DD_INT8)); }},
    {"map: positions already bound", VEL_E_SEQ_BOUNDED, -1,
     [](Ctx &c) { return c[ASC].map(&c.it, c.positions({0}, true)); }},
    {"map next: position at the length", NOTFOUND, -1,
     [](Ctx &c) {
         return c.next_after(c[NONE].map(&c.it, c.positions({1, 3})));
     }},
    {"map next: empty field", VEL_E_NOMEM, -1,
     [](Ctx &c) { return c.next_after(c[EMPTY_NONE].map(&c.it, c.positions({0}))); }},
    {"project: source range past the end", NOTFOUND, -1,
     [](Ctx &c) {
         vel_seq_iterator_t src{};
         src.first_seq_no = src.next_seq_no = 5;
         src.last_seq_no = 9;
         const vel_seq_iterator_t copy = src;
         VEL_RET rc = c[NONE].project(&c.it, &src);
         if (std::memcmp(&copy, &src, sizeof src) != 0)
             c.extra = "project changed its source";
         return rc;
     }},
    // NONE's 10 null 30 is in order after DESC's 10; DESC's 30 20 is not after ASC's 30.
    {"store: tile with nulls into an ordered field", NUL, -1,
     [](Ctx &c) { return c.store_scan(NONE, DESC); }},
    {"store: tile against the declared order", OOO, -1,
     [](Ctx &c) { return c.store_scan(DESC, ASC); }},
    {"delete: from at the length", VEL_S_OK, -1, [](Ctx &c) { return c[ASC].del(3, 10); }},
    {"delete: till before from", VEL_S_OK, -1, [](Ctx &c) { return c[NONE].del(2, 1); }},
};

class BadInputCatalogue : public ::testing::TestWithParam<int> {};

TEST_P(BadInputCatalogue, EveryRefusalKeepsTheField) {
    const Family f = all_families()[GetParam()];
    std::vector<FieldSpec> fields;
    for (auto o : {VEL_SEQ_ASC_ORDER, VEL_SEQ_DESC_ORDER, VEL_SEQ_NO_ORDER, VEL_SEQ_ASC_ORDER,
                   VEL_SEQ_NO_ORDER})
        fields.push_back({f, o});
    VEL_RET rc;
    auto env = Env::open(EnvConfig{}, fields, &rc);
    ASSERT_TRUE(env) << "database could not be made: " << rc;
    Ctx c{*env, f, fields, {}, {}, {}};
    const vel_bitmap_word_t mid_null[1] = {2};
    ASSERT_EQ(c[ASC].append(pack(f, {10, 20, 30})), VEL_S_OK);
    ASSERT_EQ(c[DESC].append(pack(f, {30, 20, 10})), VEL_S_OK);
    ASSERT_EQ(c[NONE].append(pack(f, {10, 20, 30}), mid_null), VEL_S_OK);
    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
    const std::vector<SeqModel> before = read_all(*env, fields, true);
    ASSERT_EQ(before[NONE].nulls, (std::vector<uint8_t>{0, 1, 0}));
    int checked = 0;
    auto unchanged = [&] {
        ++checked;
        EXPECT_TRUE(read_all(*env, fields, true) == before) << "a field changed";
        ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    };

    for (const Update &u : kUpdates) {
        if (std::count(u.ks.begin(), u.ks.end(), -1) && !f.is_float)
            continue;
        SCOPED_TRACE("update row " + std::to_string(&u - kUpdates));
        const auto v = pack(f, u.ks);
        const Field fl = c[u.fi];
        EXPECT_EQ(u.pos < 0 ? fl.append(v, u.nulls, u.order)
                            : fl.insert(u.pos, v, u.nulls, u.order),
                  u.want);
        unchanged();
    }
    for (const Selection &s : kSelections) {
        SCOPED_TRACE("selection row " + std::to_string(&s - kSelections));
        c.it = {};
        const Field fl = c[s.fi];
        EXPECT_EQ(s.lk < 0 ? fl.subseq(&c.it, s.a, s.b)
                           : fl.search(&c.it, kth(f, s.a), vel_seq_boundary_kind_t(s.lk),
                                       kth(f, s.b), vel_seq_boundary_kind_t(s.hk)),
                  NOTFOUND);
        const uint64_t first = f.is_char ? 1 : s.typed_first;
        const std::vector<uint64_t> range = {c.it.first_seq_no, c.it.next_seq_no,
                                             c.it.last_seq_no + 1};
        EXPECT_EQ(range, std::vector<uint64_t>(3, first)) << "range left other than empty";
        if (range == std::vector<uint64_t>(3, first)) {
            EXPECT_EQ(c.it.next(&c.it), VEL_S_CURSOR_END) << "empty range delivered something";
        }
        unchanged();
    }
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        c.it = {};
        c.opd.reset();
        c.extra.clear();
        EXPECT_EQ(r.call(c), r.want);
        EXPECT_EQ(c.extra, "");
        if (r.bound >= 0) {
            EXPECT_EQ(c.opd->it.bounded, r.bound);
        }
        unchanged();
    }
    std::printf("[catalogue] %s: %d refused or empty-result inputs checked\n", f.name, checked);
}

INSTANTIATE_TEST_SUITE_P(AllFamilies, BadInputCatalogue,
                         ::testing::Range(0, static_cast<int>(all_families().size())),
                         [](const ::testing::TestParamInfo<int> &i) {
                             return std::string(all_families()[i.param].name);
                         });

} // namespace
} // namespace velrel
