// Type-erased view of one element family: the exported wrappers of one
// element type behind function pointers that take elements as raw bytes, and
// the element's own ordering.  The differential driver, the bad-input table
// and the stress tests walk every family through this one table.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "seq_layout.h"
#include "velhost.h"

namespace velrel {

struct Family {
    const char *name;
    uint8_t elem_type; // VEL_DD_* code an iterator over it carries
    uint8_t seq_code;  // VEL_DD_SEQUENCE_* code of a field of this family
    size_t width;      // bytes per element (char: the declared N)
    bool is_char;
    bool is_float;

    // Element ordering in the element's own arithmetic (a NaN compares false).
    bool (*lt)(const void *a, const void *b, size_t w);
    bool (*le)(const void *a, const void *b, size_t w);

    VEL_RET(*append)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, uint16_t fld, const void *vals,
     vel_size_t n, vel_seq_order_t order, const vel_bitmap_word_t *nulls, size_t w);
    VEL_RET(*insert)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, uint16_t fld, vel_seq_no_t pos,
     const void *vals, vel_size_t n, vel_seq_order_t order, const vel_bitmap_word_t *nulls,
     size_t w);
    VEL_RET(*del)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, uint16_t fld, vel_seq_no_t from,
     vel_seq_no_t till, vel_seq_order_t order, size_t w);
    VEL_RET (*first)(vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, void *val, size_t w);
    VEL_RET (*last)(vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, void *val, size_t w);
    VEL_RET(*subseq)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, vel_seq_iterator_h it, vel_seq_no_t from,
     vel_seq_no_t till, size_t w);
    VEL_RET(*search)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, vel_seq_iterator_h it, const void *low,
     vel_seq_boundary_kind_t lk, const void *high, vel_seq_boundary_kind_t hk,
     vel_seq_order_t order, size_t w);
    VEL_RET(*store)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, uint16_t fld, vel_seq_iterator_h src,
     vel_seq_order_t order, size_t w);
    VEL_RET(*map)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, vel_seq_iterator_h it,
     vel_seq_iterator_h positions, size_t w);
    VEL_RET(*project)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, vel_seq_iterator_h dst,
     vel_seq_iterator_h src, size_t w);
    VEL_RET(*join)
    (vel_objhandle_h obj, vel_offs32_t u, vel_offs32_t c, vel_seq_iterator_h result,
     vel_seq_iterator_h join_with, vel_seq_order_t order);

    // Leaf capacity and inner capacity of this family for a page size.
    uint64_t leaf_capacity(int32_t page_size) const {
        return velseq::layout::leaf_capacity(page_size, width);
    }
    int32_t inner_capacity(int32_t page_size, vel_seq_order_t order) const {
        return velseq::layout::inner_capacity(page_size, width, order != VEL_SEQ_NO_ORDER, is_char);
    }
};

// The eleven scalar families, in dictionary order of elem_types.def.
const std::vector<Family> &scalar_families();
// The fixed-width character family for char(width).
Family char_family(size_t width);
// The family of an element or sequence type code (VEL_DD_INT4 or
// VEL_DD_SEQUENCE_INT4; char types take `width`); aborts on another code.
Family family_of(uint8_t type_code, size_t width = 0);
// Every family: the eleven scalar ones and char(5).
const std::vector<Family> &all_families();

// Readable rendering of one element, for failure messages.
std::string show(const Family &f, const void *elem);

} // namespace velrel
