// Structural check of one field's page tree, read straight from the pages:
// page kinds, item counts within capacity, every leaf at one depth, entry
// counts equal to subtree sizes, and the keys of ordered inner pages.  It
// also gathers the stored values and null flags, so the content can be
// compared with the model without going through any iterator.
#pragma once

#include <string>
#include <vector>

#include "harness/families.h"
#include "harness/model.h"

namespace velrel {

struct TreeInfo {
    int depth = 0; // levels; 0 for an empty field
    uint64_t pages = 0;
    std::vector<vel_seq_page_t *> page_list; // every page, root first, depth-first
    SeqModel content;                        // values and null flags in sequence order
};

// Empty string when the tree is sound; otherwise what is wrong and where.
// `keys_exact`: each ordered key must equal its subtree's first value;
// otherwise it must not lie beyond it in the declared order.
std::string check_tree(const Family &f, vel_seq_order_t order, vel_seq_page_t *root,
                       int32_t page_size, bool keys_exact, TreeInfo *out);

} // namespace velrel
