// Page accounting, which no model sees: pages freed by deletes and prune,
// and the pool reused across transactions.
#include <gtest/gtest.h>

#include "seq_fixture.h"
#include "storage/page_format.h"

#include <set>

namespace velrel {
namespace {

// Page accounting follows the tree (256-byte pages: 58 int4 a leaf, 15
// children an inner page): a delete that empties an inner page frees it with
// its leaves, a prune that fails still leaves the field empty, and repeated
// transactions reuse the pages earlier ones freed instead of new memory.
TEST(PageAccounting, LivePagesFollowTheTreeAndMemoryStaysFlat) {
    auto env = must_open({.seq_page_size = 256}, {{family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER}});
    const Field f = env->field(0);
    const std::vector<vel_int4> v(3000, 7);
    auto append = [&] { return f.append(v.data(), v.size()); };
    auto truncate = [&] { return vel_w_seq_truncate(f.obj, f.l.u, f.l.c, f.l.fld_no); };
    auto pages_match = [&](int depth) {
        TreeInfo r = checked(f, false);
        EXPECT_EQ(r.depth, depth);
        EXPECT_EQ(env->live_pages(), r.page_list.size());
        return r;
    };
    ASSERT_EQ(append(), VEL_S_OK);
    TreeInfo r = pages_match(3);
    const uint64_t c0 = velseq::inner_entry(r.page_list[0], 256, 0)->count;
    const uint64_t c1 = velseq::inner_entry(r.page_list[0], 256, 1)->count;
    ASSERT_EQ(f.del(c0, c0 + c1 - 1), VEL_S_OK);
    pages_match(3);
    ASSERT_EQ(f.del(0, 5000), VEL_S_OK);
    pages_match(0);

    ASSERT_EQ(append(), VEL_S_OK);
    velh_fail_prune(env->db(), 1);
    EXPECT_EQ(truncate(), VEL_E_NOMEM);
    velh_fail_prune(env->db(), 0);
    vel_seq_no_t n = 1;
    EXPECT_EQ(vel_w_seq_count(f.obj, f.l.u, f.l.c, &n), VEL_S_OK);
    EXPECT_EQ(n, 0u);
    // Failed after emptying the field: the transaction may not commit.
    ASSERT_EQ(env->commit_and_begin(), VEL_E_HOST_TRANS_FAILED);
    EXPECT_EQ(env->live_pages(), 0u) << "the unreachable tree goes at rollback";
    ASSERT_EQ(env->rollback_and_begin(), VEL_S_OK);

    std::set<vel_seq_page_t *> seen;
    size_t tree_pages = 0;
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(append(), VEL_S_OK);
        ASSERT_EQ(truncate(), VEL_S_OK);
        ASSERT_EQ(append(), VEL_S_OK);
        r = pages_match(3);
        tree_pages = r.page_list.size();
        seen.insert(r.page_list.begin(), r.page_list.end());
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
        ASSERT_EQ(truncate(), VEL_S_OK);
        ASSERT_EQ(env->commit_and_begin(), VEL_S_OK);
    }
    EXPECT_LE(seen.size(), 3 * tree_pages) << "freed pages must come back to the pool";
    EXPECT_EQ(env->live_pages(), 0u);
}

} // namespace
} // namespace velrel
