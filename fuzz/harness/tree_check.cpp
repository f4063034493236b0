#include "harness/tree_check.h"

#include <cstring>

#include "seq_walk.h"

namespace velrel {
namespace {

using namespace velseq::layout;

// The layout checks of the walk, the keys of ordered inner pages, and the
// content gathered in sequence order.
struct Walker : TreeWalk<Walker, vel_seq_page_t> {
    Walker(const Family &f, vel_seq_order_t order, int32_t ps, bool keys_exact, TreeInfo *out)
        : TreeWalk(ps, f.leaf_capacity(ps), static_cast<uint64_t>(f.inner_capacity(ps, order))),
          f(f), order(order), keys_exact(keys_exact), out(out) {}
    bool enter(vel_seq_page_t *pg, int, uint64_t) {
        out->page_list.push_back(pg);
        return true;
    }
    bool leaf(vel_seq_page_t *pg, int, uint64_t) {
        out->content.insert(out->content.size(), value_at(pg, 0, 0), pg->hdr.user,
                            null_mask(pg, page_size, leaf_cap), 0);
        return true;
    }
    bool child(vel_seq_page_t *pg, int level, uint64_t k, uint64_t i, uint64_t,
               vel_seq_page_t *first) {
        if (order == VEL_SEQ_NO_ORDER)
            return true;
        const std::byte *key = key_at(pg, f.width, i), *firstv = value_at(first, f.width, 0);
        const bool ok = keys_exact                   ? std::memcmp(key, firstv, f.width) == 0
                        : order == VEL_SEQ_ASC_ORDER ? f.le(key, firstv, f.width)
                                                     : f.le(firstv, key, f.width);
        return ok || fail(k, level, "key %llu does not match its subtree's first value",
                          static_cast<unsigned long long>(i));
    }
    const Family &f;
    const vel_seq_order_t order;
    const bool keys_exact;
    TreeInfo *out;
};

} // namespace

std::string check_tree(const Family &f, vel_seq_order_t order, vel_seq_page_t *root,
                       int32_t page_size, bool keys_exact, TreeInfo *out) {
    *out = TreeInfo{};
    out->content.w = f.width;
    if (!root)
        return {};
    Walker w(f, order, page_size, keys_exact, out);
    if (!w.walk(root))
        return std::string(f.name) + " field: " + w.message;
    out->pages = w.pages;
    out->depth = w.depth();
    return {};
}

} // namespace velrel
