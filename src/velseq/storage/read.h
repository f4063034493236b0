// First and last element of a sequence: one root-to-leaf walk down the left
// or the right edge, read-only (nothing is copied or written).  The null
// test and the copy of the slot are independent: a null end element returns
// VEL_E_SEQ_NULL_VALUE and still copies whatever its slot holds.
#pragma once

#include <cstring>

#include "storage/field_root.h"
#include "storage/page_format.h"

namespace velseq {

// `last` selects the right edge.  The descent stops only at a leaf page.
template <class E>
VEL_RET vel_seq_end_value(const E &e, vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                          vel_offs32_t fld_c_offset, byte *val, bool last) {
    const int32_t page_size = page_size_of(obj->con, obj->pm);
    vel_seq_page_t *pg = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &pg);
    if (rc != VEL_S_OK)
        return rc;
    if (pg == nullptr)
        return VEL_S_NOTFOUND;
    while (page_kind(pg) != kLeafPage)
        pg = inner_entry(pg, page_size, last ? pg->hdr.user - 1 : 0)->page;
    const int i = last ? pg->hdr.user - 1 : 0;
    const vel_bitmap_word_t *mask = leaf_nulls(pg, page_size, e.leaf_capacity(page_size));
    rc = ((mask[i / 64] >> (i % 64)) & 1) != 0 ? VEL_E_SEQ_NULL_VALUE : VEL_S_OK;
    std::memcpy(val, page_value(pg, e.size(), static_cast<uint64_t>(i)), e.size());
    return rc;
}

} // namespace velseq
