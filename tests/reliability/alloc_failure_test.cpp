// Allocation-failure sweep: a scenario that runs every updating operation
// and every iterator set-up is repeated with the 1st, 2nd, ... page
// allocation failing, until it completes without meeting the failure.  Each
// time the failing call must return VEL_E_NOMEM, the trees must stay sound,
// rollback must restore the committed content exactly, and once everything
// is released no page may be live.
#include <functional>

#include "harness/driver.h"
#include "rel_util.h"

namespace velrel {
namespace {

enum { F_ASC = 0, F_NONE = 1, F_CHAR = 2, F_DBL = 3, F_EMPTY = 4 };

std::vector<FieldSpec> sweep_fields() {
    const auto &sc = scalar_families();
    return {{sc[2], VEL_SEQ_ASC_ORDER}, // int4
            {sc[9], VEL_SEQ_NO_ORDER},  // double
            {char_family(5), VEL_SEQ_ASC_ORDER},
            {sc[9], VEL_SEQ_NO_ORDER},  // double, store target
            {sc[2], VEL_SEQ_NO_ORDER}}; // int4, starts empty
}

std::vector<uint8_t> run_of(const Family &f, int from, int n) {
    std::vector<uint8_t> v;
    for (int i = 0; i < n; ++i) {
        auto e = kth(f, from + i / 7); // runs of equal values
        v.insert(v.end(), e.begin(), e.end());
    }
    return v;
}

struct Step {
    const char *name;
    bool tree_sound_after_failure; // delete leaves parent counts unadjusted
    bool allocates;                // must meet an injected failure in the sweep
    std::function<VEL_RET(Env &, const std::vector<FieldSpec> &)> run;
};

std::vector<Step> scenario() {
    std::vector<Step> s;
    auto app = [](int fi, int from, int n, vel_seq_order_t o) {
        return [=](Env &e, const std::vector<FieldSpec> &f) {
            auto v = run_of(f[fi].fam, from, n);
            const FieldLoc &l = e.loc(fi);
            return f[fi].fam.append(e.obj(), l.u, l.c, l.fld_no, v.data(), n, o, nullptr,
                                    f[fi].fam.width);
        };
    };
    s.push_back(
        {"append across several leaves", true, true, app(F_ASC, 60, 300, VEL_SEQ_ASC_ORDER)});
    s.push_back({"append to an empty field", true, true, app(F_EMPTY, 0, 90, VEL_SEQ_NO_ORDER)});
    s.push_back({"insert into the middle (splits)", true, true, [](Env &e, auto &f) {
                     auto v = run_of(f[F_NONE].fam, 3, 120);
                     vel_bitmap_word_t nb[2] = {0x5555, 0x1};
                     const FieldLoc &l = e.loc(F_NONE);
                     return f[F_NONE].fam.insert(e.obj(), l.u, l.c, l.fld_no, 17, v.data(), 120,
                                                 VEL_SEQ_NO_ORDER, nb, 8);
                 }});
    s.push_back({"insert into an ordered char field", true, true, [](Env &e, auto &f) {
                     auto v = run_of(f[F_CHAR].fam, 0, 1);
                     std::memcpy(v.data(), "00000", 5); // equal to its left neighbour
                     const FieldLoc &l = e.loc(F_CHAR);
                     return f[F_CHAR].fam.insert(e.obj(), l.u, l.c, l.fld_no, 1, v.data(), 1,
                                                 VEL_SEQ_ASC_ORDER, nullptr, 5);
                 }});
    s.push_back({"delete a middle range", false, true, [](Env &e, auto &f) {
                     const FieldLoc &l = e.loc(F_NONE);
                     return f[F_NONE].fam.del(e.obj(), l.u, l.c, l.fld_no, 40, 160,
                                              VEL_SEQ_NO_ORDER, 8);
                 }});
    s.push_back({"delete the front of an ordered field", false, true, [](Env &e, auto &f) {
                     const FieldLoc &l = e.loc(F_ASC);
                     return f[F_ASC].fam.del(e.obj(), l.u, l.c, l.fld_no, 0, 25, VEL_SEQ_ASC_ORDER,
                                             4);
                 }});
    s.push_back({"iterator set-ups", true, false, [](Env &e, auto &f) {
                     auto it = std::make_unique<vel_seq_iterator_t>();
                     auto it2 = std::make_unique<vel_seq_iterator_t>();
                     const FieldLoc &a = e.loc(F_ASC), &n = e.loc(F_NONE), &c = e.loc(F_CHAR);
                     VEL_RET rc = f[F_NONE].fam.subseq(e.obj(), n.u, n.c, it.get(), 5, 50, 8);
                     if (rc != VEL_S_OK)
                         return rc;
                     auto lo = kth(f[F_ASC].fam, 10);
                     rc = f[F_ASC].fam.search(e.obj(), a.u, a.c, it.get(), lo.data(),
                                              VEL_SEQ_BOUNDARY_INCLUSIVE, lo.data(),
                                              VEL_SEQ_BOUNDARY_OPEN, VEL_SEQ_ASC_ORDER, 4);
                     if (rc != VEL_S_OK)
                         return rc;
                     rc = f[F_NONE].fam.project(e.obj(), n.u, n.c, it2.get(), it.get(), 8);
                     if (rc != VEL_S_OK)
                         return rc;
                     VecIter pos;
                     pos.setup(VEL_DD_UINT8, 8);
                     pos.data.assign(8 * 3, 0);
                     rc = f[F_NONE].fam.map(e.obj(), n.u, n.c, it.get(), &pos.it, 8);
                     if (rc != VEL_S_OK || (rc = it->next(it.get())) != VEL_S_OK)
                         return rc;
                     VecIter vals;
                     vals.setup(VEL_DD_CHAR, 5);
                     vals.data.assign(5, '0');
                     rc = f[F_CHAR].fam.join(e.obj(), c.u, c.c, it.get(), &vals.it,
                                             VEL_SEQ_ASC_ORDER);
                     if (rc != VEL_S_OK || (rc = it->next(it.get())) != VEL_S_OK)
                         return rc;
                     return VEL_S_OK;
                 }});
    s.push_back({"store a scan into another field", true, true, [](Env &e, auto &f) {
                     auto it = std::make_unique<vel_seq_iterator_t>();
                     const FieldLoc &n = e.loc(F_NONE), &d = e.loc(F_DBL);
                     VEL_RET rc = f[F_NONE].fam.subseq(e.obj(), n.u, n.c, it.get(), 0, 399, 8);
                     if (rc != VEL_S_OK)
                         return rc;
                     return f[F_DBL].fam.store(e.obj(), d.u, d.c, d.fld_no, it.get(),
                                               VEL_SEQ_NO_ORDER, 8);
                 }});
    s.push_back({"truncate", true, false, [](Env &e, auto &) {
                     const FieldLoc &l = e.loc(F_CHAR);
                     return vel_w_seq_truncate(e.obj(), l.u, l.c, l.fld_no);
                 }});
    return s;
}

// Committed content the scenario starts from: several levels per field.
void build_base(Env &e, const std::vector<FieldSpec> &f) {
    auto asc = run_of(f[F_ASC].fam, 0, 420);
    auto dbl = run_of(f[F_NONE].fam, 0, 500);
    auto chr = run_of(f[F_CHAR].fam, 0, 300);
    vel_bitmap_word_t nb[8];
    for (int i = 0; i < 8; ++i)
        nb[i] = 0x8000000000000001ull >> i;
    for (auto [fi, v, n, o, b] :
         {std::tuple{F_ASC, &asc, 420, VEL_SEQ_ASC_ORDER, (vel_bitmap_word_t *)nullptr},
          std::tuple{F_NONE, &dbl, 500, VEL_SEQ_NO_ORDER, nb},
          std::tuple{F_CHAR, &chr, 300, VEL_SEQ_ASC_ORDER, (vel_bitmap_word_t *)nullptr},
          std::tuple{F_DBL, &dbl, 100, VEL_SEQ_NO_ORDER, nb}}) {
        const FieldLoc &l = e.loc(fi);
        ASSERT_EQ(
            f[fi].fam.append(e.obj(), l.u, l.c, l.fld_no, v->data(), n, o, b, f[fi].fam.width),
            VEL_S_OK);
    }
    ASSERT_EQ(e.commit_and_begin(), VEL_S_OK);
}

TEST(AllocFailure, SweepEveryAllocationOfTheScenario) {
    const auto fields = sweep_fields();
    const auto steps = scenario();
    uint64_t points = 0;
    std::vector<int> failures_per_step(steps.size(), 0);
    for (int variant = 0; variant < 2; ++variant) { // page manager with / without module copies
        for (uint64_t nth = 1;; ++nth) {
            SCOPED_TRACE("variant " + std::to_string(variant) + ", allocation " +
                         std::to_string(nth));
            EnvConfig cfg;
            cfg.seq_page_size = 256;
            cfg.alt_pm = variant == 1;
            VEL_RET rc;
            auto env = Env::open(cfg, fields, &rc);
            ASSERT_TRUE(env) << rc;
            build_base(*env, fields);
            if (HasFatalFailure())
                return;
            const std::vector<SeqModel> base = read_all(*env, fields, true);
            velh_fail_page_alloc(env->db(), nth, 0);
            int failed_at = -1;
            for (size_t k = 0; k < steps.size(); ++k) {
                rc = steps[k].run(*env, fields);
                if (rc != VEL_S_OK) {
                    failed_at = static_cast<int>(k);
                    break;
                }
            }
            velh_fail_page_alloc(env->db(), 0, 0);
            if (failed_at < 0) {
                // The injected failure was never reached: the sweep is complete.
                EXPECT_GT(nth, 10u) << "scenario allocates suspiciously few pages";
                read_all(*env, fields, false);
                EXPECT_EQ(env->release_all(), VEL_S_OK);
                EXPECT_EQ(env->live_pages(), 0u);
                break;
            }
            ++points;
            ++failures_per_step[failed_at];
            SCOPED_TRACE(std::string("failing step: ") + steps[failed_at].name);
            EXPECT_EQ(rc, VEL_E_NOMEM);
            if (steps[failed_at].tree_sound_after_failure)
                read_all(*env, fields, false);
            ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);
            EXPECT_TRUE(read_all(*env, fields, true) == base) << "content differs after rollback";
            EXPECT_EQ(env->release_all(), VEL_S_OK);
            EXPECT_EQ(env->live_pages(), 0u);
            if (HasFailure())
                return;
            ASSERT_LT(nth, 5000u) << "sweep does not terminate";
        }
    }
    std::printf("[alloc-sweep] %llu allocation points failed and recovered; per step:",
                (unsigned long long)points);
    for (size_t k = 0; k < steps.size(); ++k)
        std::printf(" %s=%d;", steps[k].name, failures_per_step[k]);
    std::printf("\n");
    RecordProperty("allocation_points", static_cast<int>(points));
    // Every updating step must have met an injected failure at least once.
    for (size_t k = 0; k < steps.size(); ++k) {
        if (steps[k].allocates)
            EXPECT_GT(failures_per_step[k], 0) << steps[k].name;
        else
            EXPECT_EQ(failures_per_step[k], 0) << steps[k].name;
    }
}

} // namespace
} // namespace velrel
