#include "common/trap.h"
#include "storage/field_root.h"
#include "storage/page_format.h"

using namespace velseq;

// One page read: every inner entry carries its subtree's count.  Anything
// that is not an inner page counts as a leaf.
extern "C" VEL_SEQ_API VEL_RET vel_w_seq_count(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                               vel_offs32_t fld_c_offset, vel_seq_no_t *count) {
    const int32_t page_size = page_size_of(obj->con, obj->pm);
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, fld_u_offset, fld_c_offset, &root);
    if (rc != VEL_S_OK)
        return rc;
    if (root == nullptr) {
        *count = 0;
        return VEL_S_OK;
    }
    const int n_items = root->hdr.user;
    if (page_kind(root) != kInnerPage) {
        *count = static_cast<vel_seq_no_t>(n_items);
        return VEL_S_OK;
    }
    vel_seq_count_t total = 0;
    for (int i = 0; i < n_items; i++)
        total += inner_entry(root, page_size, i)->count;
    *count = total;
    return VEL_S_OK;
}
