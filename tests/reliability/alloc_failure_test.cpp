// Allocation-failure sweep: a scenario that runs every updating operation
// and every iterator set-up is repeated with the 1st, 2nd, ... page
// allocation failing, until it completes without meeting the failure.  Each
// time the failing call must return VEL_E_NOMEM, the trees must stay sound,
// a commit must be refused, rollback must restore the committed content
// exactly, and once everything is released no page may be live.
#include <cstdio>
#include <functional>

#include "harness/driver.h"
#include "seq_fixture.h"

namespace velrel {
namespace {

enum { F_ASC, F_NONE, F_CHAR, F_DBL, F_EMPTY };
const std::vector<FieldSpec> kFields = {{family_of(VEL_DD_INT4), VEL_SEQ_ASC_ORDER},
                                        {family_of(VEL_DD_DOUBLE), VEL_SEQ_NO_ORDER},
                                        {char_family(5), VEL_SEQ_ASC_ORDER},
                                        {family_of(VEL_DD_DOUBLE), VEL_SEQ_NO_ORDER},
                                        {family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER}};

// n values from the from-th on, in runs of 7 equal ones.
std::vector<uint8_t> run_of(int fi, int from, int n) {
    std::vector<uint8_t> v;
    for (int i = 0; i < n; ++i) {
        auto e = kth(kFields[fi].fam, from + i / 7);
        v.insert(v.end(), e.begin(), e.end());
    }
    return v;
}

struct Step {
    const char *name;
    bool sound_after_failure; // a failed delete leaves parent counts unadjusted
    bool allocates;           // must meet an injected failure in the sweep
    std::function<VEL_RET(Env &)> run;
};
const vel_bitmap_word_t kNulls[2] = {0x5555, 0x1};

const Step kSteps[] = {
    {"append across several leaves", true, true,
     [](Env &e) { return e.field(F_ASC).append(run_of(F_ASC, 60, 300)); }},
    {"append to an empty field", true, true,
     [](Env &e) { return e.field(F_EMPTY).append(run_of(F_EMPTY, 0, 90)); }},
    {"insert into the middle (splits)", true, true,
     [](Env &e) { return e.field(F_NONE).insert(17, run_of(F_NONE, 3, 120), kNulls); }},
    {"insert into an ordered char field, equal to its left neighbour", true, true,
     [](Env &e) { return e.field(F_CHAR).insert(1, run_of(F_CHAR, 0, 1)); }},
    {"delete a middle range", false, true, [](Env &e) { return e.field(F_NONE).del(40, 160); }},
    {"delete the front of an ordered field", false, true,
     [](Env &e) { return e.field(F_ASC).del(0, 25); }},
    {"iterator set-ups", true, false,
     [](Env &e) {
         auto it = std::make_unique<vel_seq_iterator_t>(),
              it2 = std::make_unique<vel_seq_iterator_t>();
         VecIter pos, vals;
         pos.setup(VEL_DD_UINT8, 8);
         pos.data.assign(8 * 3, 0);
         vals.setup(VEL_DD_CHAR, 5);
         vals.data.assign(5, '0');
         const auto lo = kth(kFields[F_ASC].fam, 10);
         VEL_RET rc;
         (void)((rc = e.field(F_NONE).subseq(it.get(), 5, 50)) == VEL_S_OK &&
                (rc = e.field(F_ASC).search(it.get(), lo.data(), VEL_SEQ_BOUNDARY_INCLUSIVE,
                                            lo.data(), VEL_SEQ_BOUNDARY_OPEN)) == VEL_S_OK &&
                (rc = e.field(F_NONE).project(it2.get(), it.get())) == VEL_S_OK &&
                (rc = e.field(F_NONE).map(it.get(), &pos.it)) == VEL_S_OK &&
                (rc = it->next(it.get())) == VEL_S_OK &&
                (rc = e.field(F_CHAR).join(it.get(), &vals.it)) == VEL_S_OK &&
                (rc = it->next(it.get())) == VEL_S_OK);
         return rc;
     }},
    {"store a scan into another field", true, true,
     [](Env &e) {
         auto it = std::make_unique<vel_seq_iterator_t>();
         VEL_RET rc = e.field(F_NONE).subseq(it.get(), 0, 399);
         return rc != VEL_S_OK ? rc : e.field(F_DBL).store(it.get());
     }},
    {"truncate", true, false,
     [](Env &e) {
         const FieldLoc &l = e.loc(F_CHAR);
         return vel_w_seq_truncate(e.obj(), l.u, l.c, l.fld_no);
     }},
};

// Committed content the scenario starts from: several levels per field.
void build_base(Env &e) {
    vel_bitmap_word_t nb[8];
    for (int i = 0; i < 8; ++i)
        nb[i] = 0x8000000000000001ull >> i;
    const auto dbl = run_of(F_NONE, 0, 500);
    ASSERT_EQ(e.field(F_ASC).append(run_of(F_ASC, 0, 420)), VEL_S_OK);
    ASSERT_EQ(e.field(F_NONE).append(dbl, nb), VEL_S_OK);
    ASSERT_EQ(e.field(F_CHAR).append(run_of(F_CHAR, 0, 300)), VEL_S_OK);
    ASSERT_EQ(e.field(F_DBL).append({dbl.begin(), dbl.begin() + 100 * 8}, nb), VEL_S_OK);
    ASSERT_EQ(e.commit_and_begin(), VEL_S_OK);
}

TEST(AllocFailure, SweepEveryAllocationOfTheScenario) {
    const size_t n_steps = std::size(kSteps);
    std::vector<int> failures(n_steps, 0);
    for (int variant = 0; variant < 2; ++variant) { // page manager with / without module copies
        for (uint64_t nth = 1;; ++nth) {
            SCOPED_TRACE("variant " + std::to_string(variant) + ", allocation " +
                         std::to_string(nth));
            auto env = must_open({.seq_page_size = 256, .alt_pm = variant == 1}, kFields);
            build_base(*env);
            if (HasFatalFailure())
                return;
            const std::vector<SeqModel> base = read_all(*env, true);
            velh_fail_page_alloc(env->db(), nth, 0);
            std::vector<SeqModel> before = base; // content before the running step
            size_t k = 0;
            VEL_RET rc = VEL_S_OK;
            for (; k < n_steps && (rc = kSteps[k].run(*env)) == VEL_S_OK; ++k)
                if (nth % 2 == 1)
                    before = read_all(*env, false);
            velh_fail_page_alloc(env->db(), 0, 0);
            if (k == n_steps) { // the injected failure was never reached: done
                EXPECT_GT(nth, 10u) << "scenario allocates suspiciously few pages";
                read_all(*env, false);
            } else {
                ++failures[k];
                SCOPED_TRACE(std::string("failing step: ") + kSteps[k].name);
                EXPECT_EQ(rc, VEL_E_NOMEM);
                if (kSteps[k].sound_after_failure)
                    read_all(*env, false);
                // The failed step changed nothing (a copy refused before the
                // module ran) or it dooms the transaction: the commit keeps
                // the content before the step or rolls back to the base.
                bool kept = false;
                if (nth % 2 == 1) {
                    rc = env->commit_and_begin();
                    EXPECT_TRUE(rc == VEL_S_OK || rc == VEL_E_HOST_TRANS_FAILED) << rc;
                    kept = rc == VEL_S_OK;
                }
                ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
                EXPECT_TRUE(read_all(*env, !kept) == (kept ? before : base)) << "not as committed";
            }
            EXPECT_EQ(env->release_all(), VEL_S_OK);
            EXPECT_EQ(env->live_pages(), 0u);
            if (HasFailure())
                return;
            if (k == n_steps)
                break;
            ASSERT_LT(nth, 5000u) << "sweep does not terminate";
        }
    }
    // Exactly the updating steps met an injected failure.
    std::printf("[alloc-sweep] failed allocations by step:");
    for (size_t k = 0; k < n_steps; ++k) {
        EXPECT_EQ(failures[k] > 0, kSteps[k].allocates) << kSteps[k].name;
        std::printf("%s %s %d", k ? "," : "", kSteps[k].name, failures[k]);
    }
    std::printf("\n");
}

// Single inserts at one spot deepen the tree until it can grow no more and
// the module traps before the split.  With a handler that unwinds, the
// transaction must not commit, and nothing may outlive its release.
TEST(AllocFailure, TrapInAnInsertDoomsItsTransaction) {
    const std::vector<FieldSpec> field = {{family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER}};
    auto env = must_open({.seq_page_size = 128}, field);
    const Field f = env->field(0);
    ASSERT_EQ(f.append(run_of(F_EMPTY, 0, 2000)), VEL_S_OK);
    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
    const std::vector<SeqModel> base = read_all(*env, true);
    velh_set_trap_handler(throwing_trap, nullptr);
    int inserts = 0;
    try {
        for (; inserts < 1000000; ++inserts)
            ASSERT_EQ(f.insert(1000, run_of(F_EMPTY, inserts, 1)), VEL_S_OK);
    } catch (const TrapHit &) {
    }
    velh_set_trap_handler(nullptr, nullptr);
    ASSERT_LT(inserts, 1000000) << "the tree never reached its depth limit";
    // It trapped only at the limit, and changed nothing: no value was cut.
    SeqModel now = base[0];
    for (int i = 0; i < inserts; ++i)
        now.insert(1000, run_of(F_EMPTY, i, 1).data(), 1, nullptr, 0);
    const TreeInfo ti = checked(f, true);
    EXPECT_EQ(ti.depth, VEL_SEQ_MAX_DEPTH);
    EXPECT_EQ(ti.page_list[0]->hdr.user,
              field[0].fam.inner_capacity(env->page_size(), field[0].order));
    EXPECT_TRUE(ti.content == now);
    EXPECT_EQ(env->commit_and_begin(), VEL_E_HOST_TRANS_FAILED);
    ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
    EXPECT_TRUE(read_all(*env, true) == base);
    EXPECT_EQ(env->release_all(), VEL_S_OK);
    EXPECT_EQ(env->live_pages(), 0u);
}

} // namespace
} // namespace velrel
