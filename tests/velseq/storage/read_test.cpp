// What the model-based differential test cannot see: which pages split or
// disappear on insert and delete (delete never merges), the null bit of the
// last element across bitmap words, and page release by truncate.
#include "test_util.h"

#include <set>

namespace vstest {
namespace {

class Shapes : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        obj = sdb.new_object();
        f = sdb.field("int4");
    }
    void TearDown() override { sdb.rollback(); }

    VEL_RET append(const std::vector<vel_int4> &v, const vel_bitmap_word_t *nb = nullptr,
                   vel_seq_order_t order = VEL_SEQ_NO_ORDER) {
        return vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v.data(), v.size(),
                                     order, nb);
    }
    VEL_RET insert(vel_seq_no_t pos, const std::vector<vel_int4> &v,
                   const vel_bitmap_word_t *nb = nullptr) {
        return vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, pos, v.data(),
                                     v.size(), VEL_SEQ_NO_ORDER, nb);
    }
    VEL_RET del(vel_seq_no_t from, vel_seq_no_t till, vel_seq_order_t order = VEL_SEQ_NO_ORDER) {
        return vel_w_seq_delete_int4(&obj, f.u_offset, f.c_offset, f.fld_no, from, till, order);
    }
    static std::vector<vel_int4> iota(size_t n, vel_int4 start = 0) {
        std::vector<vel_int4> v(n);
        for (size_t i = 0; i < n; i++)
            v[i] = start + static_cast<vel_int4>(i);
        return v;
    }
    std::vector<vel_int4> values(vel_seq_order_t order = VEL_SEQ_NO_ORDER) {
        return contents_as<vel_int4>(&obj, f, order);
    }
    vel_seq_no_t count() {
        vel_seq_no_t c = 999;
        EXPECT_EQ(vel_w_seq_count(&obj, f.u_offset, f.c_offset, &c), VEL_S_OK);
        return c;
    }

    SeqDb sdb{DbOptions{.seq_page_size = 4096}};
    vel_objhandle_t obj{};
    FieldRef f;
    static constexpr uint64_t kLeaf = 989; // int4 at 4096
};

// The last element's bit lies in word 0, 1, 1 for 64, 65, 128 elements.
TEST_F(Shapes, LastTestsTheBitOfTheLastElement) {
    for (size_t n : {64u, 65u, 128u}) {
        SCOPED_TRACE(n);
        ASSERT_EQ(vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no), VEL_S_OK);
        std::vector<vel_bitmap_word_t> nb(3, 0);
        nb[(n - 1) / 64] = vel_bitmap_word_t{1} << ((n - 1) % 64);
        ASSERT_EQ(append(iota(n, 100), nb.data()), VEL_S_OK);
        vel_int4 v = 0;
        EXPECT_EQ(vel_w_seq_last_int4(&obj, f.u_offset, f.c_offset, &v), VEL_E_SEQ_NULL_VALUE);
        EXPECT_EQ(v, 100 + static_cast<vel_int4>(n) - 1);
        EXPECT_EQ(vel_w_seq_first_int4(&obj, f.u_offset, f.c_offset, &v), VEL_S_OK);
        EXPECT_EQ(v, 100);
        ASSERT_EQ(del(n - 1, n - 1), VEL_S_OK);
        EXPECT_EQ(vel_w_seq_last_int4(&obj, f.u_offset, f.c_offset, &v), VEL_S_OK);
        EXPECT_EQ(v, 100 + static_cast<vel_int4>(n) - 2);
    }
}

// A full leaf split by one value in the middle stays full and gives its
// last value to a new right sibling.
TEST_F(Shapes, InsertIntoAFullLeafSplitsOffExactlyThePassCount) {
    auto v = iota(kLeaf);
    ASSERT_EQ(append(v), VEL_S_OK);
    ASSERT_EQ(insert(500, {-1}), VEL_S_OK);
    TreeReport r = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
    ASSERT_TRUE(r.ok()) << r.error;
    ASSERT_EQ(r.depth, 2);
    EXPECT_EQ(velseq::inner_entry(r.pages[0], 4096, 0)->count, kLeaf);
    EXPECT_EQ(velseq::inner_entry(r.pages[0], 4096, 1)->count, 1u);
    v.insert(v.begin() + 500, -1);
    EXPECT_EQ(values(), v);

    // At the end of a full last leaf: rest = 0, every value starts the new page.
    auto more = iota(kLeaf - 1, 5000);
    ASSERT_EQ(append(more), VEL_S_OK); // second leaf now full
    ASSERT_EQ(insert(2 * kLeaf, {-2, -3, -4}), VEL_S_OK);
    r = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.pages[0]->hdr.user, 3);
    EXPECT_EQ(velseq::inner_entry(r.pages[0], 4096, 2)->count, 3u);
    v.insert(v.end(), more.begin(), more.end());
    v.insert(v.end(), {-2, -3, -4});
    EXPECT_EQ(values(), v);

    // More values than the tail right of the position: mixed split.
    std::vector<vel_int4> big = iota(700, -1000);
    ASSERT_EQ(insert(kLeaf - 10, big), VEL_S_OK);
    v.insert(v.begin() + static_cast<std::ptrdiff_t>(kLeaf - 10), big.begin(), big.end());
    EXPECT_EQ(values(), v);
}

// A range ending on a leaf boundary frees that leaf and trims its left
// neighbour; the freed leaf's entry (and key) leave the parent; nothing is
// merged and the depth stays even when the root keeps one child.
TEST_F(Shapes, DeleteFreesEmptiedLeavesAndNeverMerges) {
    std::vector<vel_int4> v = iota(4 * kLeaf);
    ASSERT_EQ(append(v, nullptr, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    ASSERT_EQ(del(kLeaf - 5, 2 * kLeaf - 1, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    TreeReport r = check_tree(&obj, f, VEL_SEQ_ASC_ORDER);
    ASSERT_TRUE(r.ok()) << r.error;
    vel_seq_page_t *root = r.pages[0];
    ASSERT_EQ(root->hdr.user, 3);
    EXPECT_EQ(velseq::inner_entry(root, 4096, 0)->count, kLeaf - 5);
    EXPECT_EQ(velseq::inner_entry(root, 4096, 1)->count, kLeaf);
    // The keys of the later children moved with their entries.
    auto *keys = reinterpret_cast<vel_int4 *>(velseq::page_values(root));
    EXPECT_EQ(keys[0], 0);
    EXPECT_EQ(keys[1], static_cast<vel_int4>(2 * kLeaf));
    EXPECT_EQ(keys[2], static_cast<vel_int4>(3 * kLeaf));
    v.erase(v.begin() + static_cast<std::ptrdiff_t>(kLeaf - 5),
            v.begin() + static_cast<std::ptrdiff_t>(2 * kLeaf));
    EXPECT_EQ(values(VEL_SEQ_ASC_ORDER), v);

    // Deleting the first element leaves the first key as it was.
    ASSERT_EQ(del(0, 0, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    r = check_tree(&obj, f, VEL_SEQ_ASC_ORDER);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(reinterpret_cast<vel_int4 *>(velseq::page_values(r.pages[0]))[0], 0);

    // Down to one element: the root keeps its single child, the depth stays.
    vel_seq_no_t n = count();
    ASSERT_EQ(del(1, n - 1, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    r = check_tree(&obj, f, VEL_SEQ_ASC_ORDER);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.depth, 2);
    EXPECT_EQ(r.pages.size(), 2u);
    EXPECT_EQ(count(), 1u);
    ASSERT_EQ(del(0, 0, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    EXPECT_EQ(count(), 0u);
    vel_int4 x = 3;
    EXPECT_EQ(vel_w_seq_first_int4(&obj, f.u_offset, f.c_offset, &x), VEL_S_NOTFOUND);
}

TEST_F(Shapes, TruncateReleasesEveryPage) {
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), obj.oid, &obj), VEL_S_OK);
    EXPECT_EQ(vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no), VEL_S_OK); // empty
    ASSERT_EQ(append(iota(5000)), VEL_S_OK);
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    EXPECT_GT(sdb.stats().live, 5u);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), obj.oid, &obj), VEL_S_OK);
    EXPECT_EQ(vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no), VEL_S_OK);
    EXPECT_EQ(count(), 0u);
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    EXPECT_EQ(sdb.stats().live, 0u);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK); // for TearDown's rollback
}

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
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    EXPECT_EQ(sdb.stats().live, 0u) << "the unreachable tree goes at commit";

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

namespace vstest {
namespace {

// Inserts that split full leaves under full inner pages, on an ordered
// field: entries and keys move in the splits, and since no insert lands at
// position 0 every key still equals its subtree's first value.
TEST(InsertSplits, FullInnerPagesSplitAndKeepKeysAndCounts) {
    SeqDb sdb(DbOptions{.seq_page_size = 1024});
    const FamilyOps &fam = family("int8");
    FieldRef f = sdb.field(fam);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    vel_objhandle_t obj = sdb.new_object();
    std::vector<vel_int8> v(124 * 42); // a root full of full leaves
    for (size_t i = 0; i < v.size(); i++)
        v[i] = 1000 * static_cast<vel_int8>(i);
    ASSERT_EQ(fam.append(&obj, f, v.data(), v.size(), VEL_SEQ_ASC_ORDER, nullptr), VEL_S_OK);
    std::mt19937_64 rng(31);
    for (int round = 0; round < 400; round++) {
        size_t pos = 1 + rng() % (v.size() - 1);
        vel_int8 left = v[pos - 1], right = v[pos];
        size_t n = std::min<size_t>(1 + rng() % 150, static_cast<size_t>(right - left - 1));
        if (n == 0)
            continue;
        std::vector<vel_int8> ins(n);
        for (size_t k = 0; k < n; k++)
            ins[k] = left + 1 + static_cast<vel_int8>(k);
        ASSERT_EQ(fam.insert(&obj, f, pos, ins.data(), n, VEL_SEQ_ASC_ORDER, nullptr), VEL_S_OK)
            << "round " << round;
        v.insert(v.begin() + static_cast<std::ptrdiff_t>(pos), ins.begin(), ins.end());
        if (round % 20 == 0 || round == 399) {
            SeqModel m(8);
            m.append(reinterpret_cast<const uint8_t *>(v.data()), v.size(), nullptr);
            SCOPED_TRACE("round " + std::to_string(round));
            expect_matches(fam, &obj, f, m, VEL_SEQ_ASC_ORDER, true);
            if (HasFatalFailure())
                return;
        }
    }
    TreeReport r = check_tree(&obj, f, VEL_SEQ_ASC_ORDER, true);
    EXPECT_GE(r.depth, 3);
    sdb.rollback();
}

} // namespace
} // namespace vstest
