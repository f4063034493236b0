// Storage operations of the fixed-width character family, written out by
// hand: the element is `size` opaque bytes, compared by vel_memcmp.  The
// page workers take `size` between `order` and the null bitmap; insert's
// `ins_val` points at one `size`-byte element.
#include "elem/elem_traits.h"
#include "storage/append.h"
#include "storage/insert.h"
#include "storage/read.h"

using namespace velseq;

namespace {
const byte *in_bytes(const char *p) { return reinterpret_cast<const byte *>(p); }
} // namespace

VEL_RET vel_seq_append_page_char(vel_db_connection_h con, vel_page_manager_t *pm,
                                 vel_seq_page_t **root_page, const char *vals,
                                 vel_size_t *n_vals_ptr, vel_seq_order_t order, size_t size,
                                 const vel_bitmap_word_t *null_bitmap, int null_bitmap_offs,
                                 int level) {
    return vel_seq_append_page(CharElem{size}, con, pm, root_page, in_bytes(vals), n_vals_ptr,
                               order, null_bitmap, null_bitmap_offs, level);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_first_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                    vel_offs32_t fld_c_offset, char *val,
                                                    size_t size) {
    return vel_seq_end_value(CharElem{size}, obj, fld_u_offset, fld_c_offset,
                             reinterpret_cast<byte *>(val), false);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_last_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                   vel_offs32_t fld_c_offset, char *val,
                                                   size_t size) {
    return vel_seq_end_value(CharElem{size}, obj, fld_u_offset, fld_c_offset,
                             reinterpret_cast<byte *>(val), true);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_append_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                     vel_offs32_t fld_c_offset, uint16_t fld_no,
                                                     const char *vals, vel_size_t n_vals,
                                                     vel_seq_order_t order, size_t size,
                                                     const vel_bitmap_word_t *null_bitmap) {
    return vel_seq_append(CharElem{size}, obj, fld_u_offset, fld_c_offset, fld_no, in_bytes(vals),
                          n_vals, order, null_bitmap);
}

VEL_RET vel_seq_insert_page_char(vel_db_connection_h con, vel_page_manager_t *pm,
                                 vel_seq_page_t **root_page, vel_seq_no_t pos, const char *vals,
                                 vel_size_t *n_vals_ptr, const char **ins_val,
                                 vel_seq_count_t *ins_count, vel_seq_order_t order, size_t size,
                                 const vel_bitmap_word_t *null_bitmap, int null_bitmap_offs,
                                 int level) {
    const byte *key = in_bytes(*ins_val);
    VEL_RET rc =
        vel_seq_insert_page(CharElem{size}, con, pm, root_page, pos, in_bytes(vals), n_vals_ptr,
                            &key, ins_count, order, null_bitmap, null_bitmap_offs, level);
    *ins_val = reinterpret_cast<const char *>(key);
    return rc;
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_insert_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                     vel_offs32_t fld_c_offset, uint16_t fld_no,
                                                     vel_seq_no_t pos, const char *vals,
                                                     vel_size_t n_vals, vel_seq_order_t order,
                                                     size_t size,
                                                     const vel_bitmap_word_t *null_bitmap) {
    auto worker = [size](vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **rp,
                         vel_seq_no_t p, const byte *v, vel_size_t *np, const byte **iv,
                         vel_seq_count_t *ic, vel_seq_order_t o, const vel_bitmap_word_t *nb,
                         int offs, int level) {
        const char *key = reinterpret_cast<const char *>(*iv);
        VEL_RET rc = vel_seq_insert_page_char(con, pm, rp, p, reinterpret_cast<const char *>(v), np,
                                              &key, ic, o, size, nb, offs, level);
        *iv = in_bytes(key);
        return rc;
    };
    return vel_seq_insert(CharElem{size}, worker, obj, fld_u_offset, fld_c_offset, fld_no, pos,
                          in_bytes(vals), n_vals, order, null_bitmap);
}

extern "C" VEL_SEQ_API VEL_RET vel_w_seq_delete_char(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                                     vel_offs32_t fld_c_offset, uint16_t fld_no,
                                                     vel_seq_no_t from, vel_seq_no_t till,
                                                     vel_seq_order_t order, size_t size) {
    return vel_seq_delete(obj, fld_u_offset, fld_c_offset, fld_no, from, till, order, size);
}
