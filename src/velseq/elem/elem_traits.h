// Element policies: everything the generic operations need to know about an
// element type.  The eleven scalar types get a ScalarElem each; fixed-width
// character elements get CharElem, whose width is a run-time value.  Both
// offer the same members, so one generic definition serves all twelve
// families; the few places where the char family must behave differently
// (capacities, map, join, search outcome) test `is_char`.
//
// Values are handled through element pointers (`const std::byte*`), because
// a char element is a run of bytes, not a C value.  The ordering tests keep
// their operand order and use the element's own arithmetic: signed, unsigned
// (datetime too) or IEEE, so a comparison with a NaN is false; char elements
// compare by the sign of the host's vel_memcmp over `size` bytes.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstring>

#include "seq_layout.h"
#include "velhost.h"

namespace velseq {

using byte = std::byte;

template <class T, uint8_t Code> struct ScalarElem {
    using value_type = T;
    static constexpr bool is_char = false;
    static constexpr uint8_t type_code = Code;

    constexpr size_t size() const { return sizeof(T); }

    static T load(const byte *p) {
        T v;
        std::memcpy(&v, p, sizeof v);
        return v;
    }
    bool lt(const byte *a, const byte *b) const { return load(a) < load(b); }
    bool le(const byte *a, const byte *b) const { return load(a) <= load(b); }
    bool gt(const byte *a, const byte *b) const { return load(a) > load(b); }
    bool ge(const byte *a, const byte *b) const { return load(a) >= load(b); }

    uint64_t leaf_capacity(int32_t page_size) const {
        return layout::leaf_capacity(page_size, sizeof(T));
    }
    int32_t inner_capacity(int32_t page_size, vel_seq_order_t order) const {
        return layout::inner_capacity(page_size, sizeof(T), order != VEL_SEQ_NO_ORDER, false);
    }
};

struct CharElem {
    using value_type = char;
    static constexpr bool is_char = true;
    static constexpr uint8_t type_code = VEL_DD_CHAR;

    size_t width; // the N of char(N), trusted on every call

    size_t size() const { return width; }

    bool lt(const byte *a, const byte *b) const { return vel_memcmp(a, b, width) < 0; }
    bool le(const byte *a, const byte *b) const { return vel_memcmp(a, b, width) <= 0; }
    bool gt(const byte *a, const byte *b) const { return vel_memcmp(a, b, width) > 0; }
    bool ge(const byte *a, const byte *b) const { return vel_memcmp(a, b, width) >= 0; }

    uint64_t leaf_capacity(int32_t page_size) const {
        return layout::leaf_capacity(page_size, width);
    }
    // Sized for entries alone whatever the order (see layout::inner_capacity).
    int32_t inner_capacity(int32_t page_size, vel_seq_order_t order) const {
        return layout::inner_capacity(page_size, width, order != VEL_SEQ_NO_ORDER, true);
    }
};

} // namespace velseq
