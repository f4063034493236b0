// Page tree checker for tests and tools.
#include <cstdio>
#include <cstring>

#include "host_internal.h"
#include "seq_walk.h"

namespace velhost {

namespace {

using namespace velseq::layout;

// The layout checks of the walk, plus reference counts, null counts and,
// with check_keys, key i of an ordered inner page equal to the first value
// of child i's subtree.
struct Checker : TreeWalk<Checker> {
    Checker(int32_t ps, const Field &f, bool ordered, bool keys, velh_tree_report_t *rep)
        : TreeWalk(ps, leaf_capacity(ps, f.elem_size),
                   inner_capacity(ps, f.elem_size, ordered, f.is_char)),
          s(f.elem_size), keys(ordered && keys), rep(rep) {}
    bool enter(const vel_seq_page_t *pg, int level, uint64_t k) {
        if (ref_load(const_cast<vel_seq_page_t *>(pg)) < 1)
            return fail(k, level, "reference count 0");
        return true;
    }
    bool leaf(const vel_seq_page_t *pg, int, uint64_t) {
        const vel_bitmap_word_t *mask = null_mask(pg, page_size, leaf_cap);
        for (uint64_t i = 0; i < pg->hdr.user; ++i)
            rep->nulls += is_null(mask, i);
        return true;
    }
    bool child(const vel_seq_page_t *pg, int level, uint64_t k, uint64_t i, uint64_t,
               const vel_seq_page_t *first) {
        if (keys && std::memcmp(key_at(pg, s, i), value_at(first, s, 0), s) != 0)
            return fail(k, level, "key %llu is not the first value of its subtree",
                        static_cast<unsigned long long>(i));
        return true;
    }
    const uint32_t s;
    const bool keys; // ordered, keys checked
    velh_tree_report_t *rep;
};

} // namespace

} // namespace velhost

using namespace velhost;

extern "C" VEL_RET velh_check_tree(const vel_objhandle_t *obj, uint16_t fld_no,
                                   vel_seq_order_t order, vel_bool check_keys,
                                   velh_tree_report_t *report) {
    if (report == nullptr)
        return VEL_E_HOST_BAD_ARG;
    std::memset(report, 0, sizeof *report);
    report->ok = 1;
    VEL_WRK wrk;
    if (vel_reading(const_cast<vel_objhandle_h>(obj), &wrk) != 0) {
        report->ok = 0;
        return wrk.ret;
    }
    Conn *c = conn_of(obj->con);
    ClassDef *cls = class_of(c->db, obj->class_code);
    if (fld_no >= cls->fields.size()) {
        report->ok = 0;
        return VEL_E_HOST_NO_FIELD;
    }
    const Field &f = cls->fields[fld_no];
    if (!f.is_seq) {
        report->ok = 0;
        return VEL_E_HOST_WRONG_FIELD;
    }
    auto *v = static_cast<Version *>(wrk.pobj);
    const vel_seq_page_t *root = *root_slot(cls, v, f, c->db->cfg.additional_object_field_size);
    if (root == nullptr)
        return VEL_S_OK;
    Checker w(static_cast<int32_t>(cls->pm->page_size), f, order != VEL_SEQ_NO_ORDER,
              check_keys != 0, report);
    report->ok = w.walk(root);
    if (!report->ok)
        std::snprintf(report->message, sizeof report->message, "%s", w.message);
    report->pages = w.pages;
    report->depth = static_cast<uint32_t>(w.depth());
    report->elements = report->ok ? w.elements : 0;
    return VEL_S_OK;
}
