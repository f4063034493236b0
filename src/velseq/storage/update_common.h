// Pieces shared by the updating operations (append, insert): the argument
// checks made right after the root update opens, the creation of a first leaf
// and the growth of the tree by one level at the top.
#pragma once

#include <cstring>

#include "common/trap.h"
#include "storage/bitmap.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

namespace velseq {

// Null test of the caller's bitmap for ordered fields.  The whole words are
// tested as they are; the last partial word is AND-ed with the number
// n_vals % 64 itself, not with a mask of that many bits, so only the bit
// positions set in that number are examined (n_vals = 3: bits 0 and 1;
// n_vals = 4: bit 2 only).
inline bool input_has_nulls(const vel_bitmap_word_t *null_bitmap, vel_size_t n_vals) {
    vel_size_t full = n_vals / 64;
    for (vel_size_t i = 0; i < full; i++)
        if (null_bitmap[i] != 0)
            return true;
    vel_size_t tail = n_vals % 64;
    return tail != 0 && (null_bitmap[full] & tail) != 0;
}

// The buffer against itself: fails only on a strict inversion between
// neighbours, so a NaN (every comparison false) passes together with the
// values around it.
template <class E>
bool input_out_of_order(const E &e, const byte *vals, vel_size_t n_vals, vel_seq_order_t order) {
    const size_t s = e.size();
    for (vel_size_t i = 1; i < n_vals; i++) {
        const byte *cur = vals + i * s;
        const byte *prev = cur - s;
        if (order == VEL_SEQ_ASC_ORDER && e.lt(cur, prev))
            return true;
        if (order == VEL_SEQ_DESC_ORDER && e.gt(cur, prev))
            return true;
    }
    return false;
}

// Checks made after the root update has begun; their failure is returned
// without ending it.
template <class E>
VEL_RET check_input(const E &e, const byte *vals, vel_size_t n_vals, vel_seq_order_t order,
                    const vel_bitmap_word_t *null_bitmap) {
    if (order != VEL_SEQ_NO_ORDER && null_bitmap != nullptr && input_has_nulls(null_bitmap, n_vals))
        return VEL_E_SEQ_NULL_VALUE;
    if (input_out_of_order(e, vals, n_vals, order))
        return VEL_E_SEQ_OUT_OF_ORDER;
    return VEL_S_OK;
}

// Opens the root update of an append or an insert and checks its input.
// On any failure the code is returned and the update, if it was opened,
// stays open.
template <class E>
VEL_RET begin_update(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                     vel_offs32_t fld_c_offset, uint16_t fld_no, const byte *vals,
                     vel_size_t n_vals, vel_seq_order_t order, const vel_bitmap_word_t *null_bitmap,
                     VEL_WRK *w, vel_seq_page_t ***slot) {
    const VEL_RET rc = vel_seq_begin_root_update(obj, fld_u_offset, fld_c_offset, fld_no, w, slot);
    if (rc != VEL_S_OK)
        return rc;
    return check_input(e, vals, n_vals, order, null_bitmap);
}

// A new value against a stored one: succeeds only when `stored` <= `val`
// (ascending) or >= (descending), so a NaN on either side fails.  Order
// values other than 0, 1 and 2 always fail.
template <class E>
bool stored_then_new_ok(const E &e, const byte *stored, const byte *val, vel_seq_order_t order) {
    switch (order) {
    case VEL_SEQ_NO_ORDER:
        return true;
    case VEL_SEQ_ASC_ORDER:
        return e.le(stored, val);
    case VEL_SEQ_DESC_ORDER:
        return e.ge(stored, val);
    default:
        return false;
    }
}

// Copies `n` values and their null bits (cleared when `null_bitmap` is null)
// into leaf `pg` at slot `at`.
template <class E>
void put_values(const E &e, vel_seq_page_t *pg, vel_bitmap_word_t *mask, int at, const byte *vals,
                int n, const vel_bitmap_word_t *null_bitmap, int null_bitmap_offs) {
    if (n == 1) { // single-value appends: no library calls
        std::memcpy(page_value(pg, e.size(), static_cast<uint64_t>(at)), vals, e.size());
        copy_one_bit(mask, at, null_bitmap, null_bitmap_offs);
        return;
    }
    // The mask lies at the page's far end, apart from the values: its first
    // and last words are asked for before the values are copied, so that a
    // fresh page's miss there overlaps the copy.
    __builtin_prefetch(mask + at / 64, 1);
    __builtin_prefetch(mask + (at + n - 1) / 64, 1);
    std::memcpy(page_value(pg, e.size(), static_cast<uint64_t>(at)), vals,
                static_cast<size_t>(n) * e.size());
    vel_seq_copy_bitmap(mask, at, null_bitmap, null_bitmap_offs, n);
}

// Values handed to an update as one buffer, their null bits read from
// `null_bitmap` at `null_bitmap_offs` (a null bitmap clears them).  Append
// takes its values through this interface: `first` is the value at the
// current position, `put` copies the next `n` values and bits into a leaf
// without moving on, `advance` moves on.
template <class E> struct FlatValues {
    const E &e;
    const byte *vals;
    const vel_bitmap_word_t *null_bitmap;
    int null_bitmap_offs;

    const byte *first() const { return vals; }
    void put(vel_seq_page_t *pg, vel_bitmap_word_t *mask, int at, int n) const {
        put_values(e, pg, mask, at, vals, n, null_bitmap, null_bitmap_offs);
    }
    void advance(vel_size_t n) {
        vals += n * e.size();
        null_bitmap_offs += static_cast<int>(n);
    }
};

// Empty field: a leaf becomes the root, holding the first min(n_vals,
// capacity) values of `src`.  Returns the count stored in *n, or the
// creation error.
template <class E, class V>
VEL_RET create_root_leaf(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                         int32_t page_size, vel_seq_page_t **slot, const V &src, vel_size_t n_vals,
                         vel_size_t *n) {
    vel_seq_page_t *leaf = nullptr;
    VEL_RET rc = vel_seq_create_page(con, pm, &leaf, slot, kLeafPage);
    if (rc != VEL_S_OK)
        return rc;
    uint64_t cap = e.leaf_capacity(page_size);
    *n = n_vals < cap ? n_vals : cap;
    src.put(leaf, leaf_nulls(leaf, page_size, cap), 0, static_cast<int>(*n));
    leaf->hdr.user = static_cast<uint16_t>(*n);
    return VEL_S_OK;
}

// Element total of a subtree from its top page alone.
inline vel_seq_count_t subtree_count(vel_seq_page_t *pg, int32_t page_size) {
    if (page_kind(pg) != kInnerPage)
        return pg->hdr.user;
    vel_seq_count_t total = 0;
    for (int i = 0; i < pg->hdr.user; i++)
        total += inner_entry(pg, page_size, i)->count;
    return total;
}

// Levels of a tree, counted down its left edge (all leaves lie at one depth).
inline int tree_levels(vel_seq_page_t *root, int32_t page_size) {
    int levels = 1;
    for (vel_seq_page_t *pg = root;
         pg != nullptr && page_kind(pg) == kInnerPage && levels <= VEL_SEQ_MAX_DEPTH;
         pg = inner_entry(pg, page_size, 0)->page)
        levels++;
    return levels;
}

// The root overflowed and `sibling` (holding `sibling_count` elements, first
// value `sibling_key`) is its new right neighbour: a new inner root takes
// both.  For ordered fields key 0 is the old root's body element 0 (its
// first value or first key).  A tree already as deep as a scan stack may not
// grow: no iterator could read it, so this traps like a too deep descent
// (insert traps before its pass, while nothing is changed; an append pass
// only adds pages, which the sweep of created pages frees).
template <class E>
VEL_RET grow_root(const E &e, vel_db_connection_h con, vel_page_manager_t *pm, int32_t page_size,
                  vel_seq_page_t **slot, vel_seq_page_t *sibling, vel_seq_count_t sibling_count,
                  const byte *sibling_key, vel_seq_order_t order) {
    vel_seq_page_t *old_root = load_ref(slot);
    if (old_root == nullptr)
        return VEL_E_NOMEM;
    VEL_SEQ_CHECK(tree_levels(old_root, page_size) < VEL_SEQ_MAX_DEPTH);
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_create_page(con, pm, &root, slot, kInnerPage);
    if (rc != VEL_S_OK)
        return rc;
    vel_seq_count_t count = subtree_count(old_root, page_size);
    root->hdr.user = 2;
    *inner_entry(root, page_size, 0) = {old_root, count};
    *inner_entry(root, page_size, 1) = {sibling, sibling_count};
    if (order != VEL_SEQ_NO_ORDER) {
        const size_t s = e.size();
        std::memcpy(page_value(root, s, 0), page_value(old_root, s, 0), s);
        std::memcpy(page_value(root, s, 1), sibling_key, s);
    }
    return VEL_S_OK;
}

} // namespace velseq
