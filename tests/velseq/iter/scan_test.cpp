// Resets and run-length queries (no tree involved).
#include <array>
#include <random>

#include "iter_env.h"

namespace itest {
namespace {

// ---- resets and run-length queries (no tree involved) --------------------

int g_resets[3];
VEL_RET g_reset_rc[3];
VEL_RET reset0(vel_seq_iterator_h it) { return it->bounded = 0, g_resets[0]++, g_reset_rc[0]; }
VEL_RET reset1(vel_seq_iterator_h it) { return it->bounded = 0, g_resets[1]++, g_reset_rc[1]; }
VEL_RET reset2(vel_seq_iterator_h it) { return it->bounded = 0, g_resets[2]++, g_reset_rc[2]; }

struct ResetRig {
    vel_seq_iterator_t top{}, a{}, b{}, c{};
    ResetRig() {
        for (int k = 0; k < 3; k++)
            g_resets[k] = 0, g_reset_rc[k] = VEL_S_OK;
        a.reset = reset0;
        b.reset = reset1;
        c.reset = reset2;
        a.bounded = b.bounded = c.bounded = 1;
        top.opd[0] = &a;
        top.opd[1] = &b;
        top.opd[2] = &c;
        top.first_seq_no = 7;
        top.next_seq_no = 40;
        top.last_seq_no = 90;
        top.tile_size = 12;
        top.tile_offs = 3;
        top.bounded = 1;
        top.prepared = 1;
    }
};

// A reset goes to position 0 (not first_seq_no) and keeps the range; unary
// and binary resets reset their operands first (never a third) and stop,
// changing nothing, at the first operand that fails.
TEST(IteratorReset, OperandsFirstAndStopOnFailure) {
    using Fn = VEL_RET (*)(vel_seq_iterator_h);
    const struct {
        const char *name;
        Fn reset;
        bool null_first;
        int failing; // operand whose reset fails, -1: none
        VEL_RET rc;
        std::array<int, 3> resets;
    } rows[] = {
        {"plain", vel_seq_reset_iterator, false, -1, VEL_S_OK, {0, 0, 0}},
        {"unary", vel_seq_reset_unary_iterator, false, -1, VEL_S_OK, {1, 0, 0}},
        {"unary, operand fails", vel_seq_reset_unary_iterator, false, 0, VEL_E_NOMEM, {1, 0, 0}},
        {"unary, no operand", vel_seq_reset_unary_iterator, true, -1, VEL_S_OK, {0, 0, 0}},
        {"binary", vel_seq_reset_binary_iterator, false, -1, VEL_S_OK, {1, 1, 0}},
        {"binary, no first operand", vel_seq_reset_binary_iterator, true, -1, VEL_S_OK, {0, 1, 0}},
        {"binary, first fails", vel_seq_reset_binary_iterator, false, 0, VEL_S_NOTFOUND, {1, 0, 0}},
        {"binary, second fails",
         vel_seq_reset_binary_iterator,
         false,
         1,
         VEL_E_SEQ_BOUNDED,
         {1, 1, 0}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.name);
        ResetRig r;
        if (row.null_first)
            r.top.opd[0] = nullptr;
        if (row.failing >= 0)
            g_reset_rc[row.failing] = row.rc;
        EXPECT_EQ(row.reset(&r.top), row.rc);
        EXPECT_EQ((std::array<int, 3>{g_resets[0], g_resets[1], g_resets[2]}), row.resets);
        const bool ok = row.rc == VEL_S_OK;
        EXPECT_EQ(r.top.next_seq_no, ok ? 0u : 40u);
        EXPECT_EQ(r.top.tile_size, ok ? 0 : 12);
        EXPECT_EQ(r.top.bounded, ok ? 0 : 1);
        EXPECT_EQ(r.top.first_seq_no, 7u);
        EXPECT_EQ(r.top.last_seq_no, 90u);
        if (ok) {
            EXPECT_EQ(r.top.tile_offs, 0);
            EXPECT_EQ(r.top.prepared, 0);
        }
    }
}

TEST(IteratorReset, TilesAreNeverRunLengthEncoded) {
    vel_seq_iterator_t it{};
    for (int pos : {0, 1, 127, 128, 5000, -3})
        EXPECT_EQ(vel_seq_rle_count(&it, pos), 1) << pos;
    EXPECT_EQ(vel_seq_rle_count(nullptr, 9), 1);
    EXPECT_EQ(vel_seq_is_rle(), 0);
    EXPECT_EQ(vel_seq_check_bindings, 1);
}

} // namespace
} // namespace itest
