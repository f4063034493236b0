// The tile filler on hand-built page trees (a missing page, a failed
// transaction, the traps for corrupt trees) and the reset rules.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

#include "iter/iter_internal.h"
#include "seq_fixture.h"
#include "storage/page_format.h"

namespace velrel {
namespace {

constexpr int32_t kPage = 4096; // int4 leaves hold up to 990 values
int32_t page_size_fn(vel_db_connection_h) { return kPage; }

class TileTest : public ::testing::Test {
  protected:
    void SetUp() override {
        std::memset(&con, 0, sizeof con);
        pm.large_page_size = page_size_fn;
        velh_set_trap_handler(throwing_trap, nullptr);
    }
    void TearDown() override { velh_set_trap_handler(nullptr, nullptr); }

    vel_seq_page_t *page(int kind, int user) {
        auto *p = static_cast<vel_seq_page_t *>(std::aligned_alloc(16, kPage));
        std::memset(p, 0, kPage);
        p->hdr.kind = static_cast<uint8_t>(kind | 0x50); // high bits are the host's
        p->hdr.user = static_cast<uint16_t>(user);
        owned.emplace_back(p, &std::free);
        return p;
    }
    // A leaf of int4 values base, base + 1, ... base + n - 1.
    vel_seq_page_t *leaf(int n, int base = 0) {
        vel_seq_page_t *p = page(velseq::kLeafPage, n);
        for (int i = 0; i < n; i++)
            reinterpret_cast<vel_int4 *>(velseq::page_values(p))[i] = base + i;
        return p;
    }
    vel_seq_page_t *inner(std::vector<std::pair<vel_seq_page_t *, uint64_t>> kids) {
        vel_seq_page_t *p = page(velseq::kInnerPage, static_cast<int>(kids.size()));
        for (size_t i = 0; i < kids.size(); i++)
            *velseq::inner_entry(p, kPage, static_cast<int64_t>(i)) = {kids[i].first,
                                                                       kids[i].second};
        return p;
    }
    // A scan of the tree under `root` from element `from` to `last`.
    void start(vel_seq_page_t *root, uint64_t from, uint64_t last) {
        it = vel_seq_iterator_t{};
        it.elem_size = 4;
        it.elem_type = VEL_DD_INT4;
        velseq::iter_ctx(&it)->con = &con;
        velseq::iter_ctx(&it)->pm = &pm;
        velseq::iter_ctx(&it)->page_size = kPage;
        ASSERT_EQ(vel_seq_subseq_page(&con, &pm, &it, root, from, 0), VEL_S_OK);
        it.first_seq_no = it.next_seq_no = from;
        it.last_seq_no = last;
    }

    std::vector<std::unique_ptr<vel_seq_page_t, decltype(&std::free)>> owned;
    vel_db_connection_t con;
    vel_page_manager_t pm{};
    vel_seq_iterator_t it{};
};

TEST_F(TileTest, MissingPageAndFailedTransaction) {
    auto *root = inner({{leaf(100), 100}, {nullptr, 100}});
    start(root, 90, ~vel_seq_no_t{0});
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_E_NOMEM);
    EXPECT_EQ(it.tile_size, 0) << "tile_size is not updated for the copied run";
    EXPECT_EQ(it.next_seq_no, 100u) << "but the run is counted";

    // A failed transaction is reported before anything is read or changed.
    start(root, 0, 50);
    con.trans.error_code = VEL_E_HOST_TRANS_FAILED;
    it.tile.null_bitmap[0] = 7;
    EXPECT_EQ(vel_seq_next_tile(&it), VEL_E_HOST_TRANS_FAILED);
    EXPECT_EQ(it.tile.null_bitmap[0], 7u);
    EXPECT_EQ(it.next_seq_no, 0u);
    con.trans.error_code = VEL_S_OK;
    ASSERT_EQ(vel_seq_next_tile(&it), VEL_S_OK);
    EXPECT_EQ(it.tile_size, 51);
}

// Every start and a range end at each distance from a tile's size, over two
// leaves whose lengths are not multiples of 128, with lone nulls: a tile
// may span three mask words with a null in any of them, end with the range
// or a leaf, or cross into the next leaf, first with no null near the
// leaves' seam, then with one on either side of it.  Values equal their
// positions.
TEST_F(TileTest, EveryRangeMatchesItsPositions) {
    const int n0 = 300, n1 = 700, n = n0 + n1;
    for (const std::vector<int> &nulls : {std::vector<int>{70, n0 + 200, n0 + 450},
                                          std::vector<int>{70, n0 - 3, n0 + 100, n0 + 200}}) {
        vel_seq_page_t *l0 = leaf(n0), *l1 = leaf(n1, n0);
        for (int pos : nulls) {
            vel_seq_page_t *l = pos < n0 ? l0 : l1;
            const int i = pos < n0 ? pos : pos - n0;
            velseq::leaf_nulls(l, kPage, velseq::leaf_capacity_by_size(kPage, 4))[i / 64] |=
                uint64_t{1} << (i % 64);
        }
        auto *root = inner({{l0, n0}, {l1, n1}});
        for (int from = 0; from < n; from++) {
            for (int span : {126, 127, 128, 129, 255, n}) {
                const int last = std::min(from + span, n - 1);
                start(root, static_cast<uint64_t>(from), static_cast<uint64_t>(last));
                int at = from;
                while (vel_seq_next_tile(&it) == VEL_S_OK) {
                    for (int t = 0; t < it.tile_size; t++, at++) {
                        const bool null = (it.tile.null_bitmap[t / 64] >> (t % 64)) & 1;
                        const bool want = std::count(nulls.begin(), nulls.end(), at) != 0;
                        ASSERT_EQ(null, want) << "position " << at << " from " << from;
                        if (!null) {
                            ASSERT_EQ(it.tile.u.arr_int4[t], at) << "from " << from;
                        }
                    }
                }
                ASSERT_EQ(at, last + 1) << "from " << from << " to " << last;
            }
        }
    }
}

// A page of neither kind, a path deeper than 14 levels and an empty page on
// the path trap rather than deliver garbage.
TEST_F(TileTest, CorruptTreesTrap) {
    start(inner({{leaf(1), 1}, {page(5, 10), 10}}), 0, ~vel_seq_no_t{0});
    EXPECT_THROW(vel_seq_next_tile(&it), TrapHit);
    vel_seq_page_t *deep = leaf(3);
    for (int level = 0; level < 15; level++)
        deep = inner({{deep, 3}});
    EXPECT_THROW(vel_seq_subseq_page(&con, &pm, &it, deep, 0, 0), TrapHit);
    auto *empty = inner({{page(velseq::kLeafPage, 0), 1}}); // the count leads into it
    EXPECT_THROW(vel_seq_subseq_page(&con, &pm, &it, empty, 0, 0), TrapHit);
}

// Operands whose reset counts calls and returns a chosen code.
vel_seq_iterator_t g_opd[3];
int g_resets[3];
VEL_RET g_rc[3];
VEL_RET counting_reset(vel_seq_iterator_h it) { return g_resets[it - g_opd]++, g_rc[it - g_opd]; }

// A reset goes to position 0 (not first_seq_no) and keeps the range; unary
// and binary resets reset their operands first (never a third), skip null
// ones and stop, changing nothing, at the first operand that fails.
TEST(IteratorReset, OperandsFirstAndStopOnFailure) {
    using Fn = VEL_RET (*)(vel_seq_iterator_h);
    const struct {
        Fn reset;
        bool null_first;
        int failing; // operand whose reset fails, -1: none
        VEL_RET rc;
        std::array<int, 3> resets;
    } rows[] = {
        {vel_seq_reset_iterator, false, -1, VEL_S_OK, {0, 0, 0}},
        {vel_seq_reset_unary_iterator, false, -1, VEL_S_OK, {1, 0, 0}},
        {vel_seq_reset_unary_iterator, false, 0, VEL_E_NOMEM, {1, 0, 0}},
        {vel_seq_reset_unary_iterator, true, -1, VEL_S_OK, {0, 0, 0}},
        {vel_seq_reset_binary_iterator, false, -1, VEL_S_OK, {1, 1, 0}},
        {vel_seq_reset_binary_iterator, true, -1, VEL_S_OK, {0, 1, 0}},
        {vel_seq_reset_binary_iterator, false, 0, VEL_S_NOTFOUND, {1, 0, 0}},
        {vel_seq_reset_binary_iterator, false, 1, VEL_E_SEQ_BOUNDED, {1, 1, 0}},
    };
    for (size_t r = 0; r < std::size(rows); r++) {
        SCOPED_TRACE(r);
        vel_seq_iterator_t top{};
        for (int k = 0; k < 3; k++) {
            g_opd[k].reset = counting_reset;
            g_resets[k] = 0;
            g_rc[k] = k == rows[r].failing ? rows[r].rc : VEL_S_OK;
            top.opd[k] = k == 0 && rows[r].null_first ? nullptr : &g_opd[k];
        }
        top.first_seq_no = 7, top.next_seq_no = 40, top.last_seq_no = 90;
        top.tile_size = 12, top.tile_offs = 3, top.bounded = 1, top.prepared = 1;
        EXPECT_EQ(rows[r].reset(&top), rows[r].rc);
        EXPECT_EQ((std::array<int, 3>{g_resets[0], g_resets[1], g_resets[2]}), rows[r].resets);
        const bool ok = rows[r].rc == VEL_S_OK;
        EXPECT_EQ(top.next_seq_no, ok ? 0u : 40u);
        EXPECT_EQ(top.tile_size, ok ? 0 : 12);
        EXPECT_EQ(top.tile_offs, ok ? 0 : 3);
        EXPECT_EQ(top.bounded + top.prepared, ok ? 0 : 2);
        EXPECT_EQ(top.first_seq_no + top.last_seq_no, 97u);
    }
}

} // namespace
} // namespace velrel
