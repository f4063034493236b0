#include "storage/delete.h"

#include <cstring>

#include "common/trap.h"
#include "storage/bitmap.h"
#include "storage/field_root.h"
#include "storage/page_format.h"
#include "storage/update_common.h"

namespace velseq {

namespace {

// Inner page: skip the children wholly before the range by their counts,
// then descend into each child the range touches.  Children that became
// empty were freed below; their entries (and keys, when ordered) are
// removed in one block move.  The key of a trimmed survivor is left as is.
VEL_RET delete_inner(vel_db_connection_h con, vel_page_manager_t *pm, int32_t page_size,
                     vel_seq_page_t *pg, int n_items, vel_seq_no_t from, vel_seq_no_t till,
                     vel_seq_order_t order, vel_size_t elem_size, int level) {
    int i = 0;
    while (i < n_items) {
        vel_seq_count_t count = inner_entry(pg, page_size, i)->count;
        if (from < count)
            break;
        from -= count;
        till -= count;
        i++;
    }
    if (i == n_items)
        return VEL_S_OK; // the range starts beyond the sequence

    int first = i; // first entry that may have to be removed
    while (i < n_items) {
        vel_seq_node_t *entry = inner_entry(pg, page_size, i);
        const vel_seq_count_t count = entry->count;
        VEL_RET rc = vel_seq_copy_on_write_page(con, pm, &entry->page);
        if (rc != VEL_S_OK)
            return rc;
        rc = vel_seq_delete_page(con, pm, entry->page, from, till, order, elem_size, level + 1);
        if (rc == VEL_S_OK) {
            if (till < count) { // the range ends inside this child
                entry->count -= till - from + 1;
                break;
            }
            // The child kept exactly its first `from` elements.
            VEL_SEQ_CHECK(from != 0);
            entry->count = from;
            first = i + 1;
            from = 0;
        } else if (rc == VEL_S_UNDERFLOW) {
            // Only a child covered from its first to its last element goes.
            VEL_SEQ_CHECK(from == 0 && count - 1 <= till);
            if (till < count) {
                i++;
                break;
            }
        } else {
            return rc;
        }
        till -= count;
        i++;
    }

    if (i > first) { // entries first..i-1 belong to freed children
        const int tail = n_items - i;
        if (tail > 0) {
            // Entry j lies below entry j-1: the block of entries i..n_items-1
            // moves up in memory to follow entry first-1.
            vel_memmove(inner_entry(pg, page_size, first + tail - 1),
                        inner_entry(pg, page_size, n_items - 1),
                        static_cast<size_t>(tail) * kEntryBytes);
            if (order != VEL_SEQ_NO_ORDER)
                vel_memmove(page_value(pg, elem_size, static_cast<uint64_t>(first)),
                            page_value(pg, elem_size, static_cast<uint64_t>(i)),
                            static_cast<size_t>(tail) * elem_size);
        }
        pg->hdr.user = static_cast<uint16_t>(n_items - (i - first));
        if (pg->hdr.user == 0) {
            vel_seq_free_page(con, pm, pg);
            return VEL_S_UNDERFLOW;
        }
    }
    return VEL_S_OK;
}

// Leaf: the values and null bits after the range move down over it; slots
// above the new count keep stale contents.
VEL_RET delete_leaf(vel_db_connection_h con, vel_page_manager_t *pm, int32_t page_size,
                    vel_seq_page_t *pg, int n_items, vel_seq_no_t from, vel_seq_no_t till,
                    vel_size_t elem_size) {
    // A range may start at the leaf's end (nothing to do) but not beyond it.
    VEL_SEQ_CHECK(from <= static_cast<vel_seq_no_t>(n_items));
    if (till >= static_cast<vel_seq_no_t>(n_items))
        till = static_cast<vel_seq_no_t>(n_items) - 1;
    const auto removed = static_cast<int32_t>(till - from + 1);
    if (removed == n_items) {
        vel_seq_free_page(con, pm, pg);
        return VEL_S_UNDERFLOW;
    }
    const auto src = static_cast<int32_t>(till + 1);
    const auto dst = static_cast<int32_t>(from);
    const int32_t moved = n_items - src;
    vel_memmove(page_value(pg, elem_size, static_cast<uint64_t>(dst)),
                page_value(pg, elem_size, static_cast<uint64_t>(src)),
                static_cast<size_t>(moved) * elem_size);
    vel_bitmap_word_t *mask =
        leaf_nulls(pg, page_size, leaf_capacity_by_size(page_size, elem_size));
    vel_seq_copy_bitmap(mask, dst, mask, src, moved);
    pg->hdr.user = static_cast<uint16_t>(n_items - removed);
    return VEL_S_OK;
}

} // namespace

VEL_RET vel_seq_delete_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t *pg,
                            vel_seq_no_t from, vel_seq_no_t till, vel_seq_order_t order,
                            vel_size_t elem_size, int level) {
    const int32_t page_size = page_size_of(con, pm);
    if (till < from || pg == nullptr)
        return VEL_S_OK; // an empty or inverted range deletes nothing
    const int n_items = pg->hdr.user;
    VEL_SEQ_CHECK(n_items > 0);
    VEL_SEQ_CHECK(level <= kMaxLevel);
    if (page_kind(pg) == kInnerPage)
        return delete_inner(con, pm, page_size, pg, n_items, from, till, order, elem_size, level);
    return delete_leaf(con, pm, page_size, pg, n_items, from, till, elem_size);
}

} // namespace velseq

using namespace velseq;

extern "C" VEL_SEQ_API VEL_RET vel_seq_delete(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                              vel_offs32_t fld_c_offset, uint16_t fld_no,
                                              vel_seq_no_t from, vel_seq_no_t till,
                                              vel_seq_order_t order, vel_size_t elem_size) {
    VEL_WRK w;
    vel_seq_page_t **slot = nullptr;
    VEL_RET rc = vel_seq_begin_root_update(obj, fld_u_offset, fld_c_offset, fld_no, &w, &slot);
    if (rc != VEL_S_OK)
        return rc; // the update stays open
    rc = vel_seq_delete_page(obj->con, obj->pm, load_ref(slot), from, till, order, elem_size, 0);
    if (rc == VEL_S_UNDERFLOW) { // the whole tree is gone
        store_ref(slot, nullptr);
        rc = VEL_S_OK;
    }
    vel_seq_end_root_update(obj, &w, slot);
    return rc;
}

// Gives the whole tree to the host's prune (also a null root) and stores a
// null root whatever the prune answered; no copy-on-write, no walk here.
extern "C" VEL_SEQ_API VEL_RET vel_w_seq_truncate(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                  vel_offs32_t fld_c_offset, uint16_t fld_no) {
    VEL_WRK w;
    if (vel_writing(obj, &w, 0, fld_no) != 0)
        return w.ret;
    vel_seq_page_t **slot = locate_root(obj, fld_u_offset, fld_c_offset, &w, 1);
    VEL_RET rc = vel_seq_prune(obj->con, obj->pm, load_ref(slot));
    store_ref(slot, nullptr);
    vel_end_writing(obj, &w);
    return rc;
}
