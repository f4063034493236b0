// Iterator operations of the fixed-width character family, written out by
// hand: the element is `size` opaque bytes compared by vel_memcmp.  Where
// this family differs from the scalar ones: map adds no first_seq_no to the
// positions, join reads the element width from join_with at each next (and
// takes no size at set-up), and search leaves its range unbounded when no
// element lies beyond `high` and 1..0 on every empty or failed start.
#include "elem/elem_traits.h"
#include "iter/combine.h"
#include "iter/iter_internal.h"
#include "iter/search.h"
#include "iter/typed_workers.h"

using namespace velseq;

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_sequence_char(vel_trans_h trans, uint16_t class_code,
                                                       vel_offs32_t fld_offset,
                                                       vel_seq_iterator_h iterator, size_t size) {
    iterator->elem_type = VEL_DD_CHAR;
    iterator->elem_size = static_cast<uint16_t>(size);
    return vel_w_seq_sequence(trans, class_code, fld_offset, iterator);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_subseq_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                     vel_offs32_t fld_c_offset,
                                                     vel_seq_iterator_h iterator, vel_seq_no_t from,
                                                     vel_seq_no_t till, size_t size) {
    iterator->elem_type = VEL_DD_CHAR;
    iterator->elem_size = static_cast<uint16_t>(size);
    return vel_seq_subseq(obj, fld_u_offset, fld_c_offset, iterator, from, till);
}

VEL_RET vel_w_seq_map_next_char(vel_seq_iterator_h iterator) {
    return map_next(CharElem{iterator->elem_size}, iterator);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_map_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                  vel_offs32_t fld_c_offset,
                                                  vel_seq_iterator_h iterator,
                                                  vel_seq_iterator_h map_iterator, size_t size) {
    return map_setup(CharElem{size}, obj, fld_u_offset, fld_c_offset, iterator, map_iterator,
                     vel_w_seq_map_next_char);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_from_cursor_char(
    vel_trans_h trans, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset, uint16_t class_code,
    vel_seq_iterator_h iterator, vel_cursor_h /*not recorded*/, size_t size) {
    return from_cursor_setup(CharElem{size}, trans, fld_u_offset, fld_c_offset, class_code,
                             iterator);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_project_char(vel_objhandle_h obj,
                                                      vel_offs32_t fld_u_offset,
                                                      vel_offs32_t fld_c_offset,
                                                      vel_seq_iterator_h dst,
                                                      vel_seq_iterator_h src, size_t size) {
    return vel_w_seq_subseq_char(obj, fld_u_offset, fld_c_offset, dst, src->next_seq_no,
                                 src->last_seq_no, size);
}

VEL_RET vel_seq_search_page_char(vel_db_connection_h con, vel_page_manager_t *pm,
                                 vel_seq_iterator_h iterator, vel_seq_page_t *page, const char *low,
                                 vel_seq_boundary_kind_t low_boundary, int level,
                                 vel_seq_order_t order, size_t size) {
    return search_page(CharElem{size}, con, pm, iterator, page, reinterpret_cast<const byte *>(low),
                       low_boundary, level, order);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_search_char(
    vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
    vel_seq_iterator_h iterator, const char *low, vel_seq_boundary_kind_t low_boundary,
    const char *high, vel_seq_boundary_kind_t high_boundary, vel_seq_order_t order, size_t size) {
    return search_setup(CharElem{size}, obj, fld_u_offset, fld_c_offset, iterator,
                        reinterpret_cast<const byte *>(low), low_boundary,
                        reinterpret_cast<const byte *>(high), high_boundary, order);
}

// The width comes from join_with, read before its next is called.
VEL_RET vel_seq_join_char_next(vel_seq_iterator_h iterator) {
    return join_next(CharElem{iterator->opd[0]->elem_size}, iterator);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_join_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                   vel_offs32_t fld_c_offset,
                                                   vel_seq_iterator_h result,
                                                   vel_seq_iterator_h join_with,
                                                   vel_seq_order_t order) {
    return join_setup(obj, fld_u_offset, fld_c_offset, result, join_with, order,
                      vel_seq_join_char_next);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_store_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                    vel_offs32_t fld_c_offset, uint16_t fld_no,
                                                    vel_seq_iterator_h src, vel_seq_order_t order,
                                                    size_t size) {
    return store_iter(src, [&](const char *vals, vel_size_t n, const vel_bitmap_word_t *nulls) {
        return vel_w_seq_append_char(obj, fld_u_offset, fld_c_offset, fld_no, vals, n, order, size,
                                     nulls);
    });
}
