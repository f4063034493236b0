// The plain model a sequence field is checked against: a vector of
// fixed-width values and a vector of null flags, with the module's refusal
// rules written out directly (no pages, no iterators).
#pragma once

#include <cstdint>
#include <cstring>
#include <vector>

#include "harness/families.h"

namespace velrel {

struct SeqModel {
    size_t w = 0;
    std::vector<uint8_t> vals; // size() * w bytes
    std::vector<uint8_t> nulls;
    // False once a delete trimmed the front of some subtree of an ordered
    // field: inner keys may then lag behind the first values they name.
    bool keys_exact = true;

    static SeqModel of_width(size_t width) {
        SeqModel m;
        m.w = width;
        return m;
    }
    size_t size() const { return nulls.size(); }
    const uint8_t *at(size_t i) const { return vals.data() + i * w; }
    void insert(size_t pos, const void *v, size_t n, const vel_bitmap_word_t *nb, size_t nb_offs);
    void erase(size_t from, size_t till); // inclusive
    void clear() { *this = of_width(w); }
    bool operator==(const SeqModel &o) const { return vals == o.vals && nulls == o.nulls; }
};

inline bool bit_of(const vel_bitmap_word_t *b, size_t i) {
    return b && ((b[i / 64] >> (i % 64)) & 1);
}

// The module's verdict on inserting v[0..n) with null bits nb at pos (an
// append inserts at size()): on ordered fields the null test (whole words,
// then the last partial word ANDed with n % 64 itself, not with a mask of
// that width), the buffer's own order, the position, then on ordered fields
// the left neighbour (at 0, the first element).
VEL_RET insert_verdict(const Family &f, vel_seq_order_t order, const SeqModel &m, uint64_t pos,
                       const uint8_t *v, uint64_t n, const vel_bitmap_word_t *nb);

// Outcome of append on the model, applying it when the module would.
VEL_RET model_append(const Family &f, vel_seq_order_t order, SeqModel &m, const uint8_t *v,
                     uint64_t n, const vel_bitmap_word_t *nb);

} // namespace velrel
