// Copy-on-write across versions: a reader's snapshot keeps every old value
// while a writer appends, deletes and inserts; the writer copies only the
// pages on the paths it changes; nothing is left once both are gone.
#include "test_util.h"

#include <set>

namespace vstest {
namespace {

TEST(CopyOnWrite, SnapshotSurvivesAndOnlyChangedPathsAreCopied) {
    SeqDb sdb(DbOptions{.seq_page_size = 1024});
    const FamilyOps &fam = family("int4");
    FieldRef f = sdb.field(fam);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    vel_objhandle_t obj = sdb.new_object();
    const uint64_t oid = obj.oid;
    std::vector<vel_int4> base(20000); // 82 leaves of 244 under two inner pages
    for (size_t i = 0; i < base.size(); i++)
        base[i] = static_cast<vel_int4>(i);
    ASSERT_EQ(fam.append(&obj, f, base.data(), base.size(), VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
    ASSERT_EQ(sdb.commit(), VEL_S_OK);

    vel_db_connection_h rcon = nullptr;
    ASSERT_EQ(velh_connect(sdb.db(), &rcon), VEL_S_OK);
    ASSERT_EQ(velh_begin(rcon, VELH_READ_ONLY), VEL_S_OK);
    vel_objhandle_t robj;
    ASSERT_EQ(velh_obj_open(rcon, sdb.class_code(), oid, &robj), VEL_S_OK);
    SeqModel snapshot(4);
    snapshot.append(reinterpret_cast<const uint8_t *>(base.data()), base.size(), nullptr);
    {
        TreeReport r = check_tree(&robj, f, VEL_SEQ_NO_ORDER);
        ASSERT_TRUE(r.ok()) << r.error;
        ASSERT_EQ(r.depth, 3);
    }
    SeqModel current = snapshot;

    // Runs one change in its own write transaction and counts the pages
    // allocated and the pages of the new tree that the old one did not have.
    auto step = [&](const std::string &what, auto change, uint64_t expect_allocated,
                    size_t expect_new_in_tree) {
        SCOPED_TRACE(what);
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
        TreeReport before = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
        ASSERT_TRUE(before.ok()) << before.error;
        const uint64_t allocated = sdb.stats().allocated;
        change();
        const uint64_t delta = sdb.stats().allocated - allocated;
        TreeReport after = check_tree(&obj, f, VEL_SEQ_NO_ORDER);
        ASSERT_TRUE(after.ok()) << after.error;
        ASSERT_EQ(current.diff(after.contents), "");
        std::set<vel_seq_page_t *> old_pages(before.pages.begin(), before.pages.end());
        size_t fresh = 0;
        for (vel_seq_page_t *pg : after.pages)
            fresh += old_pages.count(pg) == 0;
        EXPECT_EQ(delta, expect_allocated);
        EXPECT_EQ(fresh, expect_new_in_tree);
        ASSERT_EQ(sdb.commit(), VEL_S_OK);
        TreeReport snap = check_tree(&robj, f, VEL_SEQ_NO_ORDER);
        ASSERT_TRUE(snap.ok()) << snap.error;
        EXPECT_EQ(snapshot.diff(snap.contents), "") << "the reader's snapshot changed";
    };

    const vel_int4 extra[] = {-7};
    // The last leaf holds 236 of 244: root, right inner page, last leaf.
    step(
        "append one",
        [&] {
            ASSERT_EQ(fam.append(&obj, f, extra, 1, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
            current.append(reinterpret_cast<const uint8_t *>(extra), 1, nullptr);
        },
        3, 3);
    step(
        "delete one in the middle of a leaf",
        [&] {
            ASSERT_EQ(fam.remove(&obj, f, 100, 100, VEL_SEQ_NO_ORDER), VEL_S_OK);
            current.erase(100, 100);
        },
        3, 3);
    step(
        "insert one into that leaf",
        [&] {
            ASSERT_EQ(fam.insert(&obj, f, 100, extra, 1, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
            current.insert(100, reinterpret_cast<const uint8_t *>(extra), 1, nullptr);
        },
        3, 3);
    // Leaves 1..4 (positions 244..1219) are touched: two are freed after
    // being copied, two survive trimmed.
    step(
        "delete across leaves",
        [&] {
            ASSERT_EQ(fam.remove(&obj, f, 300, 1000, VEL_SEQ_NO_ORDER), VEL_S_OK);
            current.erase(300, 1000);
        },
        6, 4);
    if (HasFatalFailure())
        return;

    ASSERT_EQ(velh_commit(rcon), VEL_S_OK);
    ASSERT_EQ(velh_disconnect(rcon), VEL_S_OK);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(sdb.con(), sdb.class_code(), oid, &obj), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_truncate(&obj, f.u_offset, f.c_offset, f.fld_no), VEL_S_OK);
    ASSERT_EQ(sdb.commit(), VEL_S_OK);
    EXPECT_EQ(sdb.stats().live, 0u);
}

// Within one transaction a page already made private is not copied again.
TEST(CopyOnWrite, PrivatePagesAreWrittenInPlace) {
    SeqDb sdb(DbOptions{.seq_page_size = 1024});
    const FamilyOps &fam = family("double");
    FieldRef f = sdb.field(fam);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    vel_objhandle_t obj = sdb.new_object();
    std::mt19937_64 rng(5);
    auto vals = random_values(fam, rng, 1000);
    ASSERT_EQ(fam.append(&obj, f, vals.data(), 1000, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
    const uint64_t allocated = sdb.stats().allocated;
    ASSERT_EQ(fam.remove(&obj, f, 10, 20, VEL_SEQ_NO_ORDER), VEL_S_OK);
    ASSERT_EQ(fam.insert(&obj, f, 10, vals.data(), 5, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
    EXPECT_EQ(sdb.stats().allocated, allocated);
    ASSERT_EQ(sdb.rollback(), VEL_S_OK);
    EXPECT_EQ(sdb.stats().live, 0u);
}

} // namespace
} // namespace vstest
