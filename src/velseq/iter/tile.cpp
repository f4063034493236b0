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

// The common tile: 128 elements inside the leaf at the top of the stack,
// none of them null.  Does what fill_runs does for it in half the
// instructions (a tile scan is bound by its instructions, not the memory).
// False, nothing changed, for every other case: a leaf entered (its
// neighbour to prefetch) or left, the range's end, a null, a page that is
// missing or not a leaf (fill_runs answers or traps).
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
    const vel_bitmap_word_t *mask =
        leaf_nulls(pg, page_size, leaf_capacity_by_size(page_size, elem_size));
    // 128 bits span at most three mask words.
    if ((mask[pos / 64] | mask[(pos + kTile / 2) / 64] | mask[(pos + kTile - 1) / 64]) != 0)
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

// Out of line, so that the common tile's path saves fewer registers.
[[gnu::noinline]] VEL_RET next_tile_filled(vel_seq_iterator_h iterator) {
    iterator->tile_size = 0;
    return vel_seq_append_tile(iterator);
}

} // namespace

VEL_RET vel_seq_next_tile(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    if (ctx->stack_size >= 1 && iterator->next_seq_no <= iterator->last_seq_no &&
        ctx->con->trans.error_code == 0 && whole_tile_in_leaf(iterator, ctx))
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
