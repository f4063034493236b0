// The host under the real sequence module: appends, deletes and truncation
// through the exported wrappers, in both object layouts, in either page
// manager, with and without concurrent writes.  Readers keep their
// snapshots, rollback restores the tree, and nothing is left at the end.
#include <numeric>
#include <tuple>

#include "host_fixture.h"

namespace hosttest {
namespace {

struct Setup {
    int pm;
    vel_bool concurrent;
    uint32_t flags;
};

class ModuleTest : public HostTest, public ::testing::WithParamInterface<Setup> {
  protected:
    uint16_t cls = 0;
    velh_field_info_t fi{};
    vel_db_connection_h reader = nullptr;

    void SetUp() override {
        velh_config_t cfg;
        velh_config_init(&cfg);
        cfg.seq_page_size = 512;
        cfg.object_page_size = 256;
        cfg.additional_object_field_size = 12;
        cfg.concurrent_write_transactions = GetParam().concurrent;
        open(cfg);
        // Fields in front of the sequence make the two layouts differ.
        velh_field_def_t f[] = {
            {"tag", VEL_DD_CHAR, 3}, {"id", VEL_DD_INT2, 0}, {"vals", VEL_DD_SEQUENCE_INT4, 0}};
        ASSERT_EQ(velh_class_define(db, "m", f, 3, GetParam().flags, GetParam().pm, &cls),
                  VEL_S_OK);
        ASSERT_EQ(velh_field_info(db, cls, 2, &fi), VEL_S_OK);
        ASSERT_NE(fi.u_offset, fi.c_offset);
        ASSERT_EQ(velh_connect(db, &reader), VEL_S_OK);
    }
    void TearDown() override {
        EXPECT_EQ(velh_disconnect(reader), VEL_S_OK);
        HostTest::TearDown();
    }
    VEL_RET append(vel_objhandle_t &o, int32_t from, int n) {
        std::vector<int32_t> v(static_cast<size_t>(n));
        std::iota(v.begin(), v.end(), from);
        return vel_w_seq_append_int4(&o, fi.u_offset, fi.c_offset, fi.fld_no, v.data(),
                                     static_cast<vel_size_t>(n), VEL_SEQ_NO_ORDER, nullptr);
    }
    uint64_t count(vel_db_connection_h c, uint64_t oid) {
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_open(c, cls, oid, &o), VEL_S_OK);
        vel_seq_no_t n = 0;
        EXPECT_EQ(vel_w_seq_count(&o, fi.u_offset, fi.c_offset, &n), VEL_S_OK);
        return n;
    }
    int32_t last(vel_db_connection_h c, uint64_t oid) {
        vel_objhandle_t o;
        EXPECT_EQ(velh_obj_open(c, cls, oid, &o), VEL_S_OK);
        int32_t v = -1;
        EXPECT_EQ(vel_w_seq_last_int4(&o, fi.u_offset, fi.c_offset, &v), VEL_S_OK);
        return v;
    }
    void check(vel_db_connection_h c, uint64_t oid, uint64_t elements) {
        vel_objhandle_t o;
        ASSERT_EQ(velh_obj_open(c, cls, oid, &o), VEL_S_OK);
        velh_tree_report_t rep;
        ASSERT_EQ(velh_check_tree(&o, fi.fld_no, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
        EXPECT_TRUE(rep.ok) << rep.message;
        EXPECT_EQ(rep.elements, elements);
    }
};

TEST_P(ModuleTest, SnapshotsRollbackAndRelease) {
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    vel_objhandle_t o;
    ASSERT_EQ(velh_obj_create(con, cls, &o), VEL_S_OK);
    int16_t id = 3;
    ASSERT_EQ(velh_set(&o, 1, &id, 2), VEL_S_OK);
    ASSERT_EQ(append(o, 0, 1000), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    const uint64_t pages_v1 = live_pages();
    ASSERT_GT(pages_v1, 3u) << "1000 values need a tree of several pages";

    ASSERT_EQ(velh_begin(reader, VELH_READ_ONLY), VEL_S_OK);
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(con, cls, o.oid, &o), VEL_S_OK);
    ASSERT_EQ(append(o, 1000, 700), VEL_S_OK);
    ASSERT_EQ(
        vel_w_seq_delete_int4(&o, fi.u_offset, fi.c_offset, fi.fld_no, 10, 209, VEL_SEQ_NO_ORDER),
        VEL_S_OK);
    EXPECT_EQ(count(con, o.oid), 1500u);
    EXPECT_EQ(count(reader, o.oid), 1000u) << "uncommitted appends leaked";
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(count(reader, o.oid), 1000u) << "a committed change reached an older snapshot";
    EXPECT_EQ(last(reader, o.oid), 999);
    check(reader, o.oid, 1000);
    ASSERT_EQ(velh_commit(reader), VEL_S_OK);

    // Rolled back: truncation and further appends leave no trace.
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    const uint64_t pages_v2 = live_pages();
    ASSERT_EQ(velh_obj_open(con, cls, o.oid, &o), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_truncate(&o, fi.u_offset, fi.c_offset, fi.fld_no), VEL_S_OK);
    ASSERT_EQ(append(o, 5, 3000), VEL_S_OK);
    EXPECT_EQ(count(con, o.oid), 3000u);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), pages_v2);
    ASSERT_EQ(velh_begin(reader, VELH_READ_ONLY), VEL_S_OK);
    EXPECT_EQ(count(reader, o.oid), 1500u);
    EXPECT_EQ(last(reader, o.oid), 1699);
    check(reader, o.oid, 1500);
    int16_t got = 0;
    vel_objhandle_t ro;
    ASSERT_EQ(velh_obj_open(reader, cls, o.oid, &ro), VEL_S_OK);
    ASSERT_EQ(velh_get(&ro, 1, &got, 2), VEL_S_OK);
    EXPECT_EQ(got, 3);
    ASSERT_EQ(velh_commit(reader), VEL_S_OK);

    // A failing append: the transaction is rolled back and nothing leaks.
    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(con, cls, o.oid, &o), VEL_S_OK);
    velh_fail_page_alloc(db, 4, 1);
    EXPECT_EQ(append(o, 0, 5000), VEL_E_NOMEM);
    velh_fail_page_alloc(db, 0, 0);
    ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), pages_v2);

    ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
    ASSERT_EQ(velh_obj_open(con, cls, o.oid, &o), VEL_S_OK);
    ASSERT_EQ(velh_obj_delete(&o), VEL_S_OK);
    ASSERT_EQ(velh_commit(con), VEL_S_OK);
    EXPECT_EQ(live_pages(), 0u);
}

INSTANTIATE_TEST_SUITE_P(
    Hosts, ModuleTest,
    ::testing::Values(Setup{VELH_PM_INMEM, 0, 0}, Setup{VELH_PM_INMEM, 0, VEL_CLASS_COMPACT},
                      Setup{VELH_PM_ALT, 0, 0}, Setup{VELH_PM_ALT, 0, VEL_CLASS_COMPACT},
                      Setup{VELH_PM_ALT, 1, VEL_CLASS_COMPACT}, Setup{VELH_PM_INMEM, 1, 0}),
    [](const auto &info) {
        return std::string(info.param.pm ? "Alt" : "Inmem") +
               (info.param.concurrent ? "Concurrent" : "") +
               (info.param.flags ? "Compact" : "Uncompact");
    });

} // namespace
} // namespace hosttest
