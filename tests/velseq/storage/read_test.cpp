// Page accounting, which no model sees: pages freed by deletes and prune,
// and the pool reused across transactions.
#include <gtest/gtest.h>

#include "seq_fixture.h"
#include "storage/page_format.h"

#include <set>

namespace vstest {
namespace {

// Page accounting follows the tree (256-byte pages: 58 int4 a leaf, 15
// children an inner page): a delete that empties an inner page frees it with
// its leaves, a prune that fails still leaves the field empty, and repeated
// transactions reuse the pages earlier ones freed instead of new memory.
TEST(PageAccounting, LivePagesFollowTheTreeAndMemoryStaysFlat) {
    SeqDb sdb{DbOptions{.seq_page_size = 256}};
    const FieldRef f = sdb.field("int4");
    const std::vector<vel_int4> v(3000, 7);
    vel_objhandle_t obj{};
    auto append = [&] {
        return vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v.data(), v.size(),
                                     VEL_SEQ_NO_ORDER, nullptr);
    };
    auto truncate = [&] { return vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no); };
    auto pages_match = [&](size_t depth) {
        TreeReport r = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
        EXPECT_TRUE(r.ok()) << r.error;
        EXPECT_EQ(static_cast<size_t>(r.depth), depth);
        EXPECT_EQ(sdb.stats().live, r.pages.size());
        return r;
    };
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    obj = sdb.new_object();
    ASSERT_EQ(append(), VEL_S_OK);
    TreeReport r = pages_match(3);
    const uint64_t c0 = velseq::inner_entry(r.pages[0], 256, 0)->count;
    const uint64_t c1 = velseq::inner_entry(r.pages[0], 256, 1)->count;
    ASSERT_EQ(vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, c0, c0 + c1 - 1,
                                    VEL_SEQ_NO_ORDER),
              VEL_S_OK);
    pages_match(3);
    ASSERT_EQ(
        vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 0, 5000, VEL_SEQ_NO_ORDER),
        VEL_S_OK);
    pages_match(0);

    ASSERT_EQ(append(), VEL_S_OK);
    velh_fail_prune(sdb.db(), 1);
    EXPECT_EQ(truncate(), VEL_E_NOMEM);
    velh_fail_prune(sdb.db(), 0);
    vel_seq_no_t n = 1;
    EXPECT_EQ(vel_w_seq_count(&obj, f.u_offset, f.c_offset, &n), VEL_S_OK);
    EXPECT_EQ(n, 0u);
    // Failed after emptying the field: the transaction may not commit.
    ASSERT_EQ(sdb.commit(), VEL_E_HOST_TRANS_FAILED);
    EXPECT_EQ(sdb.stats().live, 0u) << "the unreachable tree goes at rollback";
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    obj = sdb.new_object();
    ASSERT_EQ(sdb.commit(), VEL_S_OK);

    std::set<vel_seq_page_t *> seen;
    size_t tree_pages = 0;
    for (int round = 0; round < 20; round++) {
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), obj.oid, &obj), VEL_S_OK);
        ASSERT_EQ(append(), VEL_S_OK);
        ASSERT_EQ(truncate(), VEL_S_OK);
        ASSERT_EQ(append(), VEL_S_OK);
        r = pages_match(3);
        tree_pages = r.pages.size();
        seen.insert(r.pages.begin(), r.pages.end());
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), obj.oid, &obj), VEL_S_OK);
        ASSERT_EQ(truncate(), VEL_S_OK);
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
    }
    EXPECT_LE(seen.size(), 3 * tree_pages) << "freed pages must come back to the pool";
    EXPECT_EQ(sdb.stats().live, 0u);
}

} // namespace
} // namespace vstest
