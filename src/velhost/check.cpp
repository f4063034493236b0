// Page tree checker for tests and tools.
#include <cstdarg>
#include <cstdio>
#include <cstring>

#include "host_internal.h"

namespace velhost {

namespace {

struct Walk {
    uint32_t page_size;
    uint32_t elem_size;
    bool is_char;
    bool ordered;
    bool check_keys;
    uint32_t leaf_cap;
    uint32_t inner_cap;
    int leaf_depth = -1;
    velh_tree_report_t *rep;
};

bool fail(Walk &w, const char *fmt, ...) {
    if (w.rep->ok) {
        w.rep->ok = 0;
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(w.rep->message, sizeof w.rep->message, fmt, ap);
        va_end(ap);
    }
    return false;
}

const vel_seq_node_t *entry(const vel_seq_page_t *pg, uint32_t ps, uint32_t i) {
    return reinterpret_cast<const vel_seq_node_t *>(reinterpret_cast<const std::byte *>(pg) + ps -
                                                    16 * (size_t(i) + 1));
}

const std::byte *value(const vel_seq_page_t *pg, uint32_t s, uint32_t i) {
    return reinterpret_cast<const std::byte *>(pg) + 8 + size_t(i) * s;
}

// Checks the subtree under pg; returns its element count through *count and
// its first value through *first (a pointer into its leftmost leaf).
bool walk(Walk &w, const vel_seq_page_t *pg, int depth, uint64_t *count, const std::byte **first) {
    if (pg == nullptr)
        return fail(w, "null page reference at depth %d", depth);
    if (depth >= VEL_SEQ_MAX_DEPTH)
        return fail(w, "tree deeper than %d levels", VEL_SEQ_MAX_DEPTH);
    if (ref_load(const_cast<vel_seq_page_t *>(pg)) < 1)
        return fail(w, "page at depth %d has reference count 0", depth);
    w.rep->pages++;
    const uint32_t kind = pg->hdr.kind & 15;
    const uint32_t n = pg->hdr.user;
    if (kind == 3) {
        if (n < 1 || n > w.leaf_cap)
            return fail(w, "leaf at depth %d holds %u values (capacity %u)", depth, n, w.leaf_cap);
        if (w.leaf_depth < 0)
            w.leaf_depth = depth;
        else if (w.leaf_depth != depth)
            return fail(w, "leaves at depths %d and %d", w.leaf_depth, depth);
        const uint32_t words = (w.leaf_cap + 63) / 64;
        auto *nulls = reinterpret_cast<const uint64_t *>(reinterpret_cast<const std::byte *>(pg) +
                                                         w.page_size - 8 * words);
        for (uint32_t i = 0; i < n; ++i)
            w.rep->nulls += (nulls[i / 64] >> (i % 64)) & 1;
        *count = n;
        *first = value(pg, w.elem_size, 0);
        return true;
    }
    if (kind != 2)
        return fail(w, "page at depth %d has kind %u", depth, kind);
    if (n < 1 || n > w.inner_cap)
        return fail(w, "inner page at depth %d has %u children (capacity %u)", depth, n,
                    w.inner_cap);
    uint64_t total = 0;
    for (uint32_t i = 0; i < n; ++i) {
        const vel_seq_node_t *e = entry(pg, w.page_size, i);
        uint64_t sub = 0;
        const std::byte *sub_first = nullptr;
        if (!walk(w, e->page, depth + 1, &sub, &sub_first))
            return false;
        if (sub != e->count)
            return fail(w, "entry %u at depth %d counts %llu, subtree holds %llu", i, depth,
                        static_cast<unsigned long long>(e->count),
                        static_cast<unsigned long long>(sub));
        if (w.ordered && w.check_keys &&
            std::memcmp(value(pg, w.elem_size, i), sub_first, w.elem_size) != 0)
            return fail(w, "key %u at depth %d is not the first value of its subtree", i, depth);
        if (i == 0)
            *first = sub_first;
        total += sub;
    }
    *count = total;
    return true;
}

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
    Walk w;
    w.page_size = cls->pm->page_size;
    w.elem_size = f.elem_size;
    w.is_char = f.is_char;
    w.ordered = order != VEL_SEQ_NO_ORDER;
    w.check_keys = check_keys != 0;
    // The capacities of the module's page layout: a leaf value costs its
    // bytes plus one null bit, with up to 63 bits lost to whole mask words;
    // an ordered scalar inner page keeps one key per 16-byte entry, a char
    // one ignores its keys in the capacity.
    w.leaf_cap = (8 * w.page_size - 127) / (8 * w.elem_size + 1);
    w.inner_cap =
        (w.ordered && !w.is_char) ? (w.page_size - 8) / (16 + w.elem_size) : (w.page_size - 8) / 16;
    w.rep = report;
    uint64_t count = 0;
    const std::byte *first = nullptr;
    walk(w, root, 0, &count, &first);
    report->depth = w.leaf_depth < 0 ? 0 : static_cast<uint32_t>(w.leaf_depth + 1);
    report->elements = count;
    return VEL_S_OK;
}
