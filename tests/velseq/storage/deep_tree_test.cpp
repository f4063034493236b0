// Late single-value inserts on the raw module path deepen a tree until it
// traps at 14 levels, with every commit before that whole.  (Compaction and
// keep-compact's limits are checked by the differential driver.)
#include <gtest/gtest.h>

#include <random>

#include "seq_fixture.h"

namespace vstest {
namespace {

velh_field_shape_t shape(vel_objhandle_t &obj, const FieldRef &f, vel_seq_order_t order) {
    velh_field_shape_t s{};
    EXPECT_EQ(velh_field_shape(&obj, f.fld_no, order, &s), VEL_S_OK);
    return s;
}

// The tree is sound, holds the model's values, and the host's accounting
// agrees with the pages it has.
void expect_tree(vel_objhandle_t &obj, const FieldRef &f, vel_seq_order_t order,
                 const SeqModel &model, const char *when) {
    TreeReport r = check_tree(&obj, f, order);
    ASSERT_TRUE(r.ok()) << when << ": " << r.error;
    ASSERT_EQ(diff(model, r.contents), "") << when;
    velh_field_shape_t s = shape(obj, f, order);
    EXPECT_EQ(s.pages, r.pages.size()) << when;
    EXPECT_EQ(s.depth, static_cast<uint32_t>(r.depth)) << when;
    EXPECT_EQ(s.elements, model.size()) << when;
}

struct LateInserts : ::testing::Test {
    SeqDb db;
    FieldRef f = db.field("int4");
    SeqModel model = SeqModel::of_width(4);
    uint64_t oid = 0;

    void SetUp() override {
        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        vel_objhandle_t obj = db.new_object();
        oid = obj.oid;
        std::vector<int32_t> v(10000);
        for (size_t i = 0; i < v.size(); ++i)
            v[i] = static_cast<int32_t>(i);
        ASSERT_EQ(f.append(&obj, v.data(), v.size(), VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
        model.insert(0, v.data(), v.size(), nullptr, 0);
        ASSERT_EQ(db.commit(), VEL_S_OK);
    }
    vel_objhandle_t open() {
        vel_objhandle_t obj{};
        EXPECT_EQ(velh_obj_open(db.con(), db.class_code(), oid, &obj), VEL_S_OK);
        return obj;
    }
    // After a commit, with no reader left, the field's tree is every live page.
    void expect_committed(const char *when) {
        ASSERT_EQ(db.begin_read(), VEL_S_OK);
        vel_objhandle_t obj = open();
        expect_tree(obj, f, VEL_SEQ_NO_ORDER, model, when);
        EXPECT_EQ(db.stats().live, shape(obj, f, VEL_SEQ_NO_ORDER).pages) << when;
        ASSERT_EQ(db.rollback(), VEL_S_OK);
    }
    void insert_one(vel_objhandle_t &obj, uint64_t pos, int32_t v) {
        ASSERT_EQ(f.insert(&obj, pos, &v, 1, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
        model.insert(pos, &v, 1, nullptr, 0);
    }
};

TEST_F(LateInserts, RawPathTrapsAtFourteenLevelsAndEveryCommitStaysWhole) {
    int round = 0;
    bool trapped = false;
    while (!trapped && round < 10) {
        ++round;
        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        vel_objhandle_t obj = open();
        SeqModel before = model;
        try {
            for (int k = 0; k < 1000; ++k)
                insert_one(obj, 5000 + static_cast<uint64_t>(k), -round);
        } catch (const TrapHit &hit) {
            EXPECT_EQ(hit.code, VEL_ERR_SEQ);
            // The root may not grow a 15th level: the trap comes first.
            EXPECT_EQ(shape(obj, f, VEL_SEQ_NO_ORDER).depth, unsigned(VEL_SEQ_MAX_DEPTH));
            trapped = true;
        }
        if (trapped) {
            ASSERT_EQ(db.rollback(), VEL_S_OK);
            model = before;
        } else {
            EXPECT_LE(shape(obj, f, VEL_SEQ_NO_ORDER).depth, unsigned(VEL_SEQ_MAX_DEPTH));
            ASSERT_EQ(db.commit(), VEL_S_OK) << "round " << round;
        }
        expect_committed(trapped ? "after the trap" : "after a round");
    }
    EXPECT_TRUE(trapped) << "4000 single inserts at one place build 15 levels";
}

} // namespace
} // namespace vstest
