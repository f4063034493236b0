// The element families of the differential harness (which the fuzz target
// shares, without GoogleTest), called with a FieldRef: the eleven scalar
// families and char(N) for a few widths, so that a test can run the same
// scenario over every family through untyped byte buffers.
#pragma once

#include <string>
#include <vector>

#include "harness/families.h"
#include "velembed.h"

namespace vstest {

// Where a sequence field lives and what it holds.
struct FieldRef {
    uint16_t fld_no = 0;
    vel_offs32_t u_offset = 0;
    vel_offs32_t c_offset = 0;
    size_t elem_size = 0;
    bool is_char = false;
    const velrel::Family *fam = nullptr; // for the tree checker
};

struct FamilyOps {
    velrel::Family ops;
    std::string name; // "int4", "char16", ...
    uint8_t seq_type;
    size_t elem_size;
    bool is_char;
    bool is_float;
    bool is_signed;

    VEL_RET append(vel_objhandle_h obj, const FieldRef &f, const void *vals, vel_size_t n,
                   vel_seq_order_t order, const vel_bitmap_word_t *nulls) const {
        return ops.append(obj, f.u_offset, f.c_offset, f.fld_no, vals, n, order, nulls, elem_size);
    }
    VEL_RET insert(vel_objhandle_h obj, const FieldRef &f, vel_seq_no_t pos, const void *vals,
                   vel_size_t n, vel_seq_order_t order, const vel_bitmap_word_t *nulls) const {
        return ops.insert(obj, f.u_offset, f.c_offset, f.fld_no, pos, vals, n, order, nulls,
                          elem_size);
    }
    VEL_RET remove(vel_objhandle_h obj, const FieldRef &f, vel_seq_no_t from, vel_seq_no_t till,
                   vel_seq_order_t order) const {
        return ops.del(obj, f.u_offset, f.c_offset, f.fld_no, from, till, order, elem_size);
    }
    VEL_RET first(vel_objhandle_h obj, const FieldRef &f, void *val) const {
        return ops.first(obj, f.u_offset, f.c_offset, val, elem_size);
    }
    VEL_RET last(vel_objhandle_h obj, const FieldRef &f, void *val) const {
        return ops.last(obj, f.u_offset, f.c_offset, val, elem_size);
    }
};

// The eleven scalar families followed by char(3), char(16), char(32).
const std::vector<FamilyOps> &all_families();
const FamilyOps &family(const std::string &name);

} // namespace vstest
