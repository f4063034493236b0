// Page allocation failures: each allocation of an operation fails in turn.
// The operation returns the code, the tree stays well-formed, and rolling
// back leaves exactly the pages the database had before.
#include "test_util.h"

#include <functional>

namespace vstest {
namespace {

struct Scenario {
    std::string name;
    uint32_t page_size;
    std::string family;
    size_t base; // elements committed before the operation (shared pages)
    // A delete that fails after changing one child leaves the counts above
    // it unadjusted (the transaction is rolled back), so its tree is only
    // checked after the rollback.
    bool check_tree_after_failure;
    std::function<VEL_RET(const FamilyOps &, vel_objhandle_h, const FieldRef &,
                          const std::vector<uint8_t> &, SeqModel &)>
        op;
};

void PrintTo(const Scenario &sc, std::ostream *os) { *os << sc.name; }

class FaultInjection : public ::testing::TestWithParam<Scenario> {};

TEST_P(FaultInjection, EveryAllocationFailureIsReportedAndRolledBack) {
    const Scenario &sc = GetParam();
    const FamilyOps &fam = family(sc.family);
    SeqDb sdb(DbOptions{.seq_page_size = sc.page_size});
    FieldRef f = sdb.field(fam);
    std::mt19937_64 rng(2024);
    auto vals = random_values(fam, rng, sc.base + 4000);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    vel_objhandle_t obj = sdb.new_object();
    const uint64_t oid = obj.oid;
    SeqModel base(fam.elem_size);
    if (sc.base > 0) {
        ASSERT_EQ(fam.append(&obj, f, vals.data(), sc.base, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
        base.append(vals.data(), sc.base, nullptr);
    }
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    const uint64_t live = sdb.stats().live;

    int failures = 0;
    for (uint64_t nth = 1; nth < 200; nth++) {
        SCOPED_TRACE("allocation " + std::to_string(nth) + " fails");
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
        SeqModel m = base;
        velh_fail_page_alloc(sdb.db(), nth, 0);
        VEL_RET rc = sc.op(fam, &obj, f, vals, m);
        velh_fail_page_alloc(sdb.db(), 0, 0);
        if (rc == VEL_S_OK) {
            expect_matches(fam, &obj, f, m, VEL_SEQ_NO_ORDER);
            ASSERT_EQ(sdb.commit(), VEL_S_OK);
            EXPECT_GT(failures, 0) << "the operation allocated nothing";
            return;
        }
        failures++;
        EXPECT_EQ(rc, VEL_E_NOMEM);
        if (sc.check_tree_after_failure) {
            TreeReport r = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
            EXPECT_TRUE(r.ok()) << r.error;
        }
        ASSERT_EQ(sdb.rollback(), VEL_S_OK);
        ASSERT_EQ(sdb.stats().live, live) << "pages leaked";
        ASSERT_EQ(sdb.begin_read(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
        TreeReport r = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
        ASSERT_TRUE(r.ok()) << r.error;
        ASSERT_EQ(base.diff(r.contents), "") << "rollback did not restore the field";
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
    }
    FAIL() << "the operation never succeeded";
}

VEL_RET append_op(size_t from, size_t n, const FamilyOps &fam, vel_objhandle_h obj,
                  const FieldRef &f, const std::vector<uint8_t> &vals, SeqModel &m) {
    const uint8_t *p = vals.data() + from * fam.elem_size;
    m.append(p, n, nullptr);
    return fam.append(obj, f, p, n, VEL_SEQ_NO_ORDER, nullptr);
}

const Scenario kScenarios[] = {
    {"AppendToEmpty", 1024, "int8", 0, true,
     [](auto &fam, auto obj, auto &f, auto &vals, auto &m) {
         return append_op(0, 700, fam, obj, f, vals, m);
     }},
    {"AppendGrowsThirdLevel", 1024, "int8", 124 * 63 - 10, true,
     [](auto &fam, auto obj, auto &f, auto &vals, auto &m) {
         return append_op(124 * 63 - 10, 400, fam, obj, f, vals, m);
     }},
    {"InsertSplitsLeavesAndInnerPages", 1024, "int4", 244 * 63, true,
     [](auto &fam, auto obj, auto &f, auto &vals, auto &m) {
         const uint8_t *p = vals.data() + 244 * 63 * 4;
         m.insert(5000, p, 600, nullptr);
         return fam.insert(obj, f, 5000, p, 600, VEL_SEQ_NO_ORDER, nullptr);
     }},
    {"InsertIntoEmpty", 4096, "char16", 0, true,
     [](auto &fam, auto obj, auto &f, auto &vals, auto &m) {
         m.insert(0, vals.data(), 600, nullptr);
         return fam.insert(obj, f, 0, vals.data(), 600, VEL_SEQ_NO_ORDER, nullptr);
     }},
    {"DeleteInsideOneLeaf", 1024, "uint2", 474 * 70, true,
     [](auto &fam, auto obj, auto &f, auto &, auto &m) {
         m.erase(20000, 20010);
         return fam.remove(obj, f, 20000, 20010, VEL_SEQ_NO_ORDER);
     }},
    // Leaves of 474: 948..1421 is trimmed, 1422..1895 loses its head.
    {"DeleteAcrossTwoLeaves", 1024, "uint2", 474 * 70, false,
     [](auto &fam, auto obj, auto &f, auto &, auto &m) {
         m.erase(1300, 1500);
         return fam.remove(obj, f, 1300, 1500, VEL_SEQ_NO_ORDER);
     }},
    // The second leaf is freed whole and the walk ends there, so no copy
    // can fail after a freed child whose entry is still in its parent.
    {"DeleteFreesTheLastLeafOfTheRange", 1024, "uint2", 474 * 70, false,
     [](auto &fam, auto obj, auto &f, auto &, auto &m) {
         m.erase(1300, 1895);
         return fam.remove(obj, f, 1300, 1895, VEL_SEQ_NO_ORDER);
     }},
};

INSTANTIATE_TEST_SUITE_P(Ops, FaultInjection, ::testing::ValuesIn(kScenarios),
                         [](const auto &info) { return info.param.name; });

} // namespace
} // namespace vstest
