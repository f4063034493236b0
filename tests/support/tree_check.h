// Independent readers of a sequence field for tests: a tree checker that
// walks the page tree from the field root and verifies the structural
// invariants, and a reference model of the sequence's contents.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "family_ops.h"

namespace vstest {

// Everything a field holds, in sequence order: `elem_size` bytes per
// element (null elements keep whatever their slot holds) and a null flag.
struct SeqContents {
    std::vector<uint8_t> bytes;
    std::vector<bool> nulls;
    size_t size() const { return nulls.size(); }
};

struct TreeReport {
    std::string error; // empty when every invariant holds
    int depth = 0;     // levels; 0 for an empty field
    uint64_t elements = 0;
    std::vector<vel_seq_page_t *> pages; // every page, root first, depth-first
    SeqContents contents;
    bool ok() const { return error.empty(); }
};

// Walks the field's tree (read access through the module's root fetch) and
// checks: page kinds 2/3, every leaf at one depth, depth <= 14, 1 <= user <=
// capacity on every page (leaf, inner ordered/unordered, char inner pages
// sized for entries only), entry counts equal subtree sizes; with
// `check_keys`, that key i of an ordered inner page equals the first value
// of child i's subtree (true for trees built by appends only).
TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys = false);

// Capacities as the page format defines them.
uint64_t leaf_capacity(int32_t page_size, size_t elem_size);
uint64_t inner_capacity(int32_t page_size, size_t elem_size, bool is_char, bool ordered);

// A sequence as a plain vector: the reference for differential tests.
class SeqModel {
  public:
    explicit SeqModel(size_t elem_size) : w_(elem_size) {}
    size_t size() const { return nulls_.size(); }
    size_t elem_size() const { return w_; }
    void append(const uint8_t *vals, size_t n, const vel_bitmap_word_t *nulls);
    void insert(size_t pos, const uint8_t *vals, size_t n, const vel_bitmap_word_t *nulls);
    // Removes from..min(till, size-1); nothing when till < from or from >= size.
    void erase(uint64_t from, uint64_t till);
    void clear();
    const uint8_t *at(size_t i) const { return bytes_.data() + i * w_; }
    bool is_null(size_t i) const { return nulls_[i]; }

    // Empty when `c` holds exactly the model's elements (all bytes and flags);
    // otherwise the first difference.
    std::string diff(const SeqContents &c) const;

  private:
    size_t w_;
    std::vector<uint8_t> bytes_;
    std::vector<bool> nulls_;
};

inline bool bit(const vel_bitmap_word_t *bm, size_t i) {
    return bm != nullptr && ((bm[i / 64] >> (i % 64)) & 1) != 0;
}

} // namespace vstest
