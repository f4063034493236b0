// List and index cursors over a class, as the module's scans drive them.
#include <cmath>
#include <cstddef>
#include <limits>
#include <random>

#include "host_fixture.h"

namespace hosttest {
namespace {

class CursorTest : public HostTest {
  protected:
    uint16_t cls = 0;
    void SetUp() override {
        open_default();
        velh_field_def_t f[] = {{"i", VEL_DD_INT4, 0},
                                {"d", VEL_DD_DOUBLE, 0},
                                {"name", VEL_DD_CHAR, 4},
                                {"u", VEL_DD_UINT8, 0}};
        ASSERT_EQ(velh_class_define(db, "rec", f, 4, VEL_CLASS_COMPACT, VELH_PM_INMEM, &cls),
                  VEL_S_OK);
    }
    uint64_t add(int32_t i, double d, const char *name, uint64_t u) {
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, 0, &i, 4), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, 1, &d, 8), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, 2, name, 4), VEL_S_OK);
        EXPECT_EQ(velh_set(&o, 3, &u, 8), VEL_S_OK);
        return o.oid;
    }
    // The oids a cursor visits, through the module's calls.
    std::vector<uint64_t> walk(vel_cursor_t *cur, VEL_RET *end_code) {
        std::vector<uint64_t> out;
        VEL_RET r = vel_cursor_first(&con->trans, cur);
        while (r == VEL_S_OK) {
            vel_objhandle_t o;
            EXPECT_EQ(vel_w_obj_from_cursor(&con->trans, cur, cls, &o), VEL_S_OK);
            EXPECT_EQ(o.class_code, cls);
            EXPECT_EQ(o.con, con);
            out.push_back(o.oid);
            r = vel_cursor_next(&con->trans, cur);
        }
        *end_code = r;
        return out;
    }
};

TEST_F(CursorTest, EmptyClass) {
    ASSERT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    vel_cursor_t cur;
    vel_objhandle_t o;
    ASSERT_EQ(vel_w_list_cursor(&con->trans, cls, &cur), VEL_S_CURSOR_EMPTY);
    EXPECT_EQ(vel_cursor_first(&con->trans, &cur), VEL_S_CURSOR_END);
    EXPECT_EQ(vel_cursor_next(&con->trans, &cur), VEL_S_CURSOR_END);
    EXPECT_EQ(vel_w_obj_from_cursor(&con->trans, &cur, cls, &o), VEL_S_NOTFOUND);
    ASSERT_EQ(velh_index_cursor(con, cls, 0, &cur), VEL_S_OK);
    EXPECT_EQ(vel_cursor_first(&con->trans, &cur), VEL_S_NOTFOUND);
    EXPECT_EQ(vel_cursor_next(&con->trans, &cur), VEL_S_CURSOR_END);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
}

TEST_F(CursorTest, ListCursorSeesTheSnapshotInCreationOrder) {
    vel_db_connection_h other;
    ASSERT_EQ(velh_connect(db, &other), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    std::vector<uint64_t> oids;
    for (int k = 0; k < 5; ++k)
        oids.push_back(add(k, 0, "abcd", 0));
    ASSERT_EQ(velh_commit(con), VEL_S_OK);

    ASSERT_EQ(velh_begin(other, VELH_READ_ONLY), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_objhandle_t o;
    ASSERT_EQ(velh_obj_open(con, cls, oids[1], &o), VEL_S_OK);
    ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    uint64_t extra = add(9, 0, "zzzz", 0);

    vel_cursor_t cur;
    VEL_RET end;
    ASSERT_EQ(vel_w_list_cursor(&con->trans, cls, &cur), VEL_S_OK);
    EXPECT_EQ(vel_w_obj_from_cursor(&con->trans, &cur, cls, &o), VEL_S_NOTFOUND)
        << "a new cursor stands before the first object";
    EXPECT_EQ(walk(&cur, &end), (std::vector<uint64_t>{oids[0], oids[2], oids[3], oids[4], extra}));
    EXPECT_EQ(end, VEL_S_CURSOR_END);
    EXPECT_EQ(vel_cursor_next(&con->trans, &cur), VEL_S_CURSOR_END) << "the end is sticky";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);

    // The reader began before that commit; it walks the cursor from inside an
    // iterator's context, where the module places it.
    vel_seq_iterator_t it;
    auto *ctx = reinterpret_cast<vel_seq_iterator_context_t *>(it.context);
    auto *in_ctx = reinterpret_cast<vel_cursor_t *>(ctx->stack);
    static_assert(offsetof(vel_seq_iterator_context_t, stack) + sizeof(vel_cursor_t) <=
                      sizeof it.context,
                  "the cursor must fit the iterator context");
    ASSERT_EQ(vel_w_list_cursor(&other->trans, cls, in_ctx), VEL_S_OK);
    std::vector<uint64_t> seen;
    for (VEL_RET r = vel_cursor_first(&other->trans, in_ctx); r == VEL_S_OK;
         r = vel_cursor_next(&other->trans, in_ctx)) {
        ASSERT_EQ(vel_w_obj_from_cursor(&other->trans, in_ctx, cls, &o), VEL_S_OK);
        seen.push_back(o.oid);
    }
    EXPECT_EQ(seen, oids);
    EXPECT_EQ(vel_w_obj_from_cursor(&other->trans, in_ctx, cls + 1, &o), VEL_E_HOST_NO_CLASS);
    ASSERT_EQ(velh_commit(other), VEL_S_OK);
    ASSERT_EQ(velh_disconnect(other), VEL_S_OK);
}

// Index cursors over each key type against a reference order computed here.
TEST_F(CursorTest, IndexCursorOrdersByEachKeyType) {
    const uint32_t seed = 7;
    std::mt19937 rng(seed);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    struct Rec {
        uint64_t oid;
        int32_t i;
        double d;
        std::string name;
        uint64_t u;
    };
    std::vector<Rec> recs;
    for (int k = 0; k < 200; ++k) {
        Rec r;
        r.i = static_cast<int32_t>(rng() % 41) - 20; // duplicates and negatives
        r.d = (k % 17 == 0) ? std::nan("")
                            : static_cast<double>(static_cast<int>(rng() % 1000) - 500) / 8;
        char nm[5];
        for (int c = 0; c < 4; ++c)
            nm[c] = static_cast<char>('a' + rng() % 3);
        r.name.assign(nm, 4);
        r.u = (k % 2) ? UINT64_MAX - rng() % 5 : rng() % 5; // unsigned above INT64_MAX
        r.oid = add(r.i, r.d, r.name.data(), r.u);
        recs.push_back(r);
    }
    auto check = [&](uint16_t fld, auto less) {
        SCOPED_TRACE(::testing::Message() << "seed " << seed << " field " << fld);
        std::vector<Rec> want = recs;
        std::stable_sort(want.begin(), want.end(), less);
        vel_cursor_t cur;
        ASSERT_EQ(velh_index_cursor(con, cls, fld, &cur), VEL_S_OK);
        VEL_RET end;
        std::vector<uint64_t> got = walk(&cur, &end);
        EXPECT_EQ(end, VEL_S_CURSOR_END);
        ASSERT_EQ(got.size(), want.size());
        for (size_t k = 0; k < got.size(); ++k) {
            ASSERT_EQ(got[k], want[k].oid) << "rank " << k;
        }
    };
    check(0, [](const Rec &a, const Rec &b) { return a.i < b.i; });
    check(1, [](const Rec &a, const Rec &b) {
        if (std::isnan(a.d) || std::isnan(b.d))
            return !std::isnan(a.d) && std::isnan(b.d);
        return a.d < b.d;
    });
    check(2, [](const Rec &a, const Rec &b) { return a.name < b.name; });
    check(3, [](const Rec &a, const Rec &b) { return a.u < b.u; });

    // Deleting an object after its index was built: the cursor still stands
    // on it, but it cannot be opened any more.
    vel_cursor_t cur;
    ASSERT_EQ(velh_index_cursor(con, cls, 0, &cur), VEL_S_OK);
    ASSERT_EQ(vel_cursor_first(&con->trans, &cur), VEL_S_OK);
    vel_objhandle_t o;
    ASSERT_EQ(vel_w_obj_from_cursor(&con->trans, &cur, cls, &o), VEL_S_OK);
    ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    EXPECT_EQ(vel_w_obj_from_cursor(&con->trans, &cur, cls, &o), VEL_E_HOST_NO_OBJECT);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
}

} // namespace
} // namespace hosttest
