// The depth limit of the one tree walk, as every user of it reports it: a
// chain of single-child inner pages over a leaf is sound at 14 levels and
// refused at 15 by the host's checker and compaction, the tools' statistics
// and the harness's checker alike.
#include <gtest/gtest.h>

#include <string>

#include "harness/tree_check.h"
#include "veltools.h"

namespace {

TEST(TreeWalk, EveryWalkRefusesALevelBelowTheDeepest) {
    constexpr int32_t kPage = 256;
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = kPage;
    velh_db_t *db = nullptr;
    ASSERT_EQ(velh_db_open(&cfg, &db), VEL_S_OK);
    velh_field_def_t def{};
    def.name = "v";
    def.type = VEL_DD_SEQUENCE_INT4;
    uint16_t cls = 0;
    ASSERT_EQ(velh_class_define(db, "c", &def, 1, 0, VELH_PM_INMEM, &cls), VEL_S_OK);
    velh_field_info_t fi{};
    ASSERT_EQ(velh_field_info(db, cls, 0, &fi), VEL_S_OK);
    vel_db_connection_h con = nullptr;
    ASSERT_EQ(velh_connect(db, &con), VEL_S_OK);
    const velt_field_t field{fi.u_offset, fi.c_offset, 0, {VEL_DD_INT4, 4}, VEL_SEQ_NO_ORDER};
    for (int levels : {VEL_SEQ_MAX_DEPTH, VEL_SEQ_MAX_DEPTH + 1}) {
        SCOPED_TRACE(levels);
        const bool sound = levels <= VEL_SEQ_MAX_DEPTH;
        ASSERT_EQ(velh_begin(con, VELH_READ_WRITE), VEL_S_OK);
        vel_objhandle_t obj{};
        ASSERT_EQ(velh_obj_create(con, cls, &obj), VEL_S_OK);
        vel_seq_page_t *root = nullptr;
        for (int l = 0; l < levels; ++l) {
            vel_seq_page_t *pg = nullptr, *slot = nullptr;
            ASSERT_EQ(vel_seq_create_page(con, obj.pm, &pg, &slot, l == 0 ? 3 : 2), VEL_S_OK);
            pg->hdr.user = l == 0 ? 3 : 1;
            if (l > 0)
                *reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<char *>(pg) + kPage -
                                                    16) = {root, 3};
            root = pg;
        }
        VEL_WRK w;
        ASSERT_EQ(vel_writing(&obj, &w, 0, fi.fld_no), 0);
        *static_cast<vel_seq_page_t **>(vel_obj_pos(w.pobj, con, w.pm, obj.mo + fi.offset, 1)) =
            root;
        vel_end_writing(&obj, &w);

        velh_tree_report_t rep;
        ASSERT_EQ(velh_check_tree(&obj, 0, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
        EXPECT_EQ(rep.ok != 0, sound) << rep.message;
        EXPECT_EQ(rep.depth, sound ? uint32_t(levels) : 0u);
        velt_tree_stats_t st;
        velt_error_t err{};
        EXPECT_EQ(velt_tree_stats(&obj, &field, &st, &err), sound ? VELT_OK : VELT_E_BAD_TREE);
        EXPECT_EQ(err.index, sound ? 0u : uint64_t(VEL_SEQ_MAX_DEPTH)) << err.message;
        velrel::TreeInfo info;
        const std::string bad = velrel::check_tree(velrel::family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER,
                                                   root, kPage, true, &info);
        EXPECT_EQ(bad.empty(), sound) << bad;
        EXPECT_EQ(velh_compact(&obj, 0, VEL_SEQ_NO_ORDER),
                  sound ? VEL_S_OK : VEL_E_HOST_TREE_DEPTH);
        ASSERT_EQ(velh_rollback(con), VEL_S_OK);
    }
    EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
    EXPECT_EQ(velh_db_close(db), VEL_S_OK);
}

} // namespace
