// Insert: values go before the element at position `pos`.  Each pass puts
// values into the one leaf that holds `pos`.  Split policy: a full leaf
// gives exactly the pass's n values (its last n elements, or a mix of its
// tail and the input) to a new right sibling and stays full; a full inner
// page gives exactly one entry to a new right sibling and stays full; the
// root grows a level when it overflows.
//
// `ins_val` points at one element: on entry the value the leaf checks the
// order with (the pass's first value); on VEL_S_OVERFLOW the key (first
// value) of the new page made at this level.  It points into the caller's
// buffer or into a page made in this pass, which nothing else writes before
// the pass ends.
#pragma once

#include "storage/update_common.h"

namespace velseq {

// Leaf order check, against this leaf's neighbours of slot `i` only and only
// with the pass's first value; the last inserted value is not compared with
// the element after it.
template <class E>
bool insert_order_ok(const E &e, vel_seq_page_t *pg, int i, int n_items, const byte *val,
                     vel_seq_order_t order) {
    const size_t s = e.size();
    const byte *left = i == 0 ? nullptr : page_value(pg, s, static_cast<uint64_t>(i - 1));
    const byte *right = i == n_items ? nullptr : page_value(pg, s, static_cast<uint64_t>(i));
    switch (order) {
    case VEL_SEQ_NO_ORDER:
        return true;
    case VEL_SEQ_ASC_ORDER:
        return (left == nullptr || e.le(left, val)) && (right == nullptr || e.ge(right, val));
    case VEL_SEQ_DESC_ORDER:
        return (left == nullptr || e.ge(left, val)) && (right == nullptr || e.le(right, val));
    default:
        return false;
    }
}

// Would the next pass overflow a root that may not grow?  A pass splits a
// page only when it is full and only after the checks that can refuse it,
// so the root overflows when every page on the path to `pos` is full.  The
// wrapper traps on it before the pass: growing a tree as deep as a scan
// stack traps anyway, and after the split the new sibling would already be
// cut from the tree.  `first` is the value the leaf checks the order with.
template <class E>
bool insert_overflows_at_max_depth(const E &e, vel_seq_page_t *pg, int32_t page_size,
                                   vel_seq_no_t pos, const byte *first, vel_seq_order_t order) {
    for (int level = 0; pg != nullptr && level <= kMaxLevel; level++) {
        const int n_items = pg->hdr.user;
        if (n_items < 1)
            return false;
        if (page_kind(pg) != kInnerPage)
            return level == kMaxLevel &&
                   static_cast<uint64_t>(n_items) == e.leaf_capacity(page_size) &&
                   pos <= static_cast<vel_seq_no_t>(n_items) &&
                   insert_order_ok(e, pg, static_cast<int>(pos), n_items, first, order);
        if (n_items != e.inner_capacity(page_size, order))
            return false;
        int i = 0;
        for (; i < n_items && inner_entry(pg, page_size, i)->count < pos; i++)
            pos -= inner_entry(pg, page_size, i)->count;
        if (i == n_items)
            return false;
        pg = inner_entry(pg, page_size, i)->page;
    }
    return false;
}

template <class E>
VEL_RET vel_seq_insert_page(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                            vel_seq_page_t **root_page, vel_seq_no_t pos, const byte *vals,
                            vel_size_t *n_vals_ptr, const byte **ins_val,
                            vel_seq_count_t *ins_count, vel_seq_order_t order,
                            const vel_bitmap_word_t *null_bitmap, int null_bitmap_offs, int level) {
    const int32_t page_size = page_size_of(con, pm);
    const auto n_vals = static_cast<int32_t>(*n_vals_ptr);
    const size_t s = e.size();
    vel_seq_page_t *pg = *root_page;
    if (pg == nullptr)
        return VEL_E_NOMEM;
    const int n_items = pg->hdr.user;
    VEL_SEQ_CHECK(n_items > 0);
    VEL_SEQ_CHECK(level <= kMaxLevel);

    if (page_kind(pg) == kInnerPage) {
        // A position equal to a child's count lands at the end of that child.
        int i = 0;
        for (; i < n_items; i++) {
            vel_seq_count_t c = inner_entry(pg, page_size, i)->count;
            if (c >= pos)
                break;
            pos -= c;
        }
        if (i == n_items)
            return VEL_E_ILLEGAL_PARAM;
        vel_seq_node_t *entry = inner_entry(pg, page_size, i);
        vel_seq_page_t *child = entry->page;
        VEL_RET rc = vel_seq_copy_on_write_page(con, pm, &child);
        if (rc != VEL_S_OK)
            return rc;
        entry->page = child;

        rc = vel_seq_insert_page(e, con, pm, &child, pos, vals, n_vals_ptr, ins_val, ins_count,
                                 order, null_bitmap, null_bitmap_offs, level + 1);
        const int32_t added = n_vals - static_cast<int32_t>(*n_vals_ptr);
        if (rc == VEL_S_OK) {
            entry->count += static_cast<vel_seq_count_t>(added);
            return VEL_S_OK;
        }
        if (rc != VEL_S_OVERFLOW)
            return rc;

        // Child i received `added` values and gave *ins_count to its new
        // sibling, now named by `child`.
        entry->count = entry->count + static_cast<vel_seq_count_t>(added) - *ins_count;
        const bool keyed = order != VEL_SEQ_NO_ORDER;
        if (n_items != e.inner_capacity(page_size, order)) {
            // Entries i+1.. move one place towards the header (lower
            // addresses), then keys i+1.. one slot up.  Entries go first:
            // where char keys reach into the entries, the last write wins.
            const int tail = n_items - 1 - i;
            if (tail > 0)
                vel_memmove(inner_entry(pg, page_size, n_items),
                            inner_entry(pg, page_size, n_items - 1),
                            static_cast<size_t>(tail) * kEntryBytes);
            *inner_entry(pg, page_size, i + 1) = {child, *ins_count};
            if (keyed) {
                if (tail > 0)
                    vel_memmove(page_value(pg, s, static_cast<uint64_t>(i + 2)),
                                page_value(pg, s, static_cast<uint64_t>(i + 1)),
                                static_cast<size_t>(tail) * s);
                std::memcpy(page_value(pg, s, static_cast<uint64_t>(i + 1)), *ins_val, s);
            }
            pg->hdr.user = static_cast<uint16_t>(n_items + 1);
            return VEL_S_OK;
        }

        vel_seq_page_t *np = nullptr;
        rc = vel_seq_create_page(con, pm, &np, root_page, kInnerPage);
        if (rc != VEL_S_OK)
            return rc;
        // The page service creates np with user = 1.
        if (i >= n_items - 1) {
            *inner_entry(np, page_size, 0) = {child, *ins_count};
            if (keyed)
                std::memcpy(page_value(np, s, 0), *ins_val, s);
            return VEL_S_OVERFLOW; // ins_val, ins_count describe np already
        }
        const vel_seq_node_t moved = *inner_entry(pg, page_size, n_items - 1);
        *inner_entry(np, page_size, 0) = moved;
        const int shift = n_items - 2 - i; // entries i+1 .. n_items-2
        if (shift > 0)
            vel_memmove(inner_entry(pg, page_size, n_items - 1),
                        inner_entry(pg, page_size, n_items - 2),
                        static_cast<size_t>(shift) * kEntryBytes);
        *inner_entry(pg, page_size, i + 1) = {child, *ins_count};
        *ins_count = moved.count;
        if (keyed) {
            std::memcpy(page_value(np, s, 0), page_value(pg, s, static_cast<uint64_t>(n_items - 1)),
                        s);
            if (shift > 0)
                vel_memmove(page_value(pg, s, static_cast<uint64_t>(i + 2)),
                            page_value(pg, s, static_cast<uint64_t>(i + 1)),
                            static_cast<size_t>(shift) * s);
            std::memcpy(page_value(pg, s, static_cast<uint64_t>(i + 1)), *ins_val, s);
            *ins_val = page_value(np, s, 0);
        }
        return VEL_S_OVERFLOW;
    }

    const uint64_t max_items = e.leaf_capacity(page_size);
    const auto i = static_cast<int32_t>(pos);
    VEL_SEQ_CHECK(static_cast<uint64_t>(n_items) <= max_items);
    if (pos > static_cast<vel_seq_no_t>(n_items))
        return VEL_E_ILLEGAL_PARAM;
    if (!insert_order_ok(e, pg, i, n_items, *ins_val, order))
        return VEL_E_SEQ_OUT_OF_ORDER;

    vel_bitmap_word_t *mask = leaf_nulls(pg, page_size, max_items);
    const auto max = static_cast<int32_t>(max_items);
    if (n_items != max) {
        const int32_t room = max - n_items;
        const int32_t n = room < n_vals ? room : n_vals;
        vel_memmove(page_value(pg, s, static_cast<uint64_t>(i + n)),
                    page_value(pg, s, static_cast<uint64_t>(i)),
                    static_cast<size_t>(n_items - i) * s);
        vel_seq_copy_bitmap(mask, i + n, mask, i, n_items - i);
        put_values(e, pg, mask, i, vals, n, null_bitmap, null_bitmap_offs);
        pg->hdr.user = static_cast<uint16_t>(n_items + n);
        *n_vals_ptr -= static_cast<vel_size_t>(n);
        return VEL_S_OK;
    }

    // Full leaf: split.
    vel_seq_page_t *np = nullptr;
    VEL_RET rc = vel_seq_create_page(con, pm, &np, root_page, kLeafPage);
    if (rc != VEL_S_OK)
        return rc;
    vel_bitmap_word_t *np_mask = leaf_nulls(np, page_size, max_items);
    const int32_t n = max < n_vals ? max : n_vals;
    const int32_t rest = max - i; // elements right of the insertion point
    if (n <= rest) {
        std::memcpy(page_value(np, s, 0), page_value(pg, s, static_cast<uint64_t>(max - n)),
                    static_cast<size_t>(n) * s);
        vel_seq_copy_bitmap(np_mask, 0, mask, max - n, n);
        vel_memmove(page_value(pg, s, static_cast<uint64_t>(i + n)),
                    page_value(pg, s, static_cast<uint64_t>(i)),
                    static_cast<size_t>(max - n - i) * s);
        vel_seq_copy_bitmap(mask, i + n, mask, i, max - n - i);
        put_values(e, pg, mask, i, vals, n, null_bitmap, null_bitmap_offs);
    } else {
        std::memcpy(page_value(np, s, static_cast<uint64_t>(n - rest)),
                    page_value(pg, s, static_cast<uint64_t>(i)), static_cast<size_t>(rest) * s);
        vel_seq_copy_bitmap(np_mask, n - rest, mask, i, rest);
        put_values(e, pg, mask, i, vals, rest, null_bitmap, null_bitmap_offs);
        put_values(e, np, np_mask, 0, vals + static_cast<size_t>(rest) * s, n - rest, null_bitmap,
                   null_bitmap_offs + rest);
    }
    np->hdr.user = static_cast<uint16_t>(n);
    *ins_val = page_value(np, s, 0);
    *ins_count = static_cast<vel_seq_count_t>(n);
    *n_vals_ptr -= static_cast<vel_size_t>(n);
    return VEL_S_OVERFLOW;
}

// The wrapper.  `worker` is the family's named page worker with the
// signature of vel_seq_insert_page minus the element policy.
template <class E, class Worker>
VEL_RET vel_seq_insert(const E &e, Worker worker, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                       vel_offs32_t fld_c_offset, uint16_t fld_no, vel_seq_no_t pos,
                       const byte *vals, vel_size_t n_vals, vel_seq_order_t order,
                       const vel_bitmap_word_t *null_bitmap) {
    vel_db_connection_h con = obj->con;
    vel_page_manager_t *pm = obj->pm;
    const int32_t page_size = page_size_of(con, pm);
    const size_t s = e.size();
    int null_bitmap_offs = 0;

    VEL_WRK w;
    vel_seq_page_t **slot = nullptr;
    VEL_RET rc = begin_update(e, obj, fld_u_offset, fld_c_offset, fld_no, vals, n_vals, order,
                              null_bitmap, &w, &slot);
    if (rc != VEL_S_OK)
        return rc;

    while (n_vals > 0) {
        vel_seq_page_t *root_page = load_ref(slot);
        if (root_page == nullptr) {
            if (pos != 0) {
                rc = VEL_E_ILLEGAL_PARAM;
                break;
            }
            vel_size_t n = 0;
            rc =
                create_root_leaf(e, con, pm, page_size, slot,
                                 FlatValues<E>{e, vals, null_bitmap, null_bitmap_offs}, n_vals, &n);
            if (rc != VEL_S_OK)
                break;
            vals += n * s;
            pos += n;
            null_bitmap_offs += static_cast<int>(n);
            n_vals -= n;
            continue;
        }
        VEL_SEQ_CHECK(!insert_overflows_at_max_depth(e, root_page, page_size, pos, vals, order));
        const byte *ins_val = vals;
        vel_seq_count_t ins_count = 0;
        vel_size_t n_added = n_vals;
        rc = worker(con, pm, &root_page, pos, vals, &n_vals, &ins_val, &ins_count, order,
                    null_bitmap, null_bitmap_offs, 0);
        n_added -= n_vals;
        if (rc == VEL_S_OVERFLOW) {
            rc = grow_root(e, con, pm, page_size, slot, root_page, ins_count, ins_val, order);
            if (rc != VEL_S_OK)
                break;
        } else if (rc != VEL_S_OK) {
            break;
        }
        vals += n_added * s;
        pos += n_added;
        null_bitmap_offs += static_cast<int>(n_added);
    }
    vel_seq_end_root_update(obj, &w, slot);
    return rc;
}

} // namespace velseq
