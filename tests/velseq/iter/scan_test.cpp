// Resets, run-length queries and the positional scan.
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

// ---- positional scan -----------------------------------------------------

template <class F>
void expect_range(const Drained<F> &d, const std::vector<typename F::T> &model,
                  const std::vector<bool> &model_nulls, uint64_t from, uint64_t till) {
    uint64_t end = std::min<uint64_t>(till, model.size() - 1);
    ASSERT_EQ(d.end, VEL_S_CURSOR_END);
    ASSERT_EQ(d.vals.size(), end - from + 1) << "range " << from << ".." << till;
    for (uint64_t i = 0; i < d.vals.size(); i++) {
        ASSERT_TRUE(F::eq(d.vals[i], model[from + i])) << "position " << from + i;
        ASSERT_EQ(d.nulls[i], model_nulls[from + i]) << "null bit of position " << from + i;
    }
    for (size_t t = 0; t + 1 < d.tiles.size(); t++)
        EXPECT_EQ(d.tiles[t], 128) << "only the last tile may be short";
}

TYPED_TEST_SUITE(FamilyTest, AllFamilies, FamilyNames);

TYPED_TEST(FamilyTest, ScanRangesAgainstModel) {
    using F = TypeParam;
    const uint64_t cap = leaf_cap(F::size);
    const size_t n = 3 * cap + 77;
    const std::vector<size_t> null_at = {0,   5,       63,  64,          127,  128,
                                         129, cap - 1, cap, 2 * cap + 3, n - 1};
    auto model = random_vals<F>(n, 11);
    std::vector<bool> nulls(n, false);
    for (size_t i : null_at)
        nulls[i] = true;
    const Field &f = this->host->seq[F::index];
    this->template put<F>(this->obj, f, model, VEL_SEQ_NO_ORDER, null_at);

    vel_seq_iterator_t it{};
    // Ranges ending on a leaf boundary, starting mid-word, single elements,
    // the last element, beyond the end.
    const std::vector<std::pair<uint64_t, uint64_t>> ranges = {
        {0, cap - 1},     {cap, 2 * cap - 1}, {37, cap - 1},     {cap - 1, cap},
        {5, 5},           {n - 1, n - 1},     {0, n - 1},        {1, 1000000},
        {100, 100 + 255}, {63, 63 + 128},     {cap - 3, 3 * cap}};
    for (auto [from, till] : ranges) {
        SCOPED_TRACE("range " + std::to_string(from) + ".." + std::to_string(till));
        ASSERT_EQ(F::subseq(&this->obj, f.u, f.c, &it, from, till), VEL_S_OK);
        EXPECT_EQ(it.elem_type, F::code);
        EXPECT_EQ(it.elem_size, F::size);
        EXPECT_EQ(it.first_seq_no, from);
        EXPECT_EQ(it.last_seq_no, till);
        EXPECT_EQ(it.prepare, nullptr);
        expect_range<F>(drain<F>(&it), model, nulls, from, till);
        EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END) << "exhausted stays exhausted";
    }

    std::mt19937_64 rng(5);
    for (int round = 0; round < 40; round++) {
        uint64_t from = rng() % n, till = from + rng() % (n + 50 - from);
        SCOPED_TRACE("random range " + std::to_string(from) + ".." + std::to_string(till));
        ASSERT_EQ(F::subseq(&this->obj, f.u, f.c, &it, from, till), VEL_S_OK);
        expect_range<F>(drain<F>(&it), model, nulls, from, till);
    }
}

TYPED_TEST(FamilyTest, ScanTileBoundariesAndEnds) {
    using F = TypeParam;
    const uint64_t cap = leaf_cap(F::size);
    const size_t n = 128 * 5;
    auto model = random_vals<F>(n, 3);
    const Field &f = this->host->seq[F::index];
    this->template put<F>(this->obj, f, model, VEL_SEQ_NO_ORDER);
    vel_seq_iterator_t it{};

    // 128 x k elements: k full tiles, then the end.
    ASSERT_EQ(F::subseq(&this->obj, f.u, f.c, &it, 0, ~vel_seq_no_t{0}), VEL_S_OK);
    auto d = drain<F>(&it);
    EXPECT_EQ(d.end, VEL_S_CURSOR_END);
    EXPECT_EQ(d.tiles, std::vector<int>(5, 128));
    EXPECT_EQ(it.next_seq_no, n);

    // A range that ends on a leaf boundary stops there: the next call ends
    // on the range test and leaves the scan position alone.
    ASSERT_EQ(F::subseq(&this->obj, f.u, f.c, &it, cap - 10, cap - 1), VEL_S_OK);
    ASSERT_EQ(it.next(&it), VEL_S_OK);
    EXPECT_EQ(it.tile_size, 10);
    auto *ctx = ctx_of(it);
    const vel_seq_iterator_stack_item_t top = ctx->stack[ctx->stack_size - 1];
    const uint8_t depth = ctx->stack_size;
    EXPECT_EQ(top.pos, static_cast<int32_t>(cap));
    EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    EXPECT_EQ(ctx->stack_size, depth);
    EXPECT_EQ(ctx->stack[depth - 1].page, top.page);
    EXPECT_EQ(ctx->stack[depth - 1].pos, top.pos);

    // Reset after exhaustion delivers the same range again.
    ASSERT_EQ(F::subseq(&this->obj, f.u, f.c, &it, 200, 460), VEL_S_OK);
    auto first = drain<F>(&it);
    ASSERT_EQ(it.reset(&it), VEL_S_OK);
    EXPECT_EQ(it.next_seq_no, 200u);
    auto again = drain<F>(&it);
    EXPECT_EQ(first.tiles, again.tiles);
    ASSERT_EQ(again.vals.size(), 261u);
    for (size_t i = 0; i < again.vals.size(); i++)
        ASSERT_TRUE(F::eq(again.vals[i], model[200 + i])) << i;
    // Reset in the middle too.
    ASSERT_EQ(it.reset(&it), VEL_S_OK);
    ASSERT_EQ(it.next(&it), VEL_S_OK);
    ASSERT_EQ(it.reset(&it), VEL_S_OK);
    auto mid = drain<F>(&it);
    EXPECT_EQ(mid.vals.size(), 261u);

    // Failed set-ups leave the empty range; next ends, reset says NOTFOUND.
    const std::vector<std::pair<uint64_t, uint64_t>> bad = {
        {n, n + 5}, {n + 100, n + 100}, {10, 9}};
    for (auto [from, till] : bad) {
        SCOPED_TRACE("bad range " + std::to_string(from) + ".." + std::to_string(till));
        EXPECT_EQ(F::subseq(&this->obj, f.u, f.c, &it, from, till), VEL_S_NOTFOUND);
        EXPECT_EQ(it.first_seq_no, 1u);
        EXPECT_EQ(it.next_seq_no, 1u);
        EXPECT_EQ(it.last_seq_no, 0u);
        EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
        EXPECT_EQ(it.reset(&it), VEL_S_NOTFOUND);
        EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
    }

    // An empty field: NOTFOUND with the empty range.
    const Field &empty = this->host->out[F::index];
    EXPECT_EQ(F::subseq(&this->obj, empty.u, empty.c, &it, 0, 10), VEL_S_NOTFOUND);
    EXPECT_EQ(it.last_seq_no, 0u);
    EXPECT_EQ(it.next(&it), VEL_S_CURSOR_END);
}

// Null flags are shifted into tile order whatever the word alignment of the
// start, and a tile never keeps a stale flag from the previous tile.
TEST_F(HostTest, ScanShiftsNullBitsIntoTiles) {
    const size_t n = 1000;
    std::vector<vel_int2> vals(n);
    std::vector<size_t> null_at;
    std::mt19937_64 rng(17);
    std::vector<bool> nulls(n);
    for (size_t i = 0; i < n; i++) {
        vals[i] = static_cast<vel_int2>(i);
        nulls[i] = rng() % 3 == 0;
        if (nulls[i])
            null_at.push_back(i);
    }
    const Field &f = host->seq[F_INT2];
    put<Fam_int2>(obj, f, vals, VEL_SEQ_NO_ORDER, null_at);
    vel_seq_iterator_t it{};
    for (uint64_t from : {0, 1, 31, 63, 64, 65, 127, 200, 250, 251, 999}) {
        SCOPED_TRACE("from " + std::to_string(from));
        ASSERT_EQ(vel_w_seq_subseq_int2(&obj, f.u, f.c, &it, from, n - 1), VEL_S_OK);
        uint64_t p = from;
        while (it.next(&it) == VEL_S_OK) {
            for (int i = 0; i < it.tile_size; i++, p++) {
                ASSERT_EQ(it.tile.u.arr_int2[i], static_cast<vel_int2>(p));
                bool bit = (it.tile.null_bitmap[i / 64] >> (i % 64)) & 1;
                ASSERT_EQ(bit, nulls[p]) << "position " << p;
            }
            for (int i = it.tile_size; i < 128; i++)
                ASSERT_FALSE((it.tile.null_bitmap[i / 64] >> (i % 64)) & 1)
                    << "stale flag beyond the tile at slot " << i;
        }
        EXPECT_EQ(p, n);
    }
}

} // namespace
} // namespace itest
