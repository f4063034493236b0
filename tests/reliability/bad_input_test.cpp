// Refused inputs the differential driver never makes (it checks every other
// refusal's code and untouched fields on each random run), for every element
// family: the code returned, the operand's bound flag, and the content of
// every field (read from its pages) unchanged.
#include <algorithm>
#include <memory>

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

// A join (operand: the family's values) or map (operand: positions of
// `type`) set-up refused with `want`; an operand not bound before must stay
// unbound.
struct Row {
    const char *name;
    bool join;
    int fi;
    uint8_t type;
    bool bound;
    VEL_RET want;
};
const Row kRows[] = {
    {"join: field declared without order", true, NONE, 0, false, VEL_E_ILLEGAL_PARAM},
    {"join: operand already bound", true, ASC, 0, true, VEL_E_SEQ_BOUNDED},
    {"map: positions of another element type", false, ASC, VEL_DD_INT8, false, VEL_E_ILLEGAL_TYPE},
    {"map: positions already bound", false, ASC, VEL_DD_UINT8, true, VEL_E_SEQ_BOUNDED},
};

class BadInputCatalogue : public ::testing::TestWithParam<int> {};

TEST_P(BadInputCatalogue, EveryRefusalKeepsTheField) {
    const Family f = all_families()[GetParam()];
    std::vector<FieldSpec> fields;
    for (auto o : {VEL_SEQ_ASC_ORDER, VEL_SEQ_DESC_ORDER, VEL_SEQ_NO_ORDER})
        fields.push_back({f, o});
    auto env = must_open({}, fields);
    const vel_bitmap_word_t mid_null[1] = {2};
    ASSERT_EQ(env->field(ASC).append(pack(f, {10, 20, 30})), VEL_S_OK);
    ASSERT_EQ(env->field(DESC).append(pack(f, {30, 20, 10})), VEL_S_OK);
    ASSERT_EQ(env->field(NONE).append(pack(f, {10, 20, 30}), mid_null), VEL_S_OK);
    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
    const std::vector<SeqModel> before = read_all(*env, true);
    ASSERT_EQ(before[NONE].nulls, (std::vector<uint8_t>{0, 1, 0}));
    auto unchanged = [&] {
        EXPECT_TRUE(read_all(*env, true) == before) << "a field changed";
        ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    };

    for (const Update &u : kUpdates) {
        if (std::count(u.ks.begin(), u.ks.end(), -1) && !f.is_float)
            continue;
        SCOPED_TRACE("update row " + std::to_string(&u - kUpdates));
        const auto v = pack(f, u.ks);
        const Field fl = env->field(u.fi);
        EXPECT_EQ(u.pos < 0 ? fl.append(v, nullptr, u.order)
                            : fl.insert(u.pos, v, nullptr, u.order),
                  u.want);
        unchanged();
    }
    for (const Row &r : kRows) {
        SCOPED_TRACE(r.name);
        const Family of = r.join ? f : family_of(VEL_DD_UINT8);
        auto opd = std::make_unique<VecIter>();
        opd->setup(r.join ? f.elem_type : r.type, static_cast<uint16_t>(of.width));
        opd->data = pack(of, {r.join ? 10 : 0});
        opd->it.bounded = r.bound;
        auto it = std::make_unique<vel_seq_iterator_t>();
        const Field fl = env->field(r.fi);
        EXPECT_EQ(r.join ? fl.join(it.get(), &opd->it) : fl.map(it.get(), &opd->it), r.want);
        if (!r.bound) {
            EXPECT_FALSE(opd->it.bounded);
        }
        unchanged();
    }
}

INSTANTIATE_TEST_SUITE_P(AllFamilies, BadInputCatalogue,
                         ::testing::Range(0, static_cast<int>(all_families().size())),
                         [](const ::testing::TestParamInfo<int> &i) {
                             return std::string(all_families()[i.param].name);
                         });

} // namespace
} // namespace velrel
