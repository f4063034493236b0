// Iterators over iterators and the cursor scan's set-up, generic over the
// element policy E: store (drain into a field), map (gather at positions),
// join (positions of values in an ordered field) and from_cursor.
#pragma once

#include <algorithm>
#include <cstring>
#include <iterator>
#include <type_traits>

#include "common/trap.h"
#include "iter/batch.h"
#include "iter/iter_internal.h"
#include "iter/search.h"
#include "storage/append.h"
#include "storage/bitmap.h"
#include "storage/field_root.h"
#include "storage/page_format.h"
#include "storage/update_common.h"

namespace velseq {

// Appends every tile `src` still delivers, one append per tile (so one root
// update per tile, with append's order and null rules).  The target is not
// emptied and `src` is not reset; tiles are read from slot 0 as elements of
// the target's type.  `append(vals, n, null_bitmap)` is the family's append.
template <class Append> VEL_RET store_iter(vel_seq_iterator_h src, Append append) {
    for (;;) {
        VEL_RET rc = src->next(src);
        if (rc == VEL_S_CURSOR_END)
            return VEL_S_OK;
        if (rc != VEL_S_OK)
            return rc;
        rc = append(src->tile.u.arr_char, static_cast<vel_size_t>(src->tile_size),
                    src->tile.null_bitmap);
        if (rc != VEL_S_OK)
            return rc;
    }
}

// A run of values that a store hands to append: lent by a leaf of the
// source scan, or copied from tiles into the store's own buffer; the null
// bits go with them.
struct StoreRun {
    const byte *vals;
    const vel_bitmap_word_t *nulls;
    int nulls_offs;
    int n;
};

// Lends the values that tree scan `src` delivers next as runs straight
// from its leaves, appended behind `runs[n_runs]` (room for two), and moves
// the scan as tile fills would: the whole tiles that the leaf in hand still
// holds, at most `room` values, or else the tile that crosses into the next
// leaf (two runs; that leaf entered, the one after it asked for).  Never the
// range's last tile, whose null bits the scan keeps when it ends there.
// The values lent; 0, nothing changed, when there are none, when the next
// tile fill would fail or the tree is not so (the tile fill then answers or
// traps).
inline int lend_runs(vel_seq_iterator_h src, int room, StoreRun *runs, int &n_runs) {
    constexpr int32_t kTile = VEL_SEQ_TILE_SIZE;
    vel_seq_iterator_context_t *ctx = iter_ctx(src);
    if (ctx->stack_size < 1 || src->next_seq_no > src->last_seq_no ||
        ctx->con->trans.error_code != 0)
        return 0;
    vel_seq_iterator_stack_item_t &top = ctx->stack[ctx->stack_size - 1];
    vel_seq_page_t *leaf = top.page;
    if (leaf == nullptr || page_kind(leaf) != kLeafPage || top.pos < 0 || top.pos >= leaf->hdr.user)
        return 0;
    const uint64_t range = src->last_seq_no - src->next_seq_no; // values in it, less one
    if (range < kTile)
        return 0;
    const auto page_size = static_cast<int32_t>(ctx->page_size);
    const uint64_t capacity = leaf_capacity_by_size(page_size, src->elem_size);
    auto lend = [&](vel_seq_page_t *pg, int32_t pos, int32_t n) {
        runs[n_runs++] = {page_value(pg, src->elem_size, static_cast<uint64_t>(pos)),
                          leaf_nulls(pg, page_size, capacity), pos, n};
    };
    const int32_t left = leaf->hdr.user - top.pos;
    uint64_t k =
        std::min({static_cast<uint64_t>(left), range + 1 - kTile, static_cast<uint64_t>(room)});
    k = k / kTile * kTile;
    if (k > 0) {
        lend(leaf, top.pos, static_cast<int32_t>(k));
        top.pos += static_cast<int32_t>(k);
        src->next_seq_no += k;
        return static_cast<int>(k);
    }
    // The range holds more than this tile: it is not the last.
    if (left >= kTile || room < kTile || ctx->stack_size < 2)
        return 0;
    vel_seq_iterator_stack_item_t &up = ctx->stack[ctx->stack_size - 2];
    vel_seq_page_t *parent = up.page;
    if (parent == nullptr || page_kind(parent) != kInnerPage || up.pos < 0)
        return 0;
    vel_seq_page_t *next = next_child(parent, up.pos, page_size);
    if (next == nullptr || page_kind(next) != kLeafPage || next->hdr.user < kTile - left)
        return 0;
    lend(leaf, top.pos, left);
    lend(next, 0, kTile - left);
    up.pos++;
    top = {next, kTile - left};
    src->next_seq_no += kTile;
    prefetch_next_child(parent, up.pos, page_size);
    return kTile;
}

// Append's values as a list of non-empty runs, read in order.
template <class E> struct RunValues {
    const E &e;
    const StoreRun *run; // the current run
    int taken;           // values of *run already appended

    const byte *first() const { return run->vals + static_cast<size_t>(taken) * e.size(); }
    void put(vel_seq_page_t *pg, vel_bitmap_word_t *mask, int at, int n) const {
        const StoreRun *r = run;
        for (int t = taken; n > 0; r++, t = 0) {
            const int k = std::min(n, r->n - t);
            put_values(e, pg, mask, at, r->vals + static_cast<size_t>(t) * e.size(), k, r->nulls,
                       r->nulls_offs + t);
            at += k;
            n -= k;
        }
    }
    void advance(vel_size_t n) {
        for (auto left = static_cast<int>(n); left > 0;) {
            const int k = std::min(left, run->n - taken);
            left -= k;
            taken += k;
            if (taken == run->n) {
                run++;
                taken = 0;
            }
        }
    }
};

// store_iter for the scalar families, with the same outcome tile by tile,
// but tiles that append could take gathered and appended 8192 values at a
// time: one root update and whole leaves filled per batch instead of one
// per tile.  The first tile goes through append as it is (its checks against
// the stored data on every level); a later tile is batched only when
// append's input checks pass on it and its first value keeps the order
// after the previous tile's last.  With a total order (integers,
// datetimes) that is exactly when append would take it, since every key on
// the right edge lies at or before that last value; a tile that fails is
// appended alone after the batch, and fails as it would have.  Batching is
// only done for a source that cannot see the target's pages change: a tree
// scan (positional or search) whose root is not on the target's right edge,
// the only pages an append writes in place.  Float orders (a NaN key breaks
// transitivity) and every other source keep store_iter.  Only a failure
// that append's checks cannot foresee (no memory, a write access refused)
// can leave a batch's tiles out where one append per tile would have kept
// those before the failing one.
//
// Into a field without order (append checks nothing then) the whole tiles
// that the scan's current leaf still holds are not copied at all: the leaf
// lends them (and the tile that crosses into the next leaf is lent by the
// two), and the batch's append copies them straight into the target's
// leaves.  The source's pages stay as they are until then, since the
// append writes only pages of the target's right edge and new ones.
template <class E, class Append>
VEL_RET store_batched(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                      vel_offs32_t fld_c_offset, uint16_t fld_no, vel_seq_iterator_h src,
                      vel_seq_order_t order, Append append) {
    using T = typename E::value_type;
    if (src->next != vel_seq_next_tile ||
        (order != VEL_SEQ_NO_ORDER && std::is_floating_point_v<T>))
        return store_iter(src, append);
    const int32_t page_size = page_size_of(obj->con, obj->pm);
    {
        vel_seq_page_t *pg = nullptr;
        VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &pg);
        if (rc != VEL_S_OK)
            return store_iter(src, append);
        const vel_seq_page_t *src_root = iter_ctx(src)->stack[0].page;
        for (int level = 0; pg != nullptr && level <= kMaxLevel; level++) {
            if (pg == src_root)
                return store_iter(src, append);
            if (page_kind(pg) != kInnerPage || pg->hdr.user < 1)
                break;
            pg = inner_entry(pg, page_size, pg->hdr.user - 1)->page;
        }
    }

    constexpr int kBatch = 64 * VEL_SEQ_TILE_SIZE;
    constexpr size_t s = sizeof(T);
    const bool lend = order == VEL_SEQ_NO_ORDER && src->elem_size == s;
    alignas(64) byte vals[kBatch * s]; // tiles' values, copied
    vel_bitmap_word_t nulls[kBatch / 64] = {};
    StoreRun runs[kBatch / VEL_SEQ_TILE_SIZE + 2];
    int n_runs = 0;
    byte last[s] = {}; // the last value appended or batched
    bool first = true; // nothing appended yet
    int n = 0;         // values batched
    int copied = 0;    // of them in `vals`
    auto flush = [&]() -> VEL_RET {
        if (n == 0)
            return VEL_S_OK;
        VEL_RET rc;
        if (lend) {
            VEL_WRK w;
            vel_seq_page_t **slot = nullptr;
            rc = vel_seq_begin_root_update(obj, fld_u_offset, fld_c_offset, fld_no, &w, &slot);
            if (rc == VEL_S_OK) {
                rc = append_values(e, obj->con, obj->pm, page_size, slot, RunValues<E>{e, runs, 0},
                                   static_cast<vel_size_t>(n), order);
                vel_seq_end_root_update(obj, &w, slot);
            }
        } else {
            vel_bitmap_word_t any = 0;
            for (int w = 0; w < (n + 63) / 64; w++)
                any |= nulls[w];
            // No null: no bitmap, which append's leaves take as a cleared run.
            rc = append(reinterpret_cast<const char *>(vals), static_cast<vel_size_t>(n),
                        any != 0 ? nulls : nullptr);
        }
        std::memset(nulls, 0, sizeof(vel_bitmap_word_t) * static_cast<size_t>((copied + 63) / 64));
        n = copied = n_runs = 0;
        return rc;
    };
    for (;;) {
        // Runs that end where tiles end leave the scan where tile fills would.
        if (!first && lend && n_runs + 2 <= static_cast<int>(std::size(runs))) {
            if (const int k = lend_runs(src, kBatch - n, runs, n_runs); k > 0) {
                n += k;
                if (n == kBatch || n_runs + 2 > static_cast<int>(std::size(runs))) {
                    const VEL_RET frc = flush();
                    if (frc != VEL_S_OK)
                        return frc;
                }
                continue;
            }
        }
        VEL_RET rc = src->next(src);
        if (rc != VEL_S_OK) {
            const VEL_RET frc = flush();
            if (frc != VEL_S_OK)
                return frc;
            return rc == VEL_S_CURSOR_END ? VEL_S_OK : rc;
        }
        const int m = src->tile_size;
        const auto *tile = reinterpret_cast<const byte *>(src->tile.u.arr_char);
        const bool takes = !first && m > 0 &&
                           (order == VEL_SEQ_NO_ORDER || // append checks nothing then
                            (check_input(e, tile, static_cast<vel_size_t>(m), order,
                                         src->tile.null_bitmap) == VEL_S_OK &&
                             stored_then_new_ok(e, last, tile, order)));
        if (!takes) {
            rc = flush();
            if (rc == VEL_S_OK)
                rc =
                    append(src->tile.u.arr_char, static_cast<vel_size_t>(m), src->tile.null_bitmap);
            if (rc != VEL_S_OK)
                return rc;
            first = first && m == 0;
        } else {
            if (n + m > kBatch || n_runs == static_cast<int>(std::size(runs))) {
                rc = flush();
                if (rc != VEL_S_OK)
                    return rc;
            }
            byte *to = vals + static_cast<size_t>(copied) * s;
            std::memcpy(to, tile, static_cast<size_t>(m) * s);
            // The buffer's bits start cleared: a tile without a null adds none.
            if (vel_seq_bitmap_contains_nulls(src->tile.null_bitmap, m))
                vel_seq_copy_bitmap(nulls, copied, src->tile.null_bitmap, 0, m);
            // A tile right after a run of the buffer joins it: the buffer's
            // runs lie end to end, so the last one ends where this begins.
            if (n_runs > 0 && runs[n_runs - 1].nulls == nulls)
                runs[n_runs - 1].n += m;
            else
                runs[n_runs++] = {to, nulls, copied, m};
            copied += m;
            n += m;
        }
        if (m > 0)
            std::memcpy(last, tile + static_cast<size_t>(m - 1) * s, s);
    }
}

// Takes `opd` as an operand: refused while it is bound elsewhere and the
// bindings are checked; bound in either case.
inline VEL_RET bind_operand(vel_seq_iterator_h opd) {
    if (vel_seq_check_bindings && opd->bounded)
        return VEL_E_SEQ_BOUNDED;
    opd->bounded = 1;
    return VEL_S_OK;
}

// Map set-up.  The root is read into stack[0] before the positions
// iterator's type is looked at; an empty field is not refused here.
template <class E>
VEL_RET map_setup(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                  vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator,
                  vel_seq_iterator_h map_iterator, vel_seq_iterator_next_t next) {
    vel_db_connection_h con = obj->con;
    vel_page_manager_t *pm = obj->pm;
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &ctx->stack[0].page);
    if (rc != VEL_S_OK)
        return rc;
    if (map_iterator->elem_type != VEL_DD_UINT8)
        return VEL_E_ILLEGAL_TYPE;
    rc = bind_operand(map_iterator);
    if (rc != VEL_S_OK)
        return rc;

    iterator->elem_type = E::type_code;
    iterator->elem_size = static_cast<uint16_t>(e.size());
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->reset = vel_seq_reset_unary_iterator;
    iterator->next = next;
    iterator->prepare = nullptr;
    iterator->merge = nullptr;
    iterator->bounded = 0;
    iterator->opd[0] = map_iterator;
    ctx->pm = pm;
    ctx->con = con;
    ctx->cursor = nullptr;
    ctx->page_size = static_cast<uint32_t>(page_size_of(con, pm));
    iterator->next_seq_no = iterator->first_seq_no = 0;
    iterator->last_seq_no = kUnbounded;
    return VEL_S_OK;
}

// One map tile: the field's values (and null bits) at the positions of the
// positions iterator's next tile, in its order.  The leaf in hand serves
// every following position inside it; any other position descends from the
// root again.  The typed members add first_seq_no to each position, the
// char member does not.
template <class E> VEL_RET map_next(const E &e, vel_seq_iterator_h iterator) {
    vel_seq_iterator_h positions = iterator->opd[0];
    VEL_RET rc = positions->next(positions);
    if (rc != VEL_S_OK)
        return rc;

    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    const uint64_t n = positions->tile_size;
    vel_seq_reset_null_bitmap(iterator);

    const size_t size = e.size();
    const int32_t page_size = static_cast<int32_t>(ctx->page_size);
    const uint64_t capacity = e.leaf_capacity(page_size);
    vel_seq_page_t *root = ctx->stack[0].page;

    // Positions far from the one before them will most likely leave the
    // leaf in hand: their descents are batched ahead of the copy loop.
    vel_seq_no_t pos[VEL_SEQ_TILE_SIZE];
    uint8_t want[VEL_SEQ_TILE_SIZE];
    vel_seq_page_t *found_leaf[VEL_SEQ_TILE_SIZE];
    int32_t found_idx[VEL_SEQ_TILE_SIZE];
    uint8_t found[VEL_SEQ_TILE_SIZE] = {};
    int n_want = 0;
    for (uint64_t i = 0; i < n; i++) {
        pos[i] = positions->tile.u.arr_uint8[i];
        if constexpr (!E::is_char)
            pos[i] += iterator->first_seq_no;
        const vel_seq_no_t d =
            i == 0 ? capacity : (pos[i] > pos[i - 1] ? pos[i] - pos[i - 1] : pos[i - 1] - pos[i]);
        want[i] = d >= capacity;
        n_want += want[i];
    }
    if (n_want > 1) {
        // The far positions in rising order of their top eight bits (a
        // counting sort), so that those under one inner page meet there.
        uint8_t order[VEL_SEQ_TILE_SIZE];
        vel_seq_no_t top = 0;
        for (uint64_t i = 0; i < n; i++)
            top |= want[i] ? pos[i] : 0;
        const int shift = top >> 8 == 0 ? 0 : 56 - __builtin_clzll(top);
        uint16_t start[257] = {};
        for (uint64_t i = 0; i < n; i++)
            start[(pos[i] >> shift & 255) + 1]++;
        for (int b = 0; b < 256; b++)
            start[b + 1] += start[b];
        for (uint64_t i = 0; i < n; i++)
            order[start[pos[i] >> shift & 255]++] = static_cast<uint8_t>(i);
        map_batch(root, page_size, size, capacity, pos, want, order, n, found_leaf, found_idx,
                  found);
    }

    // The copy loop makes the scalar descents' choices.  A batched result,
    // or one found from the previous descent's path, stands in for a
    // descent without writing the stack, so the last such descent is
    // replayed before any scalar descent and at the end.
    vel_seq_page_t *leaf = nullptr;
    uint64_t prev_page_pos = 0;
    uint64_t prev_page_size = 0;
    PathFinger finger;
    // The tile's null bits of slots 64 * (i / 64) .. i - 1, stored a word at
    // a time (the tile's bitmap starts cleared).
    vel_bitmap_word_t nulls = 0;
    bool stale = false;
    vel_seq_no_t stale_pos = 0;
    bool by_finger = false; // the stale descent was the finger's (it failed none since)
    bool clean = false;     // the leaf in hand holds no null
    for (uint64_t i = 0; i < n; i++) {
        const uint64_t next_pos = pos[i];
        if (next_pos - prev_page_pos >= prev_page_size) {
            uint64_t in_leaf;
            int32_t at = 0;
            if (found[i] || finger.descend(root, page_size, next_pos, &leaf, &at)) {
                if (found[i]) {
                    leaf = found_leaf[i];
                    at = found_idx[i];
                }
                in_leaf = static_cast<uint64_t>(at);
                stale = true;
                stale_pos = next_pos;
                by_finger = !found[i];
            } else {
                if (stale) {
                    stale = false;
                    rc = vel_seq_subseq_page(ctx->con, ctx->pm, iterator, root, stale_pos, 0);
                    VEL_SEQ_CHECK(rc == VEL_S_OK);
                }
                rc = vel_seq_subseq_page(ctx->con, ctx->pm, iterator, root, next_pos, 0);
                if (rc != VEL_S_OK) {
                    iterator->tile.null_bitmap[i / 64] = nulls; // the bits gathered so far
                    return rc;
                }
                const vel_seq_iterator_stack_item_t &top = ctx->stack[ctx->stack_size - 1];
                leaf = top.page;
                in_leaf = static_cast<uint64_t>(top.pos);
            }
            prev_page_pos = next_pos - in_leaf;
            prev_page_size = leaf->hdr.user;
            VEL_SEQ_CHECK(next_pos - prev_page_pos < prev_page_size);
            // Positions that move forward a few leaves in this tile most
            // likely go on into the next leaf: its lines (its null mask
            // among them) are fetched while this one is read.
            if (!found[i] && pos[n - 1] - next_pos < 4 * capacity)
                finger.prefetch_next_leaf(page_size);
            // Positions near each other (not batched) read many values of
            // one leaf: a leaf without a null spares them the bit each.
            clean = !found[i] && !vel_seq_bitmap_contains_nulls(
                                     leaf_nulls(leaf, page_size, capacity), leaf->hdr.user);
        }
        const uint64_t idx = next_pos - prev_page_pos;
        std::memcpy(iterator->tile.u.arr_char + i * size, page_value(leaf, size, idx), size);
        if (!clean)
            nulls |= ((leaf_nulls(leaf, page_size, capacity)[idx / 64] >> (idx % 64)) & 1)
                     << (i % 64);
        if (i % 64 == 63) {
            iterator->tile.null_bitmap[i / 64] = nulls;
            nulls = 0;
        }
    }
    if (n % 64 != 0)
        iterator->tile.null_bitmap[n / 64] = nulls;
    if (stale && by_finger) { // the finger holds that very path
        finger.write_stack(ctx);
    } else if (stale) {
        rc = vel_seq_subseq_page(ctx->con, ctx->pm, iterator, root, stale_pos, 0);
        VEL_SEQ_CHECK(rc == VEL_S_OK);
    }
    iterator->next_seq_no += n;
    iterator->tile_size = static_cast<uint16_t>(n);
    return VEL_S_OK;
}

// Join set-up.  An empty field answers NOTFOUND after the slots are filled
// and join_with is bound, leaving the rest of `result` as it was.
inline VEL_RET join_setup(vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
                          vel_seq_iterator_h result, vel_seq_iterator_h join_with,
                          vel_seq_order_t order, vel_seq_iterator_next_t next) {
    vel_db_connection_h con = obj->con;
    vel_page_manager_t *pm = obj->pm;
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &root);
    if (rc != VEL_S_OK)
        return rc;
    if (order == VEL_SEQ_NO_ORDER)
        return VEL_E_ILLEGAL_PARAM;
    rc = bind_operand(join_with);
    if (rc != VEL_S_OK)
        return rc;

    vel_seq_iterator_context_t *ctx = iter_ctx(result);
    result->opd[0] = join_with;
    result->reset = vel_seq_reset_unary_iterator;
    result->next = next;
    result->prepare = nullptr;
    result->merge = nullptr;
    result->elem_type = VEL_DD_UINT8;
    result->elem_size = sizeof(vel_uint8);
    result->bounded = 0;
    result->tile_offs = 0;
    result->tile_size = 0;
    ctx->cursor = nullptr;
    if (root == nullptr)
        return VEL_S_NOTFOUND;

    ctx->pm = pm;
    ctx->con = con;
    ctx->page_size = static_cast<uint32_t>(page_size_of(con, pm));
    ctx->stack[0].page = root;
    ctx->order = order;
    result->next_seq_no = result->first_seq_no = 0;
    result->last_seq_no = kUnbounded;
    return VEL_S_OK;
}

// One join tile: for each value of join_with's next tile the position of
// the first element not before it (inclusive bound) in the field's order.
// Positions are never null; next_seq_no counts the values handled.
template <class E> VEL_RET join_next(const E &e, vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    vel_seq_iterator_h join_with = iterator->opd[0];
    const vel_seq_no_t handled = iterator->next_seq_no;
    vel_seq_page_t *root = ctx->stack[0].page;
    VEL_RET rc = join_with->next(join_with);
    if (rc != VEL_S_OK)
        return rc;

    vel_seq_reset_null_bitmap(iterator);
    const uint64_t n = join_with->tile_size;
    const size_t size = e.size();
    const byte *vals = reinterpret_cast<const byte *>(join_with->tile.u.arr_char);
    auto search = [&](uint64_t i) {
        iterator->next_seq_no = 0;
        return search_page(e, ctx->con, ctx->pm, iterator, root, vals + i * size,
                           VEL_SEQ_BOUNDARY_INCLUSIVE, 0, ctx->order);
    };
    // Char elements compare through the host, whose calls stay one search
    // after another.
    if (E::is_char || n < 2) {
        for (uint64_t i = 0; i < n; i++) {
            rc = search(i);
            if (rc != VEL_S_OK)
                return rc;
            iterator->tile.u.arr_uint8[i] = iterator->next_seq_no;
        }
    } else {
        // Batched searches; a probe they leave open gets the scalar search,
        // after the last batched probe before it has been replayed so that
        // the stack is as a search of every probe in turn would leave it.
        vel_seq_no_t out[VEL_SEQ_TILE_SIZE];
        uint8_t ok[VEL_SEQ_TILE_SIZE];
        join_batch(e, root, static_cast<int32_t>(ctx->page_size), vals, n, ctx->order, out, ok);
        bool stale = false;
        for (uint64_t i = 0; i < n; i++) {
            if (ok[i]) {
                iterator->tile.u.arr_uint8[i] = out[i];
                stale = true;
                continue;
            }
            if (stale) {
                rc = search(i - 1);
                VEL_SEQ_CHECK(rc == VEL_S_OK && iterator->next_seq_no == out[i - 1]);
                stale = false;
            }
            rc = search(i);
            if (rc != VEL_S_OK)
                return rc;
            iterator->tile.u.arr_uint8[i] = iterator->next_seq_no;
        }
        if (stale) {
            rc = search(n - 1);
            VEL_SEQ_CHECK(rc == VEL_S_OK && iterator->next_seq_no == out[n - 1]);
        }
    }
    iterator->tile_size = static_cast<uint16_t>(n);
    iterator->next_seq_no = handled + n;
    return VEL_S_OK;
}

// Set-up of the scan of one field across a cursor's objects; never fails.
// The cursor argument is not recorded: the scan walks whatever cursor the
// context already holds, which the caller places there before next.
template <class E>
VEL_RET from_cursor_setup(const E &e, vel_trans_h trans, vel_offs32_t fld_u_offset,
                          vel_offs32_t fld_c_offset, uint16_t class_code,
                          vel_seq_iterator_h iterator) {
    vel_page_manager_t *pm = vel_int_get_db_vtable()->class_pm(trans, class_code);
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    iterator->elem_type = E::type_code;
    iterator->elem_size = static_cast<uint16_t>(e.size());
    iterator->bounded = 0;
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    ctx->fld_u_offset = fld_u_offset;
    ctx->fld_c_offset = fld_c_offset;
    ctx->class_code = class_code;
    ctx->pm = pm;
    ctx->con = reinterpret_cast<vel_db_connection_h>(trans);
    ctx->page_size = static_cast<uint32_t>(page_size_of(ctx->con, pm));
    ctx->stack_size = 0;
    iterator->next = vel_seq_next_from_cursor;
    iterator->reset = vel_seq_reset_cursor;
    iterator->prepare = nullptr;
    iterator->merge = nullptr;
    iterator->next_seq_no = iterator->first_seq_no = 0;
    iterator->last_seq_no = kUnbounded;
    return VEL_S_OK;
}

} // namespace velseq
