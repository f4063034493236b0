// Depth-first walk of a field's page tree, the one walk of the host's
// checker and compaction, the tools and the fuzz harness.  Pages are entered
// in pre-order; page #k is the k-th entered.  A null reference or a descent
// below level kMaxLevel stops every walk (the depth limit lives here alone);
// a checked walk also stops at a page of another kind, a page whose user is
// not within 1..capacity, a leaf at another level than the first one, and an
// entry whose count is not its subtree's size.  What stopped it is in
// `message` as "page #k (level d): what".
//
// A walker derives from TreeWalk<Walker, Page> (Page: vel_seq_page_t, or
// const for a reading walk) and hides the hooks it needs:
//   enter(pg, level, k)   every page, before the page's own checks
//   known(pg, level, k, &count, &height)
//                         after enter: true for a page whose subtree the
//                         walker has seen before (a page shared with a tree
//                         walked earlier), giving its element count and
//                         levels; the subtree is skipped, its leaves taken
//                         to lie at level + height - 1
//   leaf(pg, level, k)    a leaf, after its checks
//   child(pg, level, k, i, count, first)
//                         entry i of inner page pg, after its subtree: its
//                         `count` elements, `first` its leftmost leaf
// A hook returns false to stop the walk, after fail() when the tree is at fault.
#pragma once

#include <cstdarg>
#include <cstdio>

#include "seq_layout.h"

namespace velseq::layout {

template <class Derived, class Page = const vel_seq_page_t> class TreeWalk {
  public:
    TreeWalk(int32_t page_size, uint64_t leaf_cap, uint64_t inner_cap, bool checked = true)
        : page_size(page_size), leaf_cap(leaf_cap), inner_cap(inner_cap), checked(checked) {}

    // Walks the tree under a non-null root; false when it stopped.
    bool walk(Page *root) {
        Page *first = nullptr;
        return descend(root, 0, &elements, &first);
    }
    // Levels of the tree walked (of its first leaf).
    int depth() const { return leaf_level + 1; }

    bool fail(uint64_t k, int level, const char *fmt, ...) __attribute__((format(printf, 4, 5))) {
        fault_page = k;
        const int at =
            std::snprintf(message, sizeof message,
                          "page #%llu (level %d): ", static_cast<unsigned long long>(k), level);
        va_list ap;
        va_start(ap, fmt);
        std::vsnprintf(message + at, sizeof message - static_cast<size_t>(at), fmt, ap);
        va_end(ap);
        return false;
    }

    bool enter(Page *, int, uint64_t) { return true; }
    bool known(Page *, int, uint64_t, uint64_t *, int *) { return false; }
    bool leaf(Page *, int, uint64_t) { return true; }
    bool child(Page *, int, uint64_t, uint64_t, uint64_t, Page *) { return true; }

    const int32_t page_size;
    const uint64_t leaf_cap;
    const uint64_t inner_cap;
    const bool checked;
    uint64_t pages = 0;    // entered
    uint64_t elements = 0; // of the whole tree, once walked
    int leaf_level = -1;
    bool too_deep = false;
    uint64_t fault_page = 0; // #k of the page at fault
    char message[160] = "";

  private:
    bool descend(Page *pg, int level, uint64_t *count, Page **first) {
        const uint64_t k = pages;
        if (pg == nullptr)
            return fail(k, level, "null page reference");
        if (level > kMaxLevel) {
            too_deep = true;
            return fail(k, level, "deeper than %d levels", VEL_SEQ_MAX_DEPTH);
        }
        ++pages;
        auto &self = static_cast<Derived &>(*this);
        if (!self.enter(pg, level, k))
            return false;
        if (int height = 0; self.known(pg, level, k, count, &height)) {
            if (leaf_level < 0)
                leaf_level = level + height - 1;
            else if (checked && leaf_level != level + height - 1)
                return fail(k, level, "leaves at level %d, the first leaf's at %d",
                            level + height - 1, leaf_level);
            for (*first = pg; page_kind(*first) == kInnerPage;)
                *first = entry_at(*first, page_size, 0)->page;
            return true;
        }
        const auto u = [](uint64_t v) { return static_cast<unsigned long long>(v); };
        const uint64_t n = pg->hdr.user;
        const int kind = page_kind(pg);
        if (kind != kInnerPage) {
            if (checked && kind != kLeafPage)
                return fail(k, level, "page kind %d", kind);
            if (checked && (n < 1 || n > leaf_cap))
                return fail(k, level, "leaf holds %llu values, capacity %llu", u(n), u(leaf_cap));
            if (leaf_level < 0)
                leaf_level = level;
            else if (checked && leaf_level != level)
                return fail(k, level, "leaf below the first leaf's level %d", leaf_level);
            *count = n;
            *first = pg;
            return self.leaf(pg, level, k);
        }
        if (checked && (n < 1 || n > inner_cap))
            return fail(k, level, "inner page holds %llu children, capacity %llu", u(n),
                        u(inner_cap));
        *count = 0;
        for (uint64_t i = 0; i < n; ++i) {
            const vel_seq_node_t e = *entry_at(pg, page_size, static_cast<int64_t>(i));
            uint64_t sub = 0;
            Page *sub_first = nullptr;
            if (!descend(e.page, level + 1, &sub, &sub_first))
                return false;
            if (checked && sub != e.count)
                return fail(k, level, "entry %llu counts %llu, its subtree holds %llu", u(i),
                            u(e.count), u(sub));
            if (i == 0)
                *first = sub_first;
            if (!self.child(pg, level, k, i, sub, sub_first))
                return false;
            *count += sub;
        }
        return true;
    }
};

} // namespace velseq::layout
