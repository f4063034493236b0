// Late single-value inserts, each followed by velh_keep_compact: the host
// repairs the tree where it degraded, also under snapshots and failing page
// allocations.  (The raw path's trap at the depth limit is the allocation
// failure tests'; compaction and keep-compact's limits are also checked by
// the differential driver.)
#include <gtest/gtest.h>

#include <random>

#include "seq_fixture.h"
#include "storage/field_root.h"

namespace velrel {
namespace {

// Single inserts (and, at random places, deletes) each followed by
// velh_keep_compact, under a snapshot of the committed field, with page
// allocations failing in some calls.  After each call the tree is sound and
// within the policy's limits, and holds the model; a refused call changed
// nothing; the snapshot keeps the committed values; nothing leaks.
TEST(KeepCompact, LocalRepairsKeepTheTreeSoundWithinLimitsAndShared) {
    const std::vector<FieldSpec> fields = {{family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER},
                                           {family_of(VEL_DD_INT8), VEL_SEQ_ASC_ORDER}};
    int refused = 0;
    for (int run = 0; run < 6; ++run) {
        const int pattern = run / 2, fi = run % 2; // one place, random places, the end
        SCOPED_TRACE("pattern " + std::to_string(pattern) + ", field " + std::to_string(fi));
        auto env = must_open({.seq_page_size = 256, .alt_pm = pattern == 2}, fields);
        const FieldSpec &fs = fields[fi];
        const FieldLoc &l = env->loc(fi);
        const Field f = env->field(fi);
        auto content = [&](vel_objhandle_h obj, bool exact) { // both tree checkers
            velh_tree_report_t rep{};
            EXPECT_EQ(velh_check_tree(obj, l.fld_no, fs.order, exact, &rep), VEL_S_OK);
            EXPECT_TRUE(rep.ok) << rep.message;
            return checked(env->field(fi, obj), exact).content;
        };
        const bool ordered = fs.order != VEL_SEQ_NO_ORDER;
        SeqModel m = SeqModel::of_width(fs.fam.width);
        std::vector<vel_bitmap_word_t> nb(94); // every fifth value null when unordered
        for (uint64_t k = 0; k < 6000; ++k) {
            nb[k / 64] |= uint64_t(!ordered && k % 5 == 0) << k % 64;
            m.insert(k, &k, 1, &nb[k / 64], k % 64); // ascending (little-endian integers)
        }
        ASSERT_EQ(f.append(m.vals.data(), m.size(), nb.data()), VEL_S_OK);
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
        ASSERT_EQ(env->snapshot_open(0), VEL_S_OK);
        const SeqModel committed = m;
        SeqModel cut = m;
        velh_compact_state_t st{};
        std::mt19937 rng(run);
        bool exact = true;
        vel_seq_page_t *root, *root_after;
        for (int k = 0; k < 3000 && !::testing::Test::HasFailure(); ++k) {
            const bool del = pattern == 1 && k % 3 == 2;
            uint64_t pos = pattern == 0   ? 3000
                           : pattern == 1 ? 1 + rng() % (m.size() - 1)
                                          : m.size() - rng() % 8;
            std::vector<uint8_t> v(m.at(pos - 1), m.at(pos - 1) + m.w); // in order
            if (del) { // once all but 20 values (roots of one child), then a commit
                const uint64_t till = k == 1001 ? m.size() - 1 : pos;
                pos = k == 1001 ? 20 : pos;
                ASSERT_EQ(f.del(pos, till), VEL_S_OK);
                m.erase(pos, till);
                exact = !ordered;
                if (k == 1001) { // the next call repairs pages another snapshot shares
                    ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
                    ASSERT_EQ(env->snapshot_open(1), VEL_S_OK);
                    cut = m;
                }
            } else {
                const vel_bitmap_word_t null = !ordered && k % 4 == 0;
                ASSERT_EQ(f.insert(pos, v.data(), 1, &null), VEL_S_OK);
                m.insert(pos, v.data(), 1, &null, 0);
            }
            velh_field_shape_t sh{};
            ASSERT_EQ(f.root(&root), VEL_S_OK);
            if (k % 5 == 4)
                velh_fail_page_alloc(env->db(), 1 + k % 3, 0);
            const VEL_RET rc = velh_keep_compact(env->obj(), l.fld_no, fs.order, 1, &st);
            velh_fail_page_alloc(env->db(), 0, 0);
            ASSERT_EQ(f.root(&root_after), VEL_S_OK);
            ASSERT_EQ(velh_field_shape(env->obj(), l.fld_no, fs.order, &sh), VEL_S_OK);
            refused += rc == VEL_E_NOMEM;
            ASSERT_TRUE(rc == VEL_S_OK || (rc == VEL_E_NOMEM && root_after == root)) << rc;
            EXPECT_TRUE(rc != VEL_S_OK ||
                        (sh.depth <= VELH_COMPACT_MAX_DEPTH && sh.pages <= 2 * sh.dense_pages));
            if (k % 64 == 0 || root_after != root || rc != VEL_S_OK) {
                EXPECT_TRUE(content(env->obj(), exact) == m) << "update " << k;
            }
        }
        EXPECT_TRUE(content(env->snapshot_obj(0), true) == committed);
        EXPECT_TRUE(pattern != 1 || content(env->snapshot_obj(1), false) == cut);
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
        env->snapshot_close(0); // the versions they held go; the last one stays whole
        env->snapshot_close(1);
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
        EXPECT_TRUE(content(env->obj(), exact) == m);
        ASSERT_EQ(env->release_all(), VEL_S_OK);
        EXPECT_EQ(env->live_pages(), 0u);
    }
    EXPECT_GT(refused, 10) << "too few repairs met an allocation failure";
}

} // namespace
} // namespace velrel
