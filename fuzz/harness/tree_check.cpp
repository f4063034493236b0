#include "harness/tree_check.h"

#include <cstdio>
#include <cstring>

namespace velrel {
namespace {

struct Walker {
    const Family &f;
    vel_seq_order_t order;
    int32_t page_size;
    bool keys_exact;
    TreeInfo *out;
    int leaf_depth = -1;
    std::string err;

    uint8_t *body(vel_seq_page_t *pg) { return reinterpret_cast<uint8_t *>(pg) + 8; }
    vel_seq_node_t *entry(vel_seq_page_t *pg, int i) {
        return reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<uint8_t *>(pg) + page_size -
                                                  16 * (i + 1));
    }
    bool fail(const char *what, int level, uint64_t a, uint64_t b) {
        char buf[200];
        std::snprintf(buf, sizeof buf, "%s field: %s at level %d (%llu vs %llu)", f.name, what,
                      level, (unsigned long long)a, (unsigned long long)b);
        err = buf;
        return false;
    }

    // Appends the subtree's content to out->content; *count gets its size and
    // *first_at the index in content of its first value.
    bool walk(vel_seq_page_t *pg, int level, uint64_t *count) {
        if (!pg)
            return fail("null page reference", level, 0, 0);
        if (level > 13)
            return fail("tree deeper than 14 levels", level, level, 13);
        ++out->pages;
        out->page_list.push_back(pg);
        int kind = pg->hdr.kind & 15;
        uint64_t n = pg->hdr.user;
        if (kind == 3) {
            uint64_t cap = f.leaf_capacity(page_size);
            if (n < 1 || n > cap)
                return fail("leaf item count out of range", level, n, cap);
            if (leaf_depth < 0)
                leaf_depth = level;
            else if (leaf_depth != level)
                return fail("leaves at different depths", level, level, leaf_depth);
            const auto *mask = reinterpret_cast<const vel_bitmap_word_t *>(
                reinterpret_cast<uint8_t *>(pg) + page_size - 8 * ((cap + 63) / 64));
            out->content.insert(out->content.size(), body(pg), n, mask, 0);
            *count = n;
            return true;
        }
        if (kind != 2)
            return fail("unknown page kind", level, kind, 0);
        uint64_t cap = static_cast<uint64_t>(f.inner_capacity(page_size, order));
        if (n < 1 || n > cap)
            return fail("inner item count out of range", level, n, cap);
        uint64_t total = 0;
        for (uint64_t i = 0; i < n; ++i) {
            vel_seq_node_t *e = entry(pg, static_cast<int>(i));
            size_t first_at = out->content.size();
            uint64_t sub = 0;
            if (!walk(e->page, level + 1, &sub))
                return false;
            if (sub != e->count)
                return fail("entry count differs from subtree size", level, e->count, sub);
            if (order != VEL_SEQ_NO_ORDER) {
                const uint8_t *key = body(pg) + i * f.width;
                const uint8_t *firstv = out->content.at(first_at);
                bool ok;
                if (keys_exact)
                    ok = std::memcmp(key, firstv, f.width) == 0;
                else if (order == VEL_SEQ_ASC_ORDER)
                    ok = f.le(key, firstv, f.width);
                else
                    ok = f.le(firstv, key, f.width);
                if (!ok)
                    return fail("key does not match its subtree's first value", level, i, first_at);
            }
            total += sub;
        }
        *count = total;
        return true;
    }
};

} // namespace

std::string check_tree(const Family &f, vel_seq_order_t order, vel_seq_page_t *root,
                       int32_t page_size, bool keys_exact, TreeInfo *out) {
    *out = TreeInfo{};
    out->content.w = f.width;
    if (!root)
        return {};
    Walker wk{f, order, page_size, keys_exact, out, -1, {}};
    uint64_t count = 0;
    if (!wk.walk(root, 0, &count))
        return wk.err;
    out->depth = wk.leaf_depth + 1;
    out->root_is_leaf = (root->hdr.kind & 15) == 3;
    return {};
}

} // namespace velrel
