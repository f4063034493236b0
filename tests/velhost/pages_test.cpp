// Sequence pages: the creation contract, reference counts across versions,
// copy-on-write, prune, the sweep of unlinked pages at commit and rollback,
// the fault injector, the second page manager and the tree checker.
#include <map>
#include <random>

#include "host_fixture.h"

namespace hosttest {
namespace {

class PagesTest : public HostTest {
  protected:
    uint16_t cls = 0;
    velh_field_info_t fi{};
    vel_objhandle_t obj{};
    int32_t ps = 0;

    void SetUp() override { setup(VELH_PM_INMEM, 0); }
    void setup(int pm, vel_bool concurrent) {
        open_default(concurrent);
        cls = seq_class(pm);
        ASSERT_EQ(velh_field_info(db, cls, 1, &fi), VEL_S_OK);
        ps = 256;
    }
    // One committed object whose field holds leaves of 3, 4 and 5 values 0..11.
    void committed_tree() {
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
        ASSERT_EQ(build_tree(obj, fi, {3, 4, 5}, 0), VEL_S_OK);
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
    }
    std::vector<int32_t> values_in(vel_db_connection_h c) {
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_open(c, cls, obj.oid, &o), VEL_S_OK);
        return read_values(o, fi);
    }
    std::vector<int32_t> iota(int n, int first = 0) {
        std::vector<int32_t> v(static_cast<size_t>(n));
        for (int k = 0; k < n; ++k)
            v[static_cast<size_t>(k)] = first + k;
        return v;
    }
};

TEST_F(PagesTest, CreatedPageContract) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_page_manager_t *pm = con->pm_inmem;
    EXPECT_EQ(pm->large_page_size(con), 256);
    EXPECT_EQ(pm->large_page_size(reinterpret_cast<vel_db_connection_h>(&con->trans)), 256)
        << "a transaction handle stands for its connection";
    vel_seq_page_t *leaf = nullptr, *inner = nullptr, *slot_a = nullptr, *slot_b = nullptr;
    ASSERT_EQ(vel_seq_create_page(con, pm, &leaf, &slot_a, 3), VEL_S_OK);
    ASSERT_EQ(vel_seq_create_page(con, pm, &inner, &slot_b, 2), VEL_S_OK);
    EXPECT_EQ(slot_a, leaf);
    EXPECT_EQ(slot_b, inner);
    EXPECT_NE(leaf, inner);
    EXPECT_EQ(leaf->hdr.kind & 15, 3);
    EXPECT_EQ(inner->hdr.kind & 15, 2);
    EXPECT_EQ(leaf->hdr.user, 1);
    EXPECT_EQ(inner->hdr.user, 1);
    EXPECT_EQ(leaf->ref_count, 1u);
    EXPECT_FALSE(vel_seq_is_copy(con, pm, leaf, leaf));
    EXPECT_EQ(reinterpret_cast<uintptr_t>(leaf) % 8, 0u);
    // The whole page is writable.
    std::memset(reinterpret_cast<char *>(leaf) + 8, 0x11, static_cast<size_t>(ps - 8));
    velh_page_stats_t s;
    ASSERT_EQ(velh_page_stats(db, VELH_PM_INMEM, &s), VEL_S_OK);
    EXPECT_EQ(s.live, 2u);
    EXPECT_EQ(s.allocated, 2u);
    EXPECT_EQ(s.peak, 2u);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    ASSERT_EQ(velh_page_stats(db, VELH_PM_INMEM, &s), VEL_S_OK);
    EXPECT_EQ(s.live, 0u) << "rollback frees the pages it created";
    EXPECT_EQ(s.freed, 2u);
    EXPECT_EQ(s.peak, 2u);
}

TEST_F(PagesTest, PruneRegardsSharing) {
    committed_tree();
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    // A private tree in a second object goes at once.
    vel_objhandle_t tmp;
    ASSERT_EQ(velh_obj_create(con, cls, &tmp), VEL_S_OK);
    ASSERT_EQ(build_tree(tmp, fi, {2, 2}, 0), VEL_S_OK);
    EXPECT_EQ(live_pages(), 7u);
    vel_seq_page_t **tslot = root_for_write(tmp, fi);
    ASSERT_EQ(vel_seq_prune(con, tmp.pm, *tslot), VEL_S_OK);
    *tslot = nullptr;
    EXPECT_EQ(live_pages(), 4u);
    // The shared tree (committed and private version) only loses the
    // private version's reference.
    vel_seq_page_t **slot = root_for_write(obj, fi);
    vel_seq_page_t *root = *slot;
    EXPECT_EQ(root->ref_count, 2u);
    EXPECT_TRUE(vel_seq_is_copy(con, obj.pm, root, root));
    ASSERT_EQ(vel_seq_prune(con, obj.pm, root), VEL_S_OK);
    *slot = nullptr;
    EXPECT_EQ(live_pages(), 4u);
    EXPECT_EQ(root->ref_count, 1u);
    EXPECT_EQ(vel_seq_prune(con, obj.pm, nullptr), VEL_S_OK) << "an empty field prunes nothing";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 0u) << "no version references the tree any more";
}

TEST_F(PagesTest, ReferenceCountMisuseIsRefused) {
    committed_tree();
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_seq_page_t *root = *root_for_write(obj, fi);
    EXPECT_EQ(vel_seq_free_page(con, obj.pm, root), VEL_E_HOST_BAD_ARG)
        << "a shared page belongs to another version";
    EXPECT_EQ(root->ref_count, 2u);
    vel_seq_page_t *pg, *slot;
    ASSERT_EQ(vel_seq_create_page(con, obj.pm, &pg, &slot, 3), VEL_S_OK);
    int32_t count = 7;
    ASSERT_EQ(vel_seq_decrement_ref_count(con, obj.pm, pg, &count), VEL_S_OK);
    EXPECT_EQ(count, 0);
    EXPECT_EQ(vel_seq_decrement_ref_count(con, obj.pm, pg, &count), VEL_E_HOST_BAD_ARG);
    EXPECT_EQ(pg->ref_count, 0u);
    ASSERT_EQ(vel_seq_increment_ref_count(con, obj.pm, pg), VEL_S_OK);
    ASSERT_EQ(vel_seq_increment_ref_count(con, obj.pm, pg), VEL_S_OK);
    EXPECT_TRUE(vel_seq_is_copy(con, obj.pm, pg, pg));
    vel_seq_init_ref_count(con, obj.pm, pg, pg);
    EXPECT_EQ(pg->ref_count, 1u);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 4u);
}

// A delete that fails halfway frees children before it can remove their
// entries.  Such a tree must not be published, and rollback, prune and a
// second free must cope with the dangling entries.
TEST_F(PagesTest, DanglingEntriesOfAFailedUpdate) {
    committed_tree();
    for (int ending = 0; ending < 3; ++ending) {
        SCOPED_TRACE(::testing::Message() << "ending " << ending);
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_seq_page_t **slot = root_for_write(obj, fi);
        ASSERT_EQ(cow(con, obj.pm, slot), VEL_S_OK);
        vel_seq_page_t **leaf = &entry(*slot, ps, 0)->page;
        ASSERT_EQ(cow(con, obj.pm, leaf), VEL_S_OK);
        vel_seq_page_t *freed = *leaf;
        ASSERT_EQ(vel_seq_free_page(con, obj.pm, freed), VEL_S_OK);
        EXPECT_EQ(vel_seq_free_page(con, obj.pm, freed), VEL_E_HOST_BAD_ARG) << "freed twice";
        // New pages must not reuse the freed one while its entry dangles.
        vel_seq_page_t *fresh, *scratch;
        ASSERT_EQ(vel_seq_create_page(con, obj.pm, &fresh, &scratch, 3), VEL_S_OK);
        EXPECT_NE(fresh, freed);
        if (ending == 0) {
            EXPECT_EQ(velh_commit(con), VEL_E_HOST_TRANS_FAILED);
        } else if (ending == 1) {
            ASSERT_EQ(velh_rollback(con), VEL_S_OK);
        } else { // truncated in the same transaction, then committed
            ASSERT_EQ(vel_seq_prune(con, obj.pm, *slot), VEL_S_OK);
            *slot = nullptr;
            ASSERT_EQ(velh_commit(con), VEL_S_OK);
            EXPECT_EQ(live_pages(), 0u);
            break;
        }
        EXPECT_FALSE(velh_in_transaction(con));
        EXPECT_EQ(live_pages(), 4u);
        ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
        EXPECT_EQ(values_in(con), iota(12));
        vel_seq_page_t *root = root_for_read(obj, fi);
        EXPECT_EQ(root->ref_count, 1u);
        EXPECT_EQ(entry(root, ps, 0)->page->ref_count, 1u);
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
    }
}

// The checker reports each kind of damage (undone again), and commit keeps
// the linked pages while it frees those no tree references.
TEST_F(PagesTest, CheckerFindsDamageAndCommitFreesUnlinkedPages) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
    velh_tree_report_t rep;
    auto check = [&](vel_seq_order_t order, vel_bool keys, const char *damage) {
        ASSERT_EQ(velh_check_tree(&obj, 1, order, keys, &rep), VEL_S_OK);
        if (damage == nullptr) {
            EXPECT_TRUE(rep.ok) << rep.message;
        } else {
            EXPECT_FALSE(rep.ok);
            EXPECT_NE(std::string(rep.message).find(damage), std::string::npos) << rep.message;
        }
    };
    check(VEL_SEQ_NO_ORDER, 0, nullptr);
    EXPECT_EQ(rep.depth, 0u) << "empty field";
    ASSERT_EQ(build_tree(obj, fi, {3, 4, 5}, 0), VEL_S_OK);
    vel_seq_page_t *root = *root_for_write(obj, fi);
    // Keys of an ordered tree: the first value of each child.
    vals4(root)[0] = 0;
    vals4(root)[1] = 3;
    vals4(root)[2] = 8;
    leaf_nulls4(entry(root, ps, 2)->page, ps)[0] = 0x5; // two nulls
    check(VEL_SEQ_ASC_ORDER, 1, "key 2");
    check(VEL_SEQ_ASC_ORDER, 0, nullptr); // keys are checked only on request
    vals4(root)[2] = 7;
    check(VEL_SEQ_ASC_ORDER, 1, nullptr);
    EXPECT_EQ(rep.nulls, 2u);
    entry(root, ps, 1)->count = 5;
    check(VEL_SEQ_NO_ORDER, 0, "entry 1");
    entry(root, ps, 1)->count = 4;
    // A leaf one value over capacity, its entry counting it.
    entry(root, ps, 0)->page->hdr.user = static_cast<uint16_t>(leaf_cap4(ps) + 1);
    entry(root, ps, 0)->count = static_cast<uint64_t>(leaf_cap4(ps) + 1);
    check(VEL_SEQ_NO_ORDER, 0, "capacity");
    entry(root, ps, 0)->page->hdr.user = 3;
    entry(root, ps, 0)->count = 3;
    // A leaf one level deeper than its siblings.
    vel_seq_page_t *mid, *slot;
    ASSERT_EQ(vel_seq_create_page(con, obj.pm, &mid, &slot, 2), VEL_S_OK);
    vel_seq_page_t *leaf2 = entry(root, ps, 2)->page;
    entry(mid, ps, 0)->page = leaf2;
    entry(mid, ps, 0)->count = 5;
    entry(root, ps, 2)->page = mid;
    check(VEL_SEQ_NO_ORDER, 0, "depths");
    entry(root, ps, 2)->page = leaf2;
    EXPECT_EQ(velh_check_tree(&obj, 0, VEL_SEQ_NO_ORDER, 0, &rep), VEL_E_HOST_WRONG_FIELD);

    // `mid` and `lost` are unlinked; `gone` is freed already.
    vel_seq_page_t *lost, *gone;
    ASSERT_EQ(vel_seq_create_page(con, obj.pm, &lost, &slot, 3), VEL_S_OK);
    ASSERT_EQ(vel_seq_create_page(con, obj.pm, &gone, &slot, 3), VEL_S_OK);
    ASSERT_EQ(vel_seq_free_page(con, obj.pm, gone), VEL_S_OK);
    EXPECT_EQ(live_pages(), 6u);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 4u) << "only the unlinked pages go";
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(values_in(con), iota(12));
    check(VEL_SEQ_ASC_ORDER, 1, nullptr);
    EXPECT_EQ(rep.depth, 2u);
    EXPECT_EQ(rep.pages, 4u);
    EXPECT_EQ(rep.elements, 12u);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

// A tree one level deeper than an iterator's stack is refused at commit
// (and rolled back whole); at the limit it commits and keeps every page,
// however deep the commit's reachability walk has to go.
TEST_F(PagesTest, CommitWalksTreesOfAnyDepthAndRefusesTooDeepOnes) {
    for (uint32_t levels : {uint32_t(VEL_SEQ_MAX_DEPTH) + 1, uint32_t(VEL_SEQ_MAX_DEPTH)}) {
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
        ASSERT_EQ(build_tree(obj, fi, {3}, 0), VEL_S_OK);
        vel_seq_page_t **root = root_for_write(obj, fi);
        for (uint32_t l = 1; l < levels; ++l) {
            vel_seq_page_t *up, *slot;
            ASSERT_EQ(vel_seq_create_page(con, obj.pm, &up, &slot, 2), VEL_S_OK);
            *entry(up, ps, 0) = {*root, 3};
            *root = up;
        }
        const uint64_t before = live_pages();
        EXPECT_EQ(before, levels);
        if (levels > VEL_SEQ_MAX_DEPTH) {
            EXPECT_EQ(velh_commit(con), VEL_E_HOST_TREE_DEPTH);
            EXPECT_EQ(live_pages(), 0u);
        } else {
            ASSERT_EQ(velh_commit(con), VEL_S_OK);
            EXPECT_EQ(live_pages(), before);
            ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
            EXPECT_EQ(values_in(con), iota(3));
            ASSERT_EQ(velh_commit(con), VEL_S_OK);
        }
    }
}

// A class in the second page manager: without concurrent writes the module
// writes its pages in place, so the host hands out a private tree.
TEST_F(PagesTest, SecondPageManagerGetsPrivateTrees) {
    uint16_t alt = seq_class(VELH_PM_ALT);
    velh_field_info_t afi;
    ASSERT_EQ(velh_field_info(db, alt, 1, &afi), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_objhandle_t o;
    ASSERT_EQ(velh_obj_create(con, alt, &o), VEL_S_OK);
    EXPECT_EQ(o.pm, velh_page_manager(db, VELH_PM_ALT));
    EXPECT_NE(o.pm, con->pm_inmem);
    EXPECT_EQ(vel_int_get_db_vtable()->class_pm(&con->trans, alt), o.pm);
    EXPECT_EQ(vel_int_get_db_vtable()->class_pm(&con->trans, cls), con->pm_inmem);
    EXPECT_EQ(vel_int_get_db_vtable()->class_pm(&con->trans, 500), con->pm_inmem);
    ASSERT_EQ(build_tree(o, afi, {3, 4, 5}, 0), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(VELH_PM_ALT), 4u);
    EXPECT_EQ(live_pages(VELH_PM_INMEM), 0u);

    vel_db_connection_h reader;
    ASSERT_EQ(velh_connect(db, &reader), VEL_S_OK);
    ASSERT_EQ(velh_begin(reader, VELH_READ_ONLY), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_seq_page_t **slot = root_for_write(o, afi);
    vel_seq_page_t *root = *slot;
    EXPECT_EQ(root->ref_count, 1u) << "already private";
    EXPECT_EQ(live_pages(VELH_PM_ALT), 8u) << "the whole tree was copied";
    vals4(entry(root, ps, 2)->page)[4] = -1; // in place, no copy-on-write
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    vel_objhandle_t ro;
    ASSERT_EQ(velh_obj_open(reader, alt, o.oid, &ro), VEL_S_OK);
    EXPECT_EQ(read_values(ro, afi), iota(12));
    ASSERT_EQ(velh_commit(reader), VEL_S_OK);
    EXPECT_EQ(live_pages(VELH_PM_ALT), 4u);
    ASSERT_EQ(velh_disconnect(reader), VEL_S_OK);
}

class ConcurrentPagesTest : public PagesTest {
  protected:
    void SetUp() override { setup(VELH_PM_ALT, 1); }
};

TEST_F(ConcurrentPagesTest, SecondPageManagerLeavesCopyingToTheModule) {
    committed_tree();
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_seq_page_t **slot = root_for_write(obj, fi);
    EXPECT_EQ((*slot)->ref_count, 2u);
    EXPECT_EQ(live_pages(VELH_PM_ALT), 4u);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(root_for_read(obj, fi)->ref_count, 1u);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

// Random versions of several objects' trees, modified the way the module
// does (copy-on-write along a path), committed or rolled back, with an old
// reader kept open now and then.  Every committed state is checked, and once
// everything is deleted no page is left.
TEST_F(PagesTest, RandomHistoriesLeaveNoPages) {
    const uint32_t seed = 4242;
    std::mt19937 rng(seed);
    SCOPED_TRACE(::testing::Message() << "seed " << seed);
    std::map<uint64_t, std::vector<int32_t>> model;
    vel_db_connection_h reader;
    ASSERT_EQ(velh_connect(db, &reader), VEL_S_OK);
    std::map<uint64_t, std::vector<int32_t>> reader_model;
    bool reading = false;
    int32_t next_value = 0;
    for (int round = 0; round < 60; ++round) {
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        auto m = model;
        for (int op = 0; op < 4; ++op) {
            int kind = static_cast<int>(rng() % 5);
            if (m.empty() || kind == 0) {
                vel_objhandle_t o;
                ASSERT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
                std::vector<int> leaves;
                for (int k = 1 + static_cast<int>(rng() % 4); k > 0; --k)
                    leaves.push_back(1 + static_cast<int>(rng() % 6));
                ASSERT_EQ(build_tree(o, fi, leaves, next_value), VEL_S_OK);
                auto &v = m[o.oid];
                for (int n : leaves)
                    for (int k = 0; k < n; ++k)
                        v.push_back(next_value++);
                continue;
            }
            auto it = m.begin();
            std::advance(it, static_cast<long>(rng() % m.size()));
            vel_objhandle_t o;
            ASSERT_EQ(velh_obj_open(con, cls, it->first, &o), VEL_S_OK);
            if (kind == 1) {
                ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
                m.erase(it);
            } else if (kind == 2) { // truncate
                vel_seq_page_t **slot = root_for_write(o, fi);
                ASSERT_EQ(vel_seq_prune(con, o.pm, *slot), VEL_S_OK);
                *slot = nullptr;
                it->second.clear();
            } else if (!it->second.empty()) { // change one value
                vel_seq_page_t **slot = root_for_write(o, fi);
                ASSERT_EQ(cow(con, o.pm, slot), VEL_S_OK);
                size_t pos = rng() % it->second.size();
                vel_seq_page_t *pg = *slot;
                size_t rel = pos;
                vel_seq_page_t **ref = slot;
                while ((pg->hdr.kind & 15) == 2) {
                    int i = 0;
                    while (rel >= entry(pg, ps, i)->count)
                        rel -= entry(pg, ps, i++)->count;
                    ref = &entry(pg, ps, i)->page;
                    ASSERT_EQ(cow(con, o.pm, ref), VEL_S_OK);
                    pg = *ref;
                }
                vals4(pg)[rel] = -next_value;
                it->second[pos] = -next_value++;
            }
        }
        if (rng() % 4 == 0) {
            ASSERT_EQ(velh_rollback(con), VEL_S_OK);
        } else {
            ASSERT_EQ(velh_commit(con), VEL_S_OK);
            model = m;
        }
        if (!reading && rng() % 3 == 0) {
            ASSERT_EQ(velh_begin(reader, VELH_READ_ONLY), VEL_S_OK);
            reader_model = model;
            reading = true;
        } else if (reading && rng() % 3 == 0) {
            for (auto &[oid, vals] : reader_model) {
                vel_objhandle_t o;
                ASSERT_EQ(velh_obj_open(reader, cls, oid, &o), VEL_S_OK);
                ASSERT_EQ(read_values(o, fi), vals) << "reader, round " << round;
            }
            ASSERT_EQ(velh_commit(reader), VEL_S_OK);
            reading = false;
        }
        ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
        uint64_t n = 0;
        ASSERT_EQ(velh_obj_count(con, cls, &n), VEL_S_OK);
        ASSERT_EQ(n, model.size());
        for (auto &[oid, vals] : model) {
            vel_objhandle_t o;
            ASSERT_EQ(velh_obj_open(con, cls, oid, &o), VEL_S_OK);
            ASSERT_EQ(read_values(o, fi), vals) << "round " << round;
            velh_tree_report_t rep;
            ASSERT_EQ(velh_check_tree(&o, 1, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
            ASSERT_TRUE(rep.ok) << rep.message;
        }
        ASSERT_EQ(velh_commit(con), VEL_S_OK);
    }
    if (reading) {
        ASSERT_EQ(velh_commit(reader), VEL_S_OK);
    }
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    for (auto &[oid, vals] : model) {
        vel_objhandle_t o;
        ASSERT_EQ(velh_obj_open(con, cls, oid, &o), VEL_S_OK);
        ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    }
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 0u);
    velh_page_stats_t s;
    ASSERT_EQ(velh_page_stats(db, VELH_PM_ALL, &s), VEL_S_OK);
    EXPECT_EQ(s.allocated, s.freed);
    EXPECT_GT(s.allocated, 100u) << "the history should have made many pages";
    ASSERT_EQ(velh_disconnect(reader), VEL_S_OK);
}

} // namespace
} // namespace hosttest
