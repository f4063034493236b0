// Positional scan of one field, and the object-class scan that reads one
// plain scalar field of every object of a class as a sequence.
#include <cstring>

#include "common/trap.h"
#include "iter/iter_internal.h"
#include "storage/bitmap.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

using namespace velseq;

// Descends from `page` (at stack level `level`) to the leaf holding element
// `from` of the subtree, recording the path.  Only reaching the leaf sets
// stack_size; a failed descent leaves the previous value.
VEL_RET vel_seq_subseq_page(vel_db_connection_h con, vel_page_manager_t *pm,
                            vel_seq_iterator_h iterator, vel_seq_page_t *page, vel_seq_no_t from,
                            int level) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    const int32_t page_size = page_size_of(con, pm);
    for (;;) {
        if (page == nullptr)
            return VEL_E_NOMEM;
        VEL_SEQ_CHECK(level <= kMaxLevel);
        ctx->stack[level].page = page;
        int n = page->hdr.user;
        VEL_SEQ_CHECK(n >= 1);
        if (page_kind(page) == kInnerPage) {
            const int i = child_by_position(page, page_size, n, &from);
            if (i == n)
                return VEL_S_NOTFOUND;
            ctx->stack[level].pos = i;
            page = inner_entry(page, page_size, i)->page;
            level++;
            continue;
        }
        VEL_SEQ_CHECK(page_kind(page) == kLeafPage);
        if (static_cast<vel_seq_no_t>(n) <= from)
            return VEL_S_NOTFOUND;
        ctx->stack[level].pos = static_cast<int32_t>(from);
        ctx->stack_size = static_cast<uint8_t>(level + 1);
        return VEL_S_OK;
    }
}

VEL_RET vel_seq_subseq(vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
                       vel_seq_iterator_h iterator, vel_seq_no_t from, vel_seq_no_t till) {
    vel_db_connection_h con = obj->con;
    vel_page_manager_t *pm = obj->pm;
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &root);
    if (rc != VEL_S_OK)
        return rc;

    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->reset = vel_seq_reset;
    iterator->next = vel_seq_next_tile;
    iterator->prepare = nullptr;
    iterator->merge = nullptr;
    iterator->bounded = 0;
    ctx->pm = pm;
    ctx->con = con;
    ctx->page_size = static_cast<uint32_t>(page_size_of(con, pm));
    ctx->cursor = nullptr;

    if (till < from || root == nullptr) {
        rc = VEL_S_NOTFOUND;
    } else {
        rc = vel_seq_subseq_page(con, pm, iterator, root, from, 0);
        if (rc == VEL_S_OK) {
            iterator->next_seq_no = from;
            iterator->first_seq_no = from;
            iterator->last_seq_no = till;
            return VEL_S_OK;
        }
    }
    // The empty range: next returns CURSOR_END from its range test.
    iterator->next_seq_no = 1;
    iterator->first_seq_no = 1;
    iterator->last_seq_no = 0;
    return rc;
}

// Descends again from the root kept in stack[0]; the tile's null bitmap is
// left for the next fill to clear.
VEL_RET vel_seq_reset(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->next_seq_no = iterator->first_seq_no;
    iterator->bounded = 0;
    if (iterator->first_seq_no > iterator->last_seq_no)
        return VEL_S_NOTFOUND;
    return vel_seq_subseq_page(ctx->con, ctx->pm, iterator, ctx->stack[0].page,
                               iterator->first_seq_no, 0);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_sequence(vel_trans_h trans, uint16_t class_code,
                                                  vel_offs32_t fld_offset,
                                                  vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    iterator->tile_offs = 0;
    iterator->tile_size = 0;
    iterator->reset = vel_seq_reset_cursor;
    iterator->next = vel_seq_sequence_next;
    iterator->prepare = nullptr;
    iterator->merge = nullptr;
    iterator->bounded = 0;
    iterator->next_seq_no = 0;
    iterator->first_seq_no = 0;
    iterator->last_seq_no = kUnbounded;

    ctx->fld_u_offset = fld_offset;
    ctx->class_code = class_code;
    ctx->con = reinterpret_cast<vel_db_connection_h>(trans);
    ctx->pm = vel_int_get_db_vtable()->class_pm(trans, class_code);

    // The list cursor lives in the context from the stack's start: this
    // scan walks no page tree.
    ctx->cursor = reinterpret_cast<vel_cursor_h>(&ctx->stack[0]);
    VEL_RET rc = vel_w_list_cursor(trans, class_code, ctx->cursor);
    return rc == VEL_S_CURSOR_EMPTY ? VEL_S_OK : rc;
}

// One element per object, read at fld_offset as it stands (no choice of
// object layout).  Elements of this scan are never null.
VEL_RET vel_seq_sequence_next(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    auto trans = reinterpret_cast<vel_trans_h>(ctx->con);
    const size_t elem_size = iterator->elem_size;
    bool first = iterator->next_seq_no == 0;
    vel_seq_reset_null_bitmap(iterator);

    int i = 0;
    for (; i < VEL_SEQ_TILE_SIZE; i++) {
        VEL_RET rc =
            first ? vel_cursor_first(trans, ctx->cursor) : vel_cursor_next(trans, ctx->cursor);
        if (rc != VEL_S_OK) {
            if (rc == VEL_S_CURSOR_END && i > 0)
                break;
            return rc;
        }
        first = false;

        vel_objhandle_t obj;
        rc = vel_w_obj_from_cursor(trans, ctx->cursor, ctx->class_code, &obj);
        if (rc != VEL_S_OK)
            return rc;
        VEL_WRK w;
        if (vel_reading(&obj, &w) != 0)
            return w.ret;

        vel_database_header_t *db = obj.con->db;
        uint32_t off = obj.mo + ctx->fld_u_offset;
        uint32_t data = static_cast<uint32_t>(db->pagesize) - 24;
        VEL_SEQ_CHECK(((off + db->additional_object_field_size) % data) + elem_size <= data);
        const void *src = vel_obj_pos(w.pobj, ctx->con, ctx->pm, off, 0);
        std::memcpy(iterator->tile.u.arr_char + static_cast<size_t>(i) * elem_size, src, elem_size);
    }
    iterator->next_seq_no += static_cast<vel_seq_no_t>(i);
    iterator->tile_size = static_cast<uint16_t>(i);
    return VEL_S_OK;
}

// The elements of one sequence field of every object under the context's
// cursor, as one stream: a tile may hold the tail of one object's sequence
// and the head of the next's.  Since each tile append clears the whole tile
// null bitmap, only the flags of the last object's run in a tile survive.
VEL_RET vel_seq_next_from_cursor(vel_seq_iterator_h iterator) {
    vel_seq_iterator_context_t *ctx = iter_ctx(iterator);
    auto trans = reinterpret_cast<vel_trans_h>(ctx->con);
    bool first = iterator->next_seq_no == 0;
    iterator->tile_size = 0;

    for (;;) {
        VEL_RET rc;
        if (ctx->stack_size == 0) {
            rc = first ? vel_cursor_first(trans, ctx->cursor) : vel_cursor_next(trans, ctx->cursor);
            if (rc != VEL_S_OK) {
                if (rc == VEL_S_CURSOR_END && iterator->tile_size > 0)
                    return VEL_S_OK;
                if (rc == VEL_S_NOTFOUND)
                    return VEL_S_CURSOR_END;
                return rc;
            }
            first = false;

            vel_objhandle_t obj;
            rc = vel_w_obj_from_cursor(trans, ctx->cursor, ctx->class_code, &obj);
            if (rc != VEL_S_OK)
                return rc;
            vel_seq_page_t *root = nullptr;
            rc = vel_seq_get_root(&obj, ctx->fld_u_offset, ctx->fld_c_offset, &root);
            if (rc != VEL_S_OK)
                return rc;
            if (root == nullptr)
                continue; // an empty field contributes nothing
            rc = vel_seq_subseq_page(ctx->con, ctx->pm, iterator, root, 0, 0);
            if (rc != VEL_S_OK)
                return rc;
        }
        rc = vel_seq_append_tile(iterator);
        if (rc == VEL_S_CURSOR_END)
            continue;
        if (rc != VEL_S_OK)
            return rc;
        if (iterator->tile_size >= VEL_SEQ_TILE_SIZE)
            return VEL_S_OK;
    }
}
