// The iterator record's resets, the run-length queries and the tile filler
// that every tree scan shares.
#include <cstring>

#include "common/trap.h"
#include "iter/iter_internal.h"
#include "storage/bitmap.h"
#include "storage/page_format.h"

using namespace velseq;

extern "C" {

VEL_SEQ_API vel_bool vel_seq_check_bindings = 1;

// Iterators whose positions start at 0: next_seq_no goes to 0, whatever
// first_seq_no says.
VEL_SEQ_API VEL_RET vel_seq_reset_iterator(vel_seq_iterator_h iterator) {
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->next_seq_no = 0;
    iterator->bounded = 0;
    iterator->prepared = 0;
    return VEL_S_OK;
}

VEL_SEQ_API VEL_RET vel_seq_reset_unary_iterator(vel_seq_iterator_h iterator) {
    vel_seq_iterator_h opd = iterator->opd[0];
    if (opd != nullptr) {
        VEL_RET rc = opd->reset(opd);
        if (rc != VEL_S_OK)
            return rc;
    }
    return vel_seq_reset_iterator(iterator);
}

// opd[2] is never reset.
VEL_SEQ_API VEL_RET vel_seq_reset_binary_iterator(vel_seq_iterator_h iterator) {
    for (int k = 0; k < 2; k++) {
        vel_seq_iterator_h opd = iterator->opd[k];
        if (opd != nullptr) {
            VEL_RET rc = opd->reset(opd);
            if (rc != VEL_S_OK)
                return rc;
        }
    }
    return vel_seq_reset_iterator(iterator);
}

// Tiles are never run-length encoded: every slot stands for one element.
VEL_SEQ_API vel_seq_rle_count_t vel_seq_rle_count(vel_seq_iterator_h, int) { return 1; }
VEL_SEQ_API vel_bool vel_seq_is_rle(void) { return 0; }

} // extern "C"

namespace velseq {

// Copies runs of leaf values into `dst` (elements) and `dst_nulls` (bits,
// which must be clear from `n` on) behind its first `n` elements until it
// holds `limit`, the range ends or the tree does, moving the scan on as it
// goes; `n` is left at the new count.  VEL_S_CURSOR_END when the tree ended
// (its stack then empty), VEL_E_NOMEM for a missing page, VEL_S_OK
// otherwise.  A run of `limit` = k * 128 leaves the scan exactly where k
// tile fills would: runs join only inside a leaf or across its end.
VEL_RET fill_runs(vel_seq_iterator_h iterator, char *dst, vel_bitmap_word_t *dst_nulls, uint64_t &n,
                  uint64_t limit) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    int i = ctx->stack_size - 1;
    const int32_t page_size = static_cast<int32_t>(ctx->page_size);
    const size_t elem_size = iterator->elem_size;
    const uint64_t capacity = leaf_capacity_by_size(page_size, elem_size);
    vel_seq_iterator_stack_item_t *stack = ctx->stack;
    int step = 0; // 1 after a pop: the parent moves to its next child

    for (;;) {
        // Find the next leaf run, popping exhausted pages.
        vel_seq_page_t *pg;
        for (;;) {
            pg = stack[i].page;
            if (pg == nullptr)
                return VEL_E_NOMEM;
            stack[i].pos += step;
            if (stack[i].pos != pg->hdr.user)
                break;
            if (--i < 0) {
                ctx->stack_size = 0;
                return VEL_S_CURSOR_END;
            }
            step = 1;
        }
        step = 0;
        VEL_SEQ_CHECK(pg->hdr.user > stack[i].pos);

        while (page_kind(pg) != kLeafPage) {
            VEL_SEQ_CHECK(page_kind(pg) == kInnerPage);
            VEL_SEQ_CHECK(i + 1 <= kMaxLevel);
            VEL_SEQ_CHECK(stack[i].pos <= pg->hdr.user);
            vel_seq_page_t *child = inner_entry(pg, page_size, stack[i].pos)->page;
            stack[i + 1].page = child;
            i++;
            stack[i].pos = 0;
            if (child == nullptr)
                return VEL_E_NOMEM;
            pg = child;
        }

        VEL_SEQ_CHECK(pg->hdr.user > stack[i].pos);
        // Entering a leaf at its start: ask for the start of the parent's
        // next leaf while this one is copied (the hardware prefetcher stops
        // at a page's end, and follows the values once their first lines
        // are read).
        if (stack[i].pos == 0 && i > 0)
            if (const vel_seq_page_t *next =
                    next_child(stack[i - 1].page, stack[i - 1].pos, page_size))
                layout::prefetch_leaf_start(next, page_size, capacity, 8);
        uint64_t k = static_cast<uint64_t>(pg->hdr.user - stack[i].pos);
        // Written as k - 1 > last - next so that an unbounded last cannot overflow.
        if (k - 1 > iterator->last_seq_no - iterator->next_seq_no)
            k = iterator->last_seq_no - iterator->next_seq_no + 1;
        if (limit - n < k)
            k = limit - n;

        std::memcpy(dst + n * elem_size,
                    page_value(pg, elem_size, static_cast<uint64_t>(stack[i].pos)), k * elem_size);
        // The destination's bits from n on are clear: a run whose mask
        // words hold no null has nothing to copy.
        const vel_bitmap_word_t *mask = leaf_nulls(pg, page_size, capacity);
        bool nulls = false;
        for (uint64_t w = static_cast<uint64_t>(stack[i].pos) / 64;
             w <= (static_cast<uint64_t>(stack[i].pos) + k - 1) / 64; w++)
            nulls |= mask[w] != 0;
        if (nulls)
            vel_seq_copy_bitmap(dst_nulls, static_cast<int>(n), mask, stack[i].pos,
                                static_cast<int>(k));

        iterator->next_seq_no += k;
        stack[i].pos += static_cast<int32_t>(k);
        ctx->stack_size = static_cast<uint8_t>(i + 1);
        n += k;
        if (n == limit || iterator->next_seq_no > iterator->last_seq_no)
            return VEL_S_OK;
    }
}

} // namespace velseq

// Appends runs of leaf values behind the tile's tile_size elements until the
// tile holds 128, the range ends or the tree does.  The whole tile null
// bitmap is cleared first, so a second call into a non-empty tile loses the
// null flags of what was already there; the cross-object scan relies on this
// as it stands.
VEL_RET vel_seq_append_tile(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    if (ctx->stack_size < 1)
        return VEL_S_CURSOR_END;
    if (iterator->next_seq_no > iterator->last_seq_no)
        return VEL_S_CURSOR_END;
    if (ctx->con->trans.error_code != 0)
        return ctx->con->trans.error_code;
    vel_seq_reset_null_bitmap(iterator);
    uint64_t n = iterator->tile_size;
    const VEL_RET rc = fill_runs(iterator, iterator->tile.u.arr_char, iterator->tile.null_bitmap, n,
                                 VEL_SEQ_TILE_SIZE);
    if (rc == VEL_E_NOMEM || (rc == VEL_S_CURSOR_END && n == 0))
        return rc;
    iterator->tile_size = static_cast<uint16_t>(n);
    return VEL_S_OK;
}

namespace {

// No null among the `n` bits of `mask` from `from` on, 1 <= n <= 128: such a
// run spans at most three words, and a run that spans three holds bit
// from + n / 2 in the middle one.
bool no_nulls(const vel_bitmap_word_t *mask, uint64_t from, uint64_t n) {
    return (mask[from / 64] | mask[(from + n / 2) / 64] | mask[(from + n - 1) / 64]) == 0;
}

// The scan can go on: a path in hand, the range not used up, the
// transaction sound.  What vel_seq_append_tile checks before it fills.
bool scan_goes_on(vel_seq_iterator_h iterator, const vel_seq_iterator_context_t *ctx) {
    return ctx->stack_size >= 1 && iterator->next_seq_no <= iterator->last_seq_no &&
           ctx->con->trans.error_code == 0;
}

// Two kinds of tile that fill_runs would fill from leaves free of nulls, each in
// a fraction of its instructions (a tile scan is bound by its instructions,
// not the memory).  Both leave the iterator exactly as fill_runs would, and
// return false, nothing changed, for every other case: the range's end, a
// null, a page missing or of the wrong kind (fill_runs answers or traps).

// The common tile: 128 elements inside the leaf at the top of the stack.
// Not for a leaf entered at its start (its neighbour to prefetch).
bool whole_tile_in_leaf(vel_seq_iterator_h iterator, vel_seq_iterator_context_t *ctx) {
    constexpr uint64_t kTile = VEL_SEQ_TILE_SIZE;
    vel_seq_iterator_stack_item_t &top = ctx->stack[ctx->stack_size - 1];
    vel_seq_page_t *pg = top.page;
    // Signed: a position outside the leaf (a corrupt stack) must fail here.
    if (pg == nullptr || page_kind(pg) != kLeafPage || top.pos <= 0 ||
        pg->hdr.user - top.pos < static_cast<int32_t>(kTile) ||
        iterator->last_seq_no - iterator->next_seq_no < kTile - 1)
        return false;
    const auto pos = static_cast<uint64_t>(top.pos);
    const size_t elem_size = iterator->elem_size;
    const int32_t page_size = static_cast<int32_t>(ctx->page_size);
    if (!no_nulls(leaf_nulls(pg, page_size, leaf_capacity_by_size(page_size, elem_size)), pos,
                  kTile))
        return false;
    const auto *src = reinterpret_cast<const char *>(page_value(pg, elem_size, pos));
    // The next tile's lines into L1 while the caller works on this one: its
    // copy then waits on no miss.  A prefetch never faults: lines past the
    // page are harmless.
    layout::prefetch_lines<true>(src + kTile * elem_size, src + 2 * kTile * elem_size);
    vel_seq_reset_null_bitmap(iterator);
    iterator->next_seq_no += kTile;
    top.pos += static_cast<int32_t>(kTile);
    iterator->tile_size = static_cast<uint16_t>(kTile);
    // Last, so that nothing lives across the call: fewer registers to save.
    std::memcpy(iterator->tile.u.arr_char, src, kTile * elem_size);
    return true;
}

// The tile across a leaf's end: the rest of the leaf at the top of the
// stack (possibly none), then the start of the parent's next leaf, which
// becomes the top.  One tile in eight of an int4 scan; fill_runs took
// about 2.5 times a whole tile's time for it.
bool tile_across_leaves(vel_seq_iterator_h iterator, vel_seq_iterator_context_t *ctx) {
    constexpr int32_t kTile = VEL_SEQ_TILE_SIZE;
    const int t = ctx->stack_size - 1;
    if (t < 1 || iterator->last_seq_no - iterator->next_seq_no < kTile - 1)
        return false;
    vel_seq_iterator_stack_item_t &top = ctx->stack[t];
    vel_seq_iterator_stack_item_t &up = ctx->stack[t - 1];
    vel_seq_page_t *pg = top.page;
    vel_seq_page_t *parent = up.page;
    if (pg == nullptr || parent == nullptr || page_kind(pg) != kLeafPage ||
        page_kind(parent) != kInnerPage || top.pos < 0 || up.pos < 0)
        return false;
    const int32_t left = pg->hdr.user - top.pos; // elements of the tile in this leaf
    if (left < 0 || left >= kTile)
        return false;
    const int32_t page_size = static_cast<int32_t>(ctx->page_size);
    vel_seq_page_t *next = next_child(parent, up.pos, page_size);
    if (next == nullptr || page_kind(next) != kLeafPage || next->hdr.user < kTile - left)
        return false;
    const size_t elem_size = iterator->elem_size;
    const uint64_t capacity = leaf_capacity_by_size(page_size, elem_size);
    const auto pos = static_cast<uint64_t>(top.pos);
    if ((left > 0 && !no_nulls(leaf_nulls(pg, page_size, capacity), pos, left)) ||
        !no_nulls(leaf_nulls(next, page_size, capacity), 0, kTile - left))
        return false;
    up.pos++;
    if (const vel_seq_page_t *after = next_child(parent, up.pos, page_size))
        layout::prefetch_leaf_start(after, page_size, capacity, 8);
    vel_seq_reset_null_bitmap(iterator);
    char *dst = iterator->tile.u.arr_char;
    std::memcpy(dst, page_value(pg, elem_size, pos), left * elem_size);
    std::memcpy(dst + left * elem_size, page_value(next, elem_size, 0), (kTile - left) * elem_size);
    top.page = next;
    top.pos = kTile - left;
    iterator->next_seq_no += kTile;
    iterator->tile_size = static_cast<uint16_t>(kTile);
    return true;
}

// Out of line, so that the common tile's path saves fewer registers.
[[gnu::noinline]] VEL_RET next_tile_filled(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    if (scan_goes_on(iterator, ctx) && tile_across_leaves(iterator, ctx))
        return VEL_S_OK;
    iterator->tile_size = 0;
    return vel_seq_append_tile(iterator);
}

} // namespace

VEL_RET vel_seq_next_tile(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    if (scan_goes_on(iterator, ctx) && whole_tile_in_leaf(iterator, ctx))
        return VEL_S_OK;
    return next_tile_filled(iterator);
}

// Reset of the cursor-driven scans: the cursor's own code is returned, the
// scan state is cleared whatever it said.  Like every reset here it also
// unbinds the iterator, so a cursor scan used as an operand can be taken
// again after its consumer was reset.
VEL_RET vel_seq_reset_cursor(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    VEL_RET rc = vel_cursor_first(reinterpret_cast<vel_trans_h>(ctx->con), ctx->cursor);
    ctx->stack_size = 0;
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->next_seq_no = 0;
    iterator->bounded = 0;
    return rc;
}
