// Value range search over an ordered sequence, generic over the element
// policy E.  Inner pages of an ordered tree hold, per child, the first value
// of its subtree (the key), so a halving search over the keys narrows the
// first element that is not "before" the bound to child l-1 (after its first
// element) or the first element of child l.
#pragma once

#include "common/trap.h"
#include "iter/iter_internal.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

namespace velseq {

// Whether element value v lies before bound b of kind k.  Every order but
// ascending counts as descending, every kind but inclusive as exclusive; a
// comparison with a NaN is false, so a NaN neither lies before a bound nor
// lets any element lie before a NaN bound.
template <class E>
inline bool before_bound(const E &e, const byte *v, const byte *b, int kind,
                         vel_seq_order_t order) {
    if (kind == VEL_SEQ_BOUNDARY_INCLUSIVE)
        return order == VEL_SEQ_ASC_ORDER ? e.lt(v, b) : e.gt(v, b);
    return order == VEL_SEQ_ASC_ORDER ? e.le(v, b) : e.ge(v, b);
}

// Descent for one bound from `page` at depth `level`.  On VEL_S_OK the
// position (relative to `page`) of the first element not before the bound
// has been added to next_seq_no and the stack runs from `level` to that
// element's leaf; VEL_S_NOTFOUND: no element under `page` qualifies.
template <class E>
VEL_RET search_page(const E &e, vel_db_connection_h con, vel_page_manager_t *pm,
                    vel_seq_iterator_h iterator, vel_seq_page_t *page, const byte *low,
                    int low_boundary, int level, vel_seq_order_t order) {
    const int32_t page_size = page_size_of(con, pm);
    if (page == nullptr)
        return VEL_E_NOMEM;
    VEL_SEQ_CHECK(level <= kMaxLevel);
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    ctx->stack[level].page = page;
    const int n = page->hdr.user;
    VEL_SEQ_CHECK(n >= 1);

    const size_t size = e.size();
    int l = 0;
    if (low_boundary != VEL_SEQ_BOUNDARY_OPEN) {
        int r = n;
        // A halving step waits for the line it reads.  The lines of the
        // first five steps (a leaf of 64-bit keys: the steps that leave
        // the line) are asked for at once, and each step asks for both
        // lines the next step may read, so the misses overlap.
        for (int k = 1; k < 32; k++)
            __builtin_prefetch(page_value(page, size, static_cast<uint64_t>(n * k / 32)));
        while (l < r) {
            int m = (l + r) / 2;
            __builtin_prefetch(page_value(page, size, static_cast<uint64_t>((l + m) / 2)));
            __builtin_prefetch(page_value(page, size, static_cast<uint64_t>((m + 1 + r) / 2)));
            if (before_bound(e, page_value(page, size, static_cast<uint64_t>(m)), low, low_boundary,
                             order))
                l = m + 1;
            else
                r = m;
        }
    }

    if (page_kind(page) == kInnerPage) {
        VEL_RET rc = VEL_S_NOTFOUND;
        if (l >= 1) {
            rc = search_page(e, con, pm, iterator, inner_entry(page, page_size, l - 1)->page, low,
                             low_boundary, level + 1, order);
            if (rc == VEL_S_OK)
                l--;
        }
        // Any failure of the first child, not only NOTFOUND, tries child l.
        if (rc != VEL_S_OK && l < n)
            rc = search_page(e, con, pm, iterator, inner_entry(page, page_size, l)->page, low,
                             low_boundary, level + 1, order);
        if (rc == VEL_S_OK) {
            iterator->next_seq_no += count_before(page, page_size, l);
            ctx->stack[level].pos = l;
        }
        return rc;
    }
    if (l < n) {
        iterator->next_seq_no += static_cast<vel_seq_no_t>(l);
        ctx->stack[level].pos = l;
        ctx->stack_size = static_cast<uint8_t>(level + 1);
        return VEL_S_OK;
    }
    return VEL_S_NOTFOUND;
}

// Set-up of a value range search.  `low` bounds the range at its first
// position and `high` at its last, whatever the order.  The char family
// differs in two outcomes: no element beyond `high` leaves the range
// unbounded without counting, and any empty or failed start leaves the
// range at 1..0.
template <class E>
VEL_RET search_setup(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                     vel_offs32_t fld_c_offset, vel_seq_iterator_h iterator, const byte *low,
                     int low_boundary, const byte *high, int high_boundary, vel_seq_order_t order) {
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &root);
    if (rc != VEL_S_OK)
        return rc;

    vel_db_connection_h con = obj->con;
    vel_page_manager_t *pm = obj->pm;
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    iterator->reset = vel_seq_reset;
    iterator->next = vel_seq_next_tile;
    iterator->prepare = nullptr;
    iterator->merge = nullptr;
    iterator->elem_type = E::type_code;
    iterator->elem_size = static_cast<uint16_t>(e.size());
    iterator->bounded = 0;
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    ctx->pm = pm;
    ctx->con = con;
    ctx->page_size = static_cast<uint32_t>(page_size_of(con, pm));
    ctx->cursor = nullptr;

    VEL_RET result;
    if (root == nullptr) {
        result = VEL_S_NOTFOUND;
        iterator->last_seq_no = 0;
    } else {
        // End of the range: the first element beyond `high`.
        if (high_boundary != VEL_SEQ_BOUNDARY_OPEN) {
            iterator->next_seq_no = 0;
            rc = search_page(e, con, pm, iterator, root, high, 3 - high_boundary, 0, order);
            if (rc == VEL_S_OK) {
                if (iterator->next_seq_no == 0) {
                    iterator->next_seq_no = iterator->first_seq_no = 1;
                    iterator->last_seq_no = 0;
                    return VEL_S_NOTFOUND;
                }
                iterator->last_seq_no = iterator->next_seq_no - 1;
            } else if (rc == VEL_S_NOTFOUND) {
                if constexpr (E::is_char) {
                    iterator->last_seq_no = kUnbounded;
                } else {
                    vel_seq_no_t length = 0;
                    rc = vel_w_seq_count(obj, fld_u_offset, fld_c_offset, &length);
                    if (rc != VEL_S_OK)
                        return rc;
                    if (length == 0) {
                        iterator->next_seq_no = iterator->first_seq_no = 1;
                        iterator->last_seq_no = 0;
                        return VEL_S_NOTFOUND;
                    }
                    iterator->last_seq_no = length - 1;
                }
            } else {
                return rc;
            }
        } else {
            iterator->last_seq_no = kUnbounded;
        }

        // Start of the range; overwrites the stack from the root down.
        iterator->next_seq_no = 0;
        rc = search_page(e, con, pm, iterator, root, low, low_boundary, 0, order);
        if (rc == VEL_S_OK && iterator->next_seq_no <= iterator->last_seq_no) {
            iterator->first_seq_no = iterator->next_seq_no;
            return VEL_S_OK;
        }
        if (rc == VEL_S_OK) {
            result = VEL_S_NOTFOUND;
            iterator->last_seq_no = iterator->next_seq_no;
        } else {
            result = rc;
        }
    }

    if constexpr (E::is_char) {
        iterator->last_seq_no = 0;
    } else if (iterator->last_seq_no == kUnbounded) {
        iterator->last_seq_no = 0;
    }
    iterator->next_seq_no = iterator->first_seq_no = iterator->last_seq_no + 1;
    return result;
}

} // namespace velseq
