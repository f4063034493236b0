// Zero-copy reads: the leaves of a column's page tree, visited in place
// through the host's object access and the page layout (seq_layout.h), the
// way the module's own reads find them: the field's 8 bytes in the object
// hold the root page, an inner page's entries give each child's count.
#include <algorithm>
#include <cstring>

#include "dispatch.h"
#include "seq_layout.h"

namespace velseq::table {

namespace {

namespace lay = velseq::layout;

#define VELTABLE_TREE_CHECK(cond)                                                                  \
    do {                                                                                           \
        if (!(cond))                                                                               \
            vel_stop__(VEL_ERR_SEQ, __FILE__, __LINE__);                                           \
    } while (0)

struct leaf_walk {
    int32_t page_size;
    uint64_t elem_size, leaf_cap;
    uint64_t first, last; // positions wanted
    const std::function<bool(const leaf_run &)> &f;

    // The subtree of pg, whose values start at `base`, `count` of them;
    // false once f said stop.
    bool walk(const vel_seq_page_t *pg, uint64_t base, uint64_t count, int level) const {
        VELTABLE_TREE_CHECK(pg != nullptr && level <= lay::kMaxLevel);
        const uint64_t user = pg->hdr.user;
        if (lay::page_kind(pg) == lay::kLeafPage) {
            VELTABLE_TREE_CHECK(user >= 1 && user <= leaf_cap && user == count);
            const uint64_t lo = std::max(first, base) - base;
            const uint64_t hi = std::min(last, base + user) - base;
            const vel_bitmap_word_t *mask = lay::null_mask(pg, page_size, leaf_cap);
            // A null among the run's bits: its edge words cut to the run,
            // the words between OR-ed whole (a loop without a branch inside).
            const uint64_t w0 = lo / 64, w1 = (hi - 1) / 64;
            const uint64_t from_lo = ~uint64_t(0) << (lo % 64);
            const uint64_t to_hi = hi % 64 ? ~(~uint64_t(0) << (hi % 64)) : ~uint64_t(0);
            uint64_t seen =
                w0 == w1 ? mask[w0] & from_lo & to_hi : (mask[w0] & from_lo) | (mask[w1] & to_hi);
            for (uint64_t w = w0 + 1; w < w1; w++)
                seen |= mask[w];
            leaf_run r;
            r.first = base + lo;
            r.length = hi - lo;
            r.values = lay::value_at(pg, elem_size, lo);
            r.nulls = seen != 0 ? mask : nullptr;
            r.null_bit = lo;
            return f(r);
        }
        VELTABLE_TREE_CHECK(lay::page_kind(pg) == lay::kInnerPage && user >= 1);
        uint64_t total = 0;
        for (uint64_t i = 0; i < user; i++) {
            const vel_seq_node_t *e = lay::entry_at(pg, page_size, static_cast<int64_t>(i));
            const uint64_t at = base + total;
            total += e->count;
            if (at + e->count <= first)
                continue;
            if (at >= last)
                break;
            // The next sibling's start, while f works on this one: the
            // hardware prefetcher does not cross into another page.  (Its
            // mask and 8 lines: a scan of 10^7 int4 in place took 1.68 ms
            // so, 1.95 with the whole page asked for, 1.77 with nothing.)
            if (i + 1 < user && at + e->count < last)
                lay::prefetch_leaf_start(
                    lay::entry_at(pg, page_size, static_cast<int64_t>(i + 1))->page, page_size,
                    leaf_cap, 8);
            if (!walk(e->page, at, e->count, level + 1))
                return false;
        }
        VELTABLE_TREE_CHECK(total == count || base + total > last);
        return true;
    }
};

} // namespace

void visit_leaves(const column &c, uint64_t first, uint64_t last,
                  const std::function<bool(const leaf_run &)> &f) {
    const uint64_t n = count(c);
    if (first > last || last > n)
        throw error(VEL_E_ILLEGAL_PARAM, std::string("visit_leaves: positions ")
                                             .append(std::to_string(first))
                                             .append("..")
                                             .append(std::to_string(last))
                                             .append(" of ")
                                             .append(std::to_string(n)));
    if (first == last)
        return;
    vel_objhandle_t obj = c.obj;
    VEL_WRK w;
    if (vel_reading(&obj, &w) != 0)
        throw error(w.ret, "reading a column");
    vel_seq_page_t *root = nullptr;
    std::memcpy(&root, vel_obj_pos(w.pobj, obj.con, obj.pm, obj.mo + c.field.offset, 0),
                sizeof root);
    const int32_t page_size = obj.pm->large_page_size(obj.con);
    const leaf_walk walk{
        page_size, c.field.elem_size, lay::leaf_capacity(page_size, c.field.elem_size), first, last,
        f};
    walk.walk(root, 0, n, 0);
}

} // namespace velseq::table
