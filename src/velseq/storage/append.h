// Append: values go to the end of a sequence, filling the rightmost leaf to
// capacity and opening new pages only at the right edge; no page is split.
//
// Each turn of the wrapper's loop fills one leaf: it descends the right edge
// again, checks the turn's first value against the stored last value on
// every level, and adds the count along the path as the recursion returns.
// A page made at some level holds only values of the current call, so its
// first value is that turn's vals[0], which is also the key of its entry.
#pragma once

#include "storage/update_common.h"

namespace velseq {

// Worker on the subtree *root_page, which lies at `level` (the root is 0).
// *n_vals_ptr is decreased by the number of values appended.
// VEL_S_OVERFLOW: a new page was made at this level and its reference
// replaced *root_page; the caller links it.
template <class E>
VEL_RET vel_seq_append_page(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                            vel_seq_page_t **root_page, const byte *vals, vel_size_t *n_vals_ptr,
                            vel_seq_order_t order, const vel_bitmap_word_t *null_bitmap,
                            int null_bitmap_offs, int level) {
    const auto n_vals = static_cast<int32_t>(*n_vals_ptr);
    const int32_t page_size = page_size_of(con, pm);
    const size_t s = e.size();
    const byte *val = vals;
    vel_seq_page_t *pg = *root_page;
    if (pg == nullptr)
        return VEL_E_NOMEM;
    const int n_items = pg->hdr.user;
    VEL_SEQ_CHECK(n_items > 0);
    VEL_SEQ_CHECK(level <= kMaxLevel);

    // Last value of a leaf, or the key (first value) of an inner page's
    // last child.
    if (!stored_then_new_ok(e, page_value(pg, s, static_cast<uint64_t>(n_items - 1)), val, order))
        return VEL_E_SEQ_OUT_OF_ORDER;

    if (page_kind(pg) == kInnerPage) {
        vel_seq_node_t *last = inner_entry(pg, page_size, n_items - 1);
        vel_seq_page_t *child = last->page;
        VEL_RET rc = vel_seq_copy_on_write_page(con, pm, &child);
        if (rc != VEL_S_OK)
            return rc;
        last->page = child;

        rc = vel_seq_append_page(e, con, pm, &child, vals, n_vals_ptr, order, null_bitmap,
                                 null_bitmap_offs, level + 1);
        const int32_t added = n_vals - static_cast<int32_t>(*n_vals_ptr);
        if (rc == VEL_S_OVERFLOW) {
            // `child` now names the new page below, holding `added` values.
            if (n_items == e.inner_capacity(page_size, order)) {
                vel_seq_page_t *np = nullptr;
                rc = vel_seq_create_page(con, pm, &np, root_page, kInnerPage);
                if (rc != VEL_S_OK)
                    return rc;
                // The page service creates it with user = 1.
                *inner_entry(np, page_size, 0) = {child, static_cast<vel_seq_count_t>(added)};
                if (order != VEL_SEQ_NO_ORDER)
                    std::memcpy(page_value(np, s, 0), val, s);
                return VEL_S_OVERFLOW;
            }
            *inner_entry(pg, page_size, n_items) = {child, static_cast<vel_seq_count_t>(added)};
            if (order != VEL_SEQ_NO_ORDER)
                std::memcpy(page_value(pg, s, static_cast<uint64_t>(n_items)), val, s);
            pg->hdr.user = static_cast<uint16_t>(n_items + 1);
            return VEL_S_OK;
        }
        if (rc == VEL_S_OK)
            last->count += static_cast<vel_seq_count_t>(added);
        return rc;
    }

    const uint64_t max_items = e.leaf_capacity(page_size);
    VEL_SEQ_CHECK(static_cast<uint64_t>(n_items) <= max_items);
    if (static_cast<uint64_t>(n_items) == max_items) {
        vel_seq_page_t *np = nullptr;
        VEL_RET rc = vel_seq_create_page(con, pm, &np, root_page, kLeafPage);
        if (rc != VEL_S_OK)
            return rc;
        const auto n = static_cast<int32_t>(
            max_items < static_cast<uint64_t>(n_vals) ? max_items : static_cast<uint64_t>(n_vals));
        put_values(e, np, leaf_nulls(np, page_size, max_items), 0, vals, n, null_bitmap,
                   null_bitmap_offs);
        np->hdr.user = static_cast<uint16_t>(n);
        *n_vals_ptr -= static_cast<vel_size_t>(n);
        return VEL_S_OVERFLOW;
    }
    const int32_t room = static_cast<int32_t>(max_items) - n_items;
    const int32_t n = room < n_vals ? room : n_vals;
    put_values(e, pg, leaf_nulls(pg, page_size, max_items), n_items, vals, n, null_bitmap,
               null_bitmap_offs);
    pg->hdr.user = static_cast<uint16_t>(n_items + n);
    *n_vals_ptr -= static_cast<vel_size_t>(n);
    return VEL_S_OK;
}

// One turn of the wrapper's loop without recursion: the same steps as
// vel_seq_append_page from the root down, the same host calls in the same
// order (the page size asked once per level, copy-on-write of each right
// edge child before descending), then the entry updates of the way back up
// from the deepest level.  The child references live in `path`, as the
// recursion keeps them in its frames: a page made at some level replaces the
// reference one level up.
template <class E, class V>
VEL_RET append_turn(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                    vel_seq_page_t **root_page, const V &src, vel_size_t *n_vals_ptr,
                    vel_seq_order_t order) {
    struct Level {
        vel_seq_page_t *pg;
        vel_seq_node_t *last;
        vel_seq_page_t *child;
        int32_t page_size;
        int n_items;
    };
    Level path[kMaxLevel + 1];
    const auto n_vals = static_cast<int32_t>(*n_vals_ptr);
    const size_t s = e.size();
    const byte *vals = src.first();
    vel_seq_page_t **slot = root_page;
    int level = 0;
    VEL_RET rc;
    for (;;) {
        const int32_t page_size = page_size_of(con, pm);
        vel_seq_page_t *pg = *slot;
        if (pg == nullptr) {
            rc = VEL_E_NOMEM;
            break;
        }
        const int n_items = pg->hdr.user;
        VEL_SEQ_CHECK(n_items > 0);
        VEL_SEQ_CHECK(level <= kMaxLevel);
        if (!stored_then_new_ok(e, page_value(pg, s, static_cast<uint64_t>(n_items - 1)), vals,
                                order)) {
            rc = VEL_E_SEQ_OUT_OF_ORDER;
            break;
        }
        if (page_kind(pg) == kInnerPage) {
            Level &l = path[level];
            l = {pg, inner_entry(pg, page_size, n_items - 1), nullptr, page_size, n_items};
            l.child = l.last->page;
            rc = copy_on_write(con, pm, &l.child);
            if (rc != VEL_S_OK)
                break;
            l.last->page = l.child;
            slot = &l.child;
            level++;
            continue;
        }

        const uint64_t max_items = e.leaf_capacity(page_size);
        VEL_SEQ_CHECK(static_cast<uint64_t>(n_items) <= max_items);
        if (static_cast<uint64_t>(n_items) == max_items) {
            vel_seq_page_t *np = nullptr;
            rc = vel_seq_create_page(con, pm, &np, slot, kLeafPage);
            if (rc != VEL_S_OK)
                break;
            const auto n = static_cast<int32_t>(max_items < static_cast<uint64_t>(n_vals)
                                                    ? max_items
                                                    : static_cast<uint64_t>(n_vals));
            src.put(np, leaf_nulls(np, page_size, max_items), 0, n);
            np->hdr.user = static_cast<uint16_t>(n);
            *n_vals_ptr -= static_cast<vel_size_t>(n);
            rc = VEL_S_OVERFLOW;
            break;
        }
        const int32_t room = static_cast<int32_t>(max_items) - n_items;
        const int32_t n = room < n_vals ? room : n_vals;
        src.put(pg, leaf_nulls(pg, page_size, max_items), n_items, n);
        pg->hdr.user = static_cast<uint16_t>(n_items + n);
        *n_vals_ptr -= static_cast<vel_size_t>(n);
        rc = VEL_S_OK;
        break;
    }

    // The way back up: levels above the one that ended the descent.
    for (int k = level - 1; k >= 0; k--) {
        Level &l = path[k];
        const int32_t added = n_vals - static_cast<int32_t>(*n_vals_ptr);
        if (rc == VEL_S_OVERFLOW) {
            // `l.child` now names the new page below, holding `added` values.
            if (l.n_items == e.inner_capacity(l.page_size, order)) {
                vel_seq_page_t *np = nullptr;
                rc = vel_seq_create_page(con, pm, &np, k == 0 ? root_page : &path[k - 1].child,
                                         kInnerPage);
                if (rc != VEL_S_OK)
                    continue;
                *inner_entry(np, l.page_size, 0) = {l.child, static_cast<vel_seq_count_t>(added)};
                if (order != VEL_SEQ_NO_ORDER)
                    std::memcpy(page_value(np, s, 0), vals, s);
                rc = VEL_S_OVERFLOW;
                continue;
            }
            *inner_entry(l.pg, l.page_size, l.n_items) = {l.child,
                                                          static_cast<vel_seq_count_t>(added)};
            if (order != VEL_SEQ_NO_ORDER)
                std::memcpy(page_value(l.pg, s, static_cast<uint64_t>(l.n_items)), vals, s);
            l.pg->hdr.user = static_cast<uint16_t>(l.n_items + 1);
            rc = VEL_S_OK;
        } else if (rc == VEL_S_OK) {
            l.last->count += static_cast<vel_seq_count_t>(added);
        }
    }
    return rc;
}

// The wrapper's loop, between the opening and the closing of the root
// update at `slot`: every value of `src` goes to the end of the field, one
// leaf per turn.
template <class E, class V>
VEL_RET append_values(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                      int32_t page_size, vel_seq_page_t **slot, V src, vel_size_t n_vals,
                      vel_seq_order_t order) {
    VEL_RET rc = VEL_S_OK;
    while (n_vals > 0) {
        vel_seq_page_t *root_page = load_ref(slot);
        if (root_page == nullptr) {
            vel_size_t n = 0;
            rc = create_root_leaf(e, con, pm, page_size, slot, src, n_vals, &n);
            if (rc != VEL_S_OK)
                break;
            src.advance(n);
            n_vals -= n;
            continue;
        }
        vel_size_t n_added = n_vals;
        const byte *first = src.first();
        rc = append_turn(e, con, pm, &root_page, src, &n_vals, order);
        n_added -= n_vals;
        if (rc == VEL_S_OVERFLOW) {
            rc = grow_root(e, con, pm, page_size, slot, root_page, n_added, first, order);
            if (rc != VEL_S_OK)
                break;
        } else if (rc != VEL_S_OK) {
            break;
        }
        src.advance(n_added);
    }
    return rc;
}

// The wrapper; each turn runs append_turn, the loop form of the family's
// named page worker.
template <class E>
VEL_RET vel_seq_append(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                       vel_offs32_t fld_c_offset, uint16_t fld_no, const byte *vals,
                       vel_size_t n_vals, vel_seq_order_t order,
                       const vel_bitmap_word_t *null_bitmap) {
    const int32_t page_size = page_size_of(obj->con, obj->pm);
    VEL_WRK w;
    vel_seq_page_t **slot = nullptr;
    VEL_RET rc = begin_update(e, obj, fld_u_offset, fld_c_offset, fld_no, vals, n_vals, order,
                              null_bitmap, &w, &slot);
    if (rc != VEL_S_OK)
        return rc;
    rc = append_values(e, obj->con, obj->pm, page_size, slot,
                       FlatValues<E>{e, vals, null_bitmap, 0}, n_vals, order);
    vel_seq_end_root_update(obj, &w, slot);
    return rc;
}

} // namespace velseq
