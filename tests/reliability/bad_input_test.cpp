// Refused inputs the differential driver never makes (it checks every other
// refusal's code and untouched fields on each random run), for every element
// family: the code returned, the operand's bound flag, and the content of
// every field (read from its pages) unchanged.
#include <algorithm>
#include <functional>
#include <memory>

#include <cstdio>

#include "harness/driver.h"
#include "seq_fixture.h"

namespace velrel {
namespace {

// ASC holds 10 20 30, DESC 30 20 10, NONE 10 null 30.
enum { ASC, DESC, NONE };
constexpr VEL_RET OOO = VEL_E_SEQ_OUT_OF_ORDER;

// An append (pos < 0) or insert of values k (-1: NaN, float families only)
// with an order override (-1: the declared one).
struct Update {
    int fi, pos;
    std::vector<int> ks;
    int order;
    VEL_RET want;
};
const Update kUpdates[] = {
    // order values other than 0, 1, 2 on a non-empty field
    {ASC, -1, {40}, 3, OOO},
    {DESC, -1, {5}, 7, OOO},
    {ASC, 3, {40}, 3, OOO},
    // NaN into an ordered field
    {ASC, -1, {-1}, -1, OOO},
    {ASC, 1, {-1}, -1, OOO},
};

// Operands of a join or map: values of the family, or positions (uint8
// unless `type` says otherwise), bound already when `bound`.
struct Ctx {
    Env &env;
    const Family &f;
    vel_seq_iterator_t it{};
    std::unique_ptr<VecIter> opd;

    Field operator[](int i) { return env.field(i); }
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
};

// A set-up refused with `want`; `unbound`: its operand must be left unbound.
struct Row {
    const char *name;
    VEL_RET want;
    bool unbound;
    std::function<VEL_RET(Ctx &)> call;
};
const Row kRows[] = {
    {"join: field declared without order", VEL_E_ILLEGAL_PARAM, true,
     [](Ctx &c) { return c[NONE].join(&c.it, c.values({10})); }},
    {"join: operand already bound", VEL_E_SEQ_BOUNDED, false,
     [](Ctx &c) { return c[ASC].join(&c.it, c.values({10}, true)); }},
    {"map: positions of another element type", VEL_E_ILLEGAL_TYPE, true,
     [](Ctx &c) { return c[ASC].map(&c.it, c.positions({0}, false, VEL_DD_INT8)); }},
    {"map: positions already bound", VEL_E_SEQ_BOUNDED, false,
     [](Ctx &c) { return c[ASC].map(&c.it, c.positions({0}, true)); }},
};

class BadInputCatalogue : public ::testing::TestWithParam<int> {};

TEST_P(BadInputCatalogue, EveryRefusalKeepsTheField) {
    const Family f = all_families()[GetParam()];
    std::vector<FieldSpec> fields;
    for (auto o : {VEL_SEQ_ASC_ORDER, VEL_SEQ_DESC_ORDER, VEL_SEQ_NO_ORDER})
        fields.push_back({f, o});
    auto env = must_open({}, fields);
    Ctx c{*env, f, {}, {}};
    const vel_bitmap_word_t mid_null[1] = {2};
    ASSERT_EQ(c[ASC].append(pack(f, {10, 20, 30})), VEL_S_OK);
    ASSERT_EQ(c[DESC].append(pack(f, {30, 20, 10})), VEL_S_OK);
    ASSERT_EQ(c[NONE].append(pack(f, {10, 20, 30}), mid_null), VEL_S_OK);
    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
    const std::vector<SeqModel> before = read_all(*env, true);
    ASSERT_EQ(before[NONE].nulls, (std::vector<uint8_t>{0, 1, 0}));
    int checked = 0;
    auto unchanged = [&] {
        ++checked;
        EXPECT_TRUE(read_all(*env, true) == before) << "a field changed";
        ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    };

    for (const Update &u : kUpdates) {
        if (std::count(u.ks.begin(), u.ks.end(), -1) && !f.is_float)
            continue;
        SCOPED_TRACE("update row " + std::to_string(&u - kUpdates));
        const auto v = pack(f, u.ks);
        const Field fl = c[u.fi];
        EXPECT_EQ(u.pos < 0 ? fl.append(v, nullptr, u.order)
                            : fl.insert(u.pos, v, nullptr, u.order),
                  u.want);
        unchanged();
    }
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        c.it = {};
        EXPECT_EQ(r.call(c), r.want);
        if (r.unbound) {
            EXPECT_FALSE(c.opd->it.bounded);
        }
        unchanged();
    }
    std::printf("[catalogue] %s: %d refused inputs checked\n", f.name, checked);
}

INSTANTIATE_TEST_SUITE_P(AllFamilies, BadInputCatalogue,
                         ::testing::Range(0, static_cast<int>(all_families().size())),
                         [](const ::testing::TestParamInfo<int> &i) {
                             return std::string(all_families()[i.param].name);
                         });

} // namespace
} // namespace velrel
