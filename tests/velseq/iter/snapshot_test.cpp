// An iterator opened in a read transaction keeps delivering the version it
// started on while another connection changes the field and commits.
#include "iter_env.h"

namespace itest {
namespace {

constexpr vel_seq_no_t kAll = ~vel_seq_no_t{0};

TEST_F(BareHostTest, IteratorsKeepTheirSnapshot) {
    const Field &f = host->seq[F_INT4];
    const Field &g = host->seq[F_DOUBLE];
    std::vector<vel_int4> v;
    std::vector<vel_double> w;
    for (int i = 0; i < 500; i++) {
        v.push_back(i * 2);
        w.push_back(i + 0.25);
    }
    vel_objhandle_t o = host->create();
    put<Fam_int4>(o, f, v, VEL_SEQ_ASC_ORDER);
    put<Fam_double>(o, g, w, VEL_SEQ_NO_ORDER);
    host->commit();

    // Reader on connection 1.
    host->begin_read(1);
    vel_objhandle_t r = host->open(o, 1);
    vel_seq_iterator_t scan{}, search{}, pos{}, map{};
    ASSERT_EQ(vel_w_seq_subseq_int4(&r, f.u, f.c, &scan, 0, kAll), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_search_int4(&r, f.u, f.c, &search, 100, VEL_SEQ_BOUNDARY_INCLUSIVE, 700,
                                    VEL_SEQ_BOUNDARY_EXCLUSIVE, VEL_SEQ_ASC_ORDER),
              VEL_S_OK);
    ASSERT_EQ(vel_w_seq_join_int4(&r, f.u, f.c, &pos, &search, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    ASSERT_EQ(vel_w_seq_map_double(&r, g.u, g.c, &map, &pos), VEL_S_OK);
    ASSERT_EQ(scan.next(&scan), VEL_S_OK);
    ASSERT_EQ(scan.tile_size, 128);

    // Writer on connection 0: insert at the front, overwrite by delete,
    // append at the end, and commit.
    host->begin_write(0);
    vel_objhandle_t wr = host->open(o, 0);
    const vel_int4 front[] = {-10, -8, -6};
    ASSERT_EQ(vel_w_seq_insert_int4(&wr, f.u, f.c, f.no, 0, front, 3, VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    ASSERT_EQ(vel_w_seq_delete_int4(&wr, f.u, f.c, f.no, 200, 260, VEL_SEQ_ASC_ORDER), VEL_S_OK);
    std::vector<vel_int4> more;
    for (int i = 0; i < 300; i++)
        more.push_back(2000 + i);
    put<Fam_int4>(wr, f, more, VEL_SEQ_ASC_ORDER);
    const vel_double d0 = -1;
    ASSERT_EQ(vel_w_seq_insert_double(&wr, g.u, g.c, g.no, 0, &d0, 1, VEL_SEQ_NO_ORDER, nullptr),
              VEL_S_OK);
    host->commit(0);

    // The reader goes on with the old version.
    auto rest = drain<Fam_int4>(&scan);
    ASSERT_EQ(rest.end, VEL_S_CURSOR_END);
    ASSERT_EQ(rest.vals.size(), 372u);
    for (size_t i = 0; i < rest.vals.size(); i++)
        ASSERT_EQ(rest.vals[i], v[128 + i]) << i;
    ASSERT_EQ(scan.reset(&scan), VEL_S_OK);
    EXPECT_EQ(drain<Fam_int4>(&scan).vals, v);

    // search (50..349) -> join (same positions) -> map over the other field
    auto mapped = drain<Fam_double>(&map);
    ASSERT_EQ(mapped.vals.size(), 300u);
    for (size_t i = 0; i < 300; i++)
        ASSERT_EQ(mapped.vals[i], w[50 + i]) << i;
    host->commit(1);

    // A new read transaction sees the new version.
    host->begin_read(1);
    vel_objhandle_t r2 = host->open(o, 1);
    vel_seq_no_t count = 0;
    ASSERT_EQ(vel_w_seq_count(&r2, f.u, f.c, &count), VEL_S_OK);
    EXPECT_EQ(count, 500u + 3 - 61 + 300);
    ASSERT_EQ(vel_w_seq_subseq_int4(&r2, f.u, f.c, &scan, 0, 0), VEL_S_OK);
    ASSERT_EQ(scan.next(&scan), VEL_S_OK);
    EXPECT_EQ(scan.tile.u.arr_int4[0], -10);
    host->commit(1);
}

} // namespace
} // namespace itest
