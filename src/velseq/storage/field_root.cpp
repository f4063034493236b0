#include "storage/field_root.h"

#include <atomic>
#include <cstring>

#include "common/trap.h"
#include "storage/page_format.h"

namespace velseq {

vel_seq_page_t **locate_root(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                             vel_offs32_t fld_c_offset, VEL_WRK *w, int for_write) {
    vel_db_connection_h con = obj->con;
    vel_database_header_t *db = con->db;
    auto *dict = reinterpret_cast<vel_dictionary_t *>(reinterpret_cast<char *>(db) + db->dict_offs);
    auto *classes =
        reinterpret_cast<vel_class_info_t *>(reinterpret_cast<char *>(dict) + dict->v_class_info);
    uint32_t foffset =
        (classes[obj->class_code].flags & VEL_CLASS_COMPACT) ? fld_c_offset : fld_u_offset;

    // Object pages carry pagesize - 24 data bytes each; the reference may end
    // exactly at the end of one but not cross into the next.
    // The division is the dearest step of a one-value update, so the last
    // pair that passed is remembered (one word, any thread may replace it).
    uint32_t p = obj->mo + foffset + db->additional_object_field_size;
    uint32_t d = static_cast<uint16_t>(db->pagesize - 24);
    static std::atomic<uint64_t> last_passed{~uint64_t{0}}; // d < 2^16: no pair
    const uint64_t key = (uint64_t{p} << 32) | d;
    if (last_passed.load(std::memory_order_relaxed) != key) {
        VEL_SEQ_CHECK((p % d) + 8 <= d);
        last_passed.store(key, std::memory_order_relaxed);
    }

    return static_cast<vel_seq_page_t **>(
        vel_obj_pos(w->pobj, con, obj->pm, obj->mo + foffset, for_write));
}

} // namespace velseq

using namespace velseq;

VEL_RET vel_seq_get_root(vel_objhandle_h obj, vel_offs32_t fld_u_offset, vel_offs32_t fld_c_offset,
                         vel_seq_page_t **root) {
    VEL_WRK w;
    if (vel_reading(obj, &w) != 0)
        return w.ret;
    std::memcpy(root, locate_root(obj, fld_u_offset, fld_c_offset, &w, 0), sizeof *root);
    return VEL_S_OK;
}

VEL_RET vel_seq_begin_root_update(vel_objhandle_h obj, vel_offs32_t fld_u_offset,
                                  vel_offs32_t fld_c_offset, uint16_t fld_no, VEL_WRK *w,
                                  vel_seq_page_t ***root) {
    if (vel_writing(obj, w, 0, fld_no) != 0)
        return w->ret;
    *root = locate_root(obj, fld_u_offset, fld_c_offset, w, 1);
    return copy_on_write(obj->con, obj->pm, *root);
}

void vel_seq_end_root_update(vel_objhandle_h obj, VEL_WRK *w, vel_seq_page_t ** /*root*/) {
    vel_end_writing(obj, w);
}

VEL_RET vel_seq_copy_on_write_page(vel_db_connection_h con, vel_page_manager_t *pm,
                                   vel_seq_page_t **pp) {
    return copy_on_write(con, pm, pp);
}

VEL_RET velseq::copy_shared_page(vel_db_connection_h con, vel_page_manager_t *pm,
                                 vel_seq_page_t **pp, vel_seq_page_t *src, int32_t page_size) {
    vel_seq_page_t *copy = nullptr;
    VEL_RET rc = vel_seq_create_page(con, pm, &copy, pp, page_kind(src));
    if (rc != VEL_S_OK)
        return rc;
    // All page_size bytes, the reference count included.  Other versions may
    // be releasing the source right now, so its count word is read
    // atomically; the other bytes of a shared page do not change.
    std::memcpy(&copy->hdr, &src->hdr, sizeof src->hdr);
    copy->ref_count = std::atomic_ref<uint32_t>(src->ref_count).load(std::memory_order_relaxed);
    std::memcpy(page_values(copy), page_values(src),
                static_cast<size_t>(page_size - kPageHeaderBytes));

    vel_seq_lock_cow_bitmap(con, pm);
    int32_t count = 0;
    if (vel_seq_decrement_ref_count(con, pm, src, &count) == VEL_S_OK) {
        if (count <= 0) { // a page that had to be copied is referenced elsewhere
            vel_seq_unlock_cow_bitmap(con, pm); // trap holding nothing
            VEL_SEQ_TRAP();
        }
        vel_seq_init_ref_count(con, pm, copy, copy);
        if (page_kind(copy) == kInnerPage) {
            // The children are now referenced by both the source and the copy.
            for (int i = 0; i < copy->hdr.user; i++)
                if (vel_seq_increment_ref_count(con, pm, inner_entry(copy, page_size, i)->page) !=
                    VEL_S_OK)
                    break;
        }
    }
    vel_seq_unlock_cow_bitmap(con, pm);
    return VEL_S_OK;
}
