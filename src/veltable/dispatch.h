// Run-time type dispatch, generated from the one list of element types: a
// value policy per type, so that each algorithm of this layer is one generic
// definition, instantiated once per scalar type plus once for char(N).
#pragma once

#include <cmath>
#include <cstring>
#include <memory>
#include <string>

#include "velseq.hpp"
#include "velseq/table.hpp"

namespace velseq::table::detail {

// A scalar type T: values are T, compared as T (datetimes are raw, whose
// unsigned order is time order).
template <class T, uint8_t Code> struct scalar {
    using value = T;
    static constexpr uint8_t code = Code;
    static constexpr bool numeric = Code != VEL_DD_SEQUENCE_DATETIME;
    size_t width() const { return sizeof(T); }
    value at(const unsigned char *p, size_t i) const {
        T v;
        std::memcpy(&v, p + i * sizeof(T), sizeof v);
        return v;
    }
    bool less(const T &a, const T &b) const { return a < b; }
    // less() of two values read in place.
    bool before(const unsigned char *a, const unsigned char *b) const {
        return at(a, 0) < at(b, 0);
    }
    bool is_nan(const T &v) const {
        if constexpr (std::is_floating_point_v<T>)
            return std::isnan(v);
        else
            return (void)v, false;
    }
    void put(unsigned char *dst, const T &v) const { std::memcpy(dst, &v, sizeof v); }
    // The module's calls for T, each with the arguments of its char(N)
    // namesake bar the width.
    VEL_RET subseq(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                   vel_seq_no_t from, vel_seq_no_t till) const;
    VEL_RET append(vel_objhandle_h o, const velh_field_info_t &f, const unsigned char *v,
                   vel_size_t n, vel_seq_order_t ord, const vel_bitmap_word_t *nb) const;
    VEL_RET insert(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t pos,
                   const unsigned char *v, vel_size_t n, vel_seq_order_t ord,
                   const vel_bitmap_word_t *nb) const;
    VEL_RET erase(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t from,
                  vel_seq_no_t till, vel_seq_order_t ord) const;
    VEL_RET last(vel_objhandle_h o, const velh_field_info_t &f, unsigned char *v) const;
    VEL_RET search(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                   const unsigned char *lo, vel_seq_boundary_kind_t lk, const unsigned char *hi,
                   vel_seq_boundary_kind_t hk, vel_seq_order_t ord) const;
    VEL_RET map(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                vel_seq_iterator_h pos) const;
    // The module's join of an ascending field with `with`, which this call
    // marks as delivering T.
    VEL_RET join(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                 vel_seq_iterator_h with) const;
};

// char(N): values are N bytes compared bytewise; a value is held as its
// bytes.
struct chars {
    using value = std::string;
    static constexpr uint8_t code = VEL_DD_SEQUENCE_CHAR;
    static constexpr bool numeric = false;
    size_t w;
    size_t width() const { return w; }
    value at(const unsigned char *p, size_t i) const {
        return value(reinterpret_cast<const char *>(p + i * w), w);
    }
    bool less(const value &a, const value &b) const {
        return std::memcmp(a.data(), b.data(), w) < 0;
    }
    bool before(const unsigned char *a, const unsigned char *b) const {
        return std::memcmp(a, b, w) < 0;
    }
    bool is_nan(const value &) const { return false; }
    void put(unsigned char *dst, const value &v) const { std::memcpy(dst, v.data(), w); }
    VEL_RET subseq(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                   vel_seq_no_t from, vel_seq_no_t till) const {
        return vel_w_seq_subseq_char(o, f.u_offset, f.c_offset, it, from, till,
                                     static_cast<uint16_t>(w));
    }
    VEL_RET append(vel_objhandle_h o, const velh_field_info_t &f, const unsigned char *v,
                   vel_size_t n, vel_seq_order_t ord, const vel_bitmap_word_t *nb) const {
        return vel_w_seq_append_char(o, f.u_offset, f.c_offset, f.fld_no,
                                     reinterpret_cast<const char *>(v), n, ord,
                                     static_cast<uint16_t>(w), nb);
    }
    VEL_RET insert(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t pos,
                   const unsigned char *v, vel_size_t n, vel_seq_order_t ord,
                   const vel_bitmap_word_t *nb) const {
        return vel_w_seq_insert_char(o, f.u_offset, f.c_offset, f.fld_no, pos,
                                     reinterpret_cast<const char *>(v), n, ord,
                                     static_cast<uint16_t>(w), nb);
    }
    VEL_RET erase(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t from,
                  vel_seq_no_t till, vel_seq_order_t ord) const {
        return vel_w_seq_delete_char(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord,
                                     static_cast<uint16_t>(w));
    }
    VEL_RET last(vel_objhandle_h o, const velh_field_info_t &f, unsigned char *v) const {
        return vel_w_seq_last_char(o, f.u_offset, f.c_offset, reinterpret_cast<char *>(v),
                                   static_cast<uint16_t>(w));
    }
    VEL_RET search(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                   const unsigned char *lo, vel_seq_boundary_kind_t lk, const unsigned char *hi,
                   vel_seq_boundary_kind_t hk, vel_seq_order_t ord) const {
        return vel_w_seq_search_char(
            o, f.u_offset, f.c_offset, it, reinterpret_cast<const char *>(lo), lk,
            reinterpret_cast<const char *>(hi), hk, ord, static_cast<uint16_t>(w));
    }
    VEL_RET map(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                vel_seq_iterator_h pos) const {
        return vel_w_seq_map_char(o, f.u_offset, f.c_offset, it, pos, static_cast<uint16_t>(w));
    }
};

#define VELSEQ_CALLS_(S, T, DD)                                                                    \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::subseq(                                        \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it, vel_seq_no_t from,   \
        vel_seq_no_t till) const {                                                                 \
        return vel_w_seq_subseq_##S(o, f.u_offset, f.c_offset, it, from, till);                    \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::append(                                        \
        vel_objhandle_h o, const velh_field_info_t &f, const unsigned char *v, vel_size_t n,       \
        vel_seq_order_t ord, const vel_bitmap_word_t *nb) const {                                  \
        return vel_w_seq_append_##S(o, f.u_offset, f.c_offset, f.fld_no,                           \
                                    reinterpret_cast<const T *>(v), n, ord, nb);                   \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::insert(                                        \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t pos, const unsigned char *v,   \
        vel_size_t n, vel_seq_order_t ord, const vel_bitmap_word_t *nb) const {                    \
        return vel_w_seq_insert_##S(o, f.u_offset, f.c_offset, f.fld_no, pos,                      \
                                    reinterpret_cast<const T *>(v), n, ord, nb);                   \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::erase(                                         \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t from, vel_seq_no_t till,       \
        vel_seq_order_t ord) const {                                                               \
        return vel_w_seq_delete_##S(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord);         \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::last(                                          \
        vel_objhandle_h o, const velh_field_info_t &f, unsigned char *v) const {                   \
        return vel_w_seq_last_##S(o, f.u_offset, f.c_offset, reinterpret_cast<T *>(v));            \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::search(                                        \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,                      \
        const unsigned char *lo, vel_seq_boundary_kind_t lk, const unsigned char *hi,              \
        vel_seq_boundary_kind_t hk, vel_seq_order_t ord) const {                                   \
        return vel_w_seq_search_##S(o, f.u_offset, f.c_offset, it, at(lo, 0), lk, at(hi, 0), hk,   \
                                    ord);                                                          \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::map(                                           \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,                      \
        vel_seq_iterator_h pos) const {                                                            \
        return vel_w_seq_map_##S(o, f.u_offset, f.c_offset, it, pos);                              \
    }                                                                                              \
    template <>                                                                                    \
    inline VEL_RET scalar<T, VEL_DD_SEQUENCE_##DD>::join(                                          \
        vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,                      \
        vel_seq_iterator_h with) const {                                                           \
        with->elem_type = VEL_DD_##DD;                                                             \
        return vel_w_seq_join_##S(o, f.u_offset, f.c_offset, it, with, VEL_SEQ_ASC_ORDER);         \
    }
VEL_SEQ_SCALAR_TYPES(VELSEQ_CALLS_)
#undef VELSEQ_CALLS_

// f(policy) with the policy of type t; VEL_E_ILLEGAL_TYPE for no type.
template <class F> decltype(auto) visit(column_type t, F &&f) {
    switch (t.code) {
#define VELSEQ_CASE_(S, T, DD)                                                                     \
    case VEL_DD_SEQUENCE_##DD:                                                                     \
        return f(scalar<T, VEL_DD_SEQUENCE_##DD>{});
        VEL_SEQ_SCALAR_TYPES(VELSEQ_CASE_)
#undef VELSEQ_CASE_
    case VEL_DD_SEQUENCE_CHAR:
        return f(chars{t.width});
    default:
        throw error(VEL_E_ILLEGAL_TYPE, "not an element type: " + std::to_string(t.code));
    }
}

using velseq::detail::iter_ptr;
using velseq::detail::new_iter;

// An array must be of the type asked for and as long as it says.
inline void require(const array &a, column_type t, const std::string &what) {
    if (!(a.type == t))
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": " + type_name(a.type) + " values where " + type_name(t) + " are due");
    if (a.values.size() != a.length * t.width ||
        (!a.validity.empty() && a.validity.size() < (a.length + 7) / 8))
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": the buffers do not hold " + std::to_string(a.length) + " values");
}

// Marks value i of `a` null, making the validity bitmap (every value
// present) on the first null.
inline void set_null(array &a, uint64_t i) {
    if (a.validity.empty())
        a.validity.assign((a.length + 7) / 8, 0xFF);
    a.validity[i / 8] = static_cast<uint8_t>(a.validity[i / 8] & ~(1u << (i % 8)));
}

// Bit i of a null mask; no mask (a run in place without a null): false.
inline bool null_at(const vel_bitmap_word_t *nulls, size_t i) {
    return nulls != nullptr && ((nulls[i / 64] >> (i % 64)) & 1);
}

// Appends one value (or a null when `v` is null) to `out`.  The validity
// bitmap is made on the first null, with every earlier value present.
inline void push(array &out, const void *v) {
    const size_t w = out.type.width;
    const uint64_t i = out.length++;
    out.values.resize(out.values.size() + w);
    if (v != nullptr)
        std::memcpy(out.values.data() + i * w, v, w);
    if (v == nullptr && out.validity.empty())
        out.validity.assign((i + 8) / 8, 0xFF);
    if (!out.validity.empty()) {
        out.validity.resize(out.length / 8 + 1, 0);
        const uint8_t bit = uint8_t(1u << (i % 8));
        out.validity[i / 8] = v ? (out.validity[i / 8] | bit) : (out.validity[i / 8] & ~bit);
    }
}

inline uint64_t count_of(const column &c) {
    vel_objhandle_t obj = c.obj;
    vel_seq_no_t n = 0;
    velseq::detail::check(vel_w_seq_count(&obj, c.field.u_offset, c.field.c_offset, &n),
                          "counting");
    return n;
}

} // namespace velseq::table::detail
