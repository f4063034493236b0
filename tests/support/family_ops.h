// One table entry per element family (the eleven scalar types and char(N)
// for a few widths), so that a test can run the same scenario over every
// family through untyped byte buffers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velembed.h"

namespace vstest {

// Where a sequence field lives and what it holds.
struct FieldRef {
    uint16_t fld_no = 0;
    vel_offs32_t u_offset = 0;
    vel_offs32_t c_offset = 0;
    size_t elem_size = 0;
    bool is_char = false;
};

struct FamilyOps {
    std::string name;  // "int4", "char16", ...
    uint8_t seq_type;  // VEL_DD_SEQUENCE_*
    uint8_t elem_type; // VEL_DD_* of one element
    size_t elem_size;
    bool is_char;
    bool is_float;  // float or double: IEEE comparison
    bool is_signed; // signed integers

    VEL_RET(*append)
    (vel_objhandle_h obj, const FieldRef &f, const void *vals, vel_size_t n, vel_seq_order_t order,
     const vel_bitmap_word_t *nulls);
    VEL_RET(*insert)
    (vel_objhandle_h obj, const FieldRef &f, vel_seq_no_t pos, const void *vals, vel_size_t n,
     vel_seq_order_t order, const vel_bitmap_word_t *nulls);
    VEL_RET(*remove)
    (vel_objhandle_h obj, const FieldRef &f, vel_seq_no_t from, vel_seq_no_t till,
     vel_seq_order_t order);
    VEL_RET (*first)(vel_objhandle_h obj, const FieldRef &f, void *val);
    VEL_RET (*last)(vel_objhandle_h obj, const FieldRef &f, void *val);

    // The element's own ordering of two values: -1, 0, 1, or 2 when
    // unordered (a NaN is involved).
    int (*compare)(const void *a, const void *b, size_t size);
};

// The eleven scalar families followed by char(3), char(16), char(32).
const std::vector<FamilyOps> &all_families();
const FamilyOps &family(const std::string &name);

} // namespace vstest
