// The field root: the 8-byte reference to a sequence's root page inside the
// owning object, and copy-on-write of shared pages.
//
// Update protocol: vel_seq_begin_root_update opens write access and makes the
// root private; the caller makes every page private (vel_seq_copy_on_write_page)
// before descending into or writing it, writes root changes straight through
// the returned slot, and closes with vel_seq_end_root_update.
#pragma once

#include <cstring>

#include "seq_root.h" // vel_seq_get_root
#include "velhost.h"

// Opens write access to field `fld_no`, stores the address of the root slot
// (valid until the update ends) into *root and makes the root page private.
// When the copy fails, write access stays open.
VEL_RET vel_seq_begin_root_update(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                  vel_offs32_t fld_c_offset, uint16_t fld_no, VEL_WRK *w,
                                  vel_seq_page_t ***root);

// Ends the write access; `root` is not used.
void vel_seq_end_root_update(vel_objhandle_h obj, VEL_WRK *w, vel_seq_page_t **root);

// If *pp is shared with another version, replaces it by a private copy.
// Only a failed page creation is reported; failed reference-count changes
// are ignored and the copy stays in place.
VEL_RET vel_seq_copy_on_write_page(vel_db_connection_h con, vel_page_manager_t *pm,
                                   vel_seq_page_t **pp);

namespace velseq {

// The copy itself, once the page is known to be shared.
VEL_RET copy_shared_page(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **pp,
                         vel_seq_page_t *src, int32_t page_size);

// vel_seq_copy_on_write_page with its tests inline: most pages on an update's
// path are already private.
inline VEL_RET copy_on_write(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **pp);

// Address of the root slot of an object's field, access already granted in
// `w`.  Traps when the 8-byte reference would straddle two object pages.
vel_seq_page_t **locate_root(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                             vel_offs32_t fld_c_offset, VEL_WRK *w, int for_write);

// The field root lives in the object at whatever alignment the class layout
// gives it, so it is read and written as 8 raw bytes.
inline vel_seq_page_t *load_ref(vel_seq_page_t *const *slot) {
    vel_seq_page_t *pg;
    std::memcpy(&pg, slot, sizeof pg);
    return pg;
}
inline void store_ref(vel_seq_page_t **slot, vel_seq_page_t *pg) {
    std::memcpy(slot, &pg, sizeof pg);
}

// Only the in-memory page manager, or concurrent writers, share pages.
inline VEL_RET copy_on_write(vel_db_connection_h con, vel_page_manager_t *pm, vel_seq_page_t **pp) {
    if (pm != con->pm_inmem && !con->db->concurrent_write_transactions)
        return VEL_S_OK;
    vel_seq_page_t *src = load_ref(pp);
    if (src == nullptr)
        return VEL_S_OK;
    const int32_t page_size = pm->large_page_size(con);
    if (!vel_seq_is_copy(con, pm, src, src))
        return VEL_S_OK;
    return copy_shared_page(con, pm, pp, src, page_size);
}

} // namespace velseq
