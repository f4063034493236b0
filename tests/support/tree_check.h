// The differential harness's tree checker and model, for tests that hold a
// FieldRef: the checker walks a field's page tree from its root, checks the
// structural invariants and gathers the stored values and null flags.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "family_ops.h"
#include "harness/model.h"
#include "harness/tree_check.h"

namespace vstest {

using velrel::SeqModel;

struct TreeReport {
    std::string error;                   // empty when every invariant holds
    int depth = 0;                       // levels; 0 for an empty field
    std::vector<vel_seq_page_t *> pages; // every page, root first, depth-first
    SeqModel contents;
    bool ok() const { return error.empty(); }
};

// With `check_keys`, key i of an ordered inner page must equal the first value
// of child i's subtree (true for trees built by appends only); otherwise it
// must not lie beyond it.
TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys = false);

// Empty when `got` holds exactly the model's elements (all bytes and flags);
// otherwise the first difference.
std::string diff(const SeqModel &model, const SeqModel &got);

} // namespace vstest
