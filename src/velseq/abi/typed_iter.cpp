// Exported iterator operations of the eleven scalar families, generated from
// elem/elem_types.def: each name is its own function forwarding to the
// generic definition for its element policy.
#include "elem/elem_traits.h"
#include "iter/combine.h"
#include "iter/iter_internal.h"
#include "iter/search.h"
#include "iter/typed_workers.h"

using namespace velseq;

namespace {
template <class T> const byte *as_bytes(const T &v) { return reinterpret_cast<const byte *>(&v); }
} // namespace

#define X(S, T, CODE)                                                                              \
    using Elem_##S = ScalarElem<T, CODE>;                                                          \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_subseq_##S(                                           \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h iterator, vel_seq_no_t from, vel_seq_no_t till) {                       \
        iterator->elem_type = CODE;                                                                \
        iterator->elem_size = sizeof(T);                                                           \
        return vel_seq_subseq(obj, fld_u_offset, fld_c_offset, iterator, from, till);              \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_sequence_##S(vel_trans_h trans, uint16_t class_code,  \
                                                          vel_offs32_t fld_offset,                 \
                                                          vel_seq_iterator_h iterator) {           \
        iterator->elem_type = CODE;                                                                \
        iterator->elem_size = sizeof(T);                                                           \
        return vel_w_seq_sequence(trans, class_code, fld_offset, iterator);                        \
    }                                                                                              \
                                                                                                   \
    VEL_RET vel_seq_search_page_##S(vel_db_connection_h con, vel_page_manager_t *pm,               \
                                    vel_seq_iterator_h iterator, vel_seq_page_t *page, T low,      \
                                    vel_seq_boundary_kind_t low_boundary, int level,               \
                                    vel_seq_order_t order) {                                       \
        return search_page(Elem_##S{}, con, pm, iterator, page, as_bytes(low), low_boundary,       \
                           level, order);                                                          \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_search_##S(                                           \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h iterator, T low, vel_seq_boundary_kind_t low_boundary, T high,          \
        vel_seq_boundary_kind_t high_boundary, vel_seq_order_t order) {                            \
        return search_setup(Elem_##S{}, obj, fld_u_offset, fld_c_offset, iterator, as_bytes(low),  \
                            low_boundary, as_bytes(high), high_boundary, order);                   \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_store_##S(                                            \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, vel_seq_iterator_h src, vel_seq_order_t order) {                          \
        return store_batched(Elem_##S{}, obj, fld_u_offset, fld_c_offset, fld_no, src, order,      \
                             [&](const char *vals, vel_size_t n, const vel_bitmap_word_t *nulls) { \
                                 return vel_w_seq_append_##S(                                      \
                                     obj, fld_u_offset, fld_c_offset, fld_no,                      \
                                     reinterpret_cast<const T *>(vals), n, order, nulls);          \
                             });                                                                   \
    }                                                                                              \
                                                                                                   \
    VEL_RET vel_w_seq_map_next_##S(vel_seq_iterator_h iterator) {                                  \
        return map_next(Elem_##S{}, iterator);                                                     \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_map_##S(                                              \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h iterator, vel_seq_iterator_h map_iterator) {                            \
        return map_setup(Elem_##S{}, obj, fld_u_offset, fld_c_offset, iterator, map_iterator,      \
                         vel_w_seq_map_next_##S);                                                  \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_project_##S(                                          \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h dst, vel_seq_iterator_h src) {                                          \
        return vel_w_seq_subseq_##S(obj, fld_u_offset, fld_c_offset, dst, src->next_seq_no,        \
                                    src->last_seq_no);                                             \
    }                                                                                              \
                                                                                                   \
    VEL_RET vel_seq_join_##S##_next(vel_seq_iterator_h iterator) {                                 \
        return join_next(Elem_##S{}, iterator);                                                    \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_join_##S(                                             \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        vel_seq_iterator_h result, vel_seq_iterator_h join_with, vel_seq_order_t order) {          \
        return join_setup(obj, fld_u_offset, fld_c_offset, result, join_with, order,               \
                          vel_seq_join_##S##_next);                                                \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_from_cursor_##S(                                      \
        vel_trans_h trans, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                   \
        uint16_t class_code, vel_seq_iterator_h iterator, vel_cursor_h /*not recorded*/) {         \
        return from_cursor_setup(Elem_##S{}, trans, fld_u_offset, fld_c_offset, class_code,        \
                                 iterator);                                                        \
    }
#include "elem/elem_types.def"
#undef X
