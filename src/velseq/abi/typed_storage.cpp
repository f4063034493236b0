// Exported storage operations of the eleven scalar families, generated from
// elem/elem_types.def: each name is its own function forwarding to the
// generic definition for its element policy.  The page workers keep the
// typed signatures; `ins_val` is one T, in and out.
#include <cstring>

#include "elem/elem_traits.h"
#include "storage/append.h"
#include "storage/insert.h"
#include "storage/read.h"

using namespace velseq;

namespace {
template <class T> const byte *in_bytes(const T *p) { return reinterpret_cast<const byte *>(p); }
template <class T> byte *out_bytes(T *p) { return reinterpret_cast<byte *>(p); }
} // namespace

#define X(S, T, CODE)                                                                              \
    using Elem_##S = ScalarElem<T, CODE>;                                                          \
                                                                                                   \
    VEL_RET vel_seq_append_page_##S(                                                               \
        vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **root_page,               \
        const T *vals, vel_size_t *n_vals_ptr, vel_seq_order_t order,                              \
        const vel_bitmap_word_t *null_bitmap, int null_bitmap_offs, int level) {                   \
        return vel_seq_append_page(Elem_##S{}, con, pm, root_page, in_bytes(vals), n_vals_ptr,     \
                                   order, null_bitmap, null_bitmap_offs, level);                   \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_append_##S(                                           \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, const T *vals, vel_size_t n_vals, vel_seq_order_t order,                  \
        const vel_bitmap_word_t *null_bitmap) {                                                    \
        return vel_seq_append(Elem_##S{}, obj, fld_u_offset, fld_c_offset, fld_no, in_bytes(vals), \
                              n_vals, order, null_bitmap);                                         \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_first_##S(                                            \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset, T *val) {       \
        return vel_seq_end_value(Elem_##S{}, obj, fld_u_offset, fld_c_offset, out_bytes(val),      \
                                 false);                                                           \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_last_##S(                                             \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset, T *val) {       \
        return vel_seq_end_value(Elem_##S{}, obj, fld_u_offset, fld_c_offset, out_bytes(val),      \
                                 true);                                                            \
    }                                                                                              \
                                                                                                   \
    VEL_RET vel_seq_insert_page_##S(                                                               \
        vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **root_page,               \
        vel_seq_no_t pos, const T *vals, vel_size_t *n_vals_ptr, T *ins_val,                       \
        vel_seq_count_t *ins_count, vel_seq_order_t order, const vel_bitmap_word_t *null_bitmap,   \
        int null_bitmap_offs, int level) {                                                         \
        const byte *key = in_bytes(ins_val);                                                       \
        VEL_RET rc =                                                                               \
            vel_seq_insert_page(Elem_##S{}, con, pm, root_page, pos, in_bytes(vals), n_vals_ptr,   \
                                &key, ins_count, order, null_bitmap, null_bitmap_offs, level);     \
        std::memmove(ins_val, key, sizeof(T));                                                     \
        return rc;                                                                                 \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_insert_##S(                                           \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, vel_seq_no_t pos, const T *vals, vel_size_t n_vals,                       \
        vel_seq_order_t order, const vel_bitmap_word_t *null_bitmap) {                             \
        T key{};                                                                                   \
        auto worker = [&key](vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **rp, \
                             vel_seq_no_t p, const byte *v, vel_size_t *np, const byte **iv,       \
                             vel_seq_count_t *ic, vel_seq_order_t o, const vel_bitmap_word_t *nb,  \
                             int offs, int level) {                                                \
            std::memcpy(&key, *iv, sizeof(T));                                                     \
            VEL_RET rc = vel_seq_insert_page_##S(con, pm, rp, p, reinterpret_cast<const T *>(v),   \
                                                 np, &key, ic, o, nb, offs, level);                \
            *iv = in_bytes(&key);                                                                  \
            return rc;                                                                             \
        };                                                                                         \
        return vel_seq_insert(Elem_##S{}, worker, obj, fld_u_offset, fld_c_offset, fld_no, pos,    \
                              in_bytes(vals), n_vals, order, null_bitmap);                         \
    }                                                                                              \
                                                                                                   \
    extern "C" VEL_SEQ_API VEL_RET vel_w_seq_delete_##S(                                           \
        vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,                 \
        uint16_t fld_no, vel_seq_no_t from, vel_seq_no_t till, vel_seq_order_t order) {            \
        return vel_seq_delete(obj, fld_u_offset, fld_c_offset, fld_no, from, till, order,          \
                              sizeof(T));                                                          \
    }
#include "elem/elem_types.def"
#undef X
