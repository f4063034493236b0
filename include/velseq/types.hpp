// velseq/types.hpp -- the element types of the C++ API (integers, floats,
// datetime, chars<N>), their module entry points, orders and bounds, and the
// views (span, null_view) that values are read through.
#ifndef VELSEQ_TYPES_HPP
#define VELSEQ_TYPES_HPP

#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <string_view>
#include <type_traits>

#include "velseq/datetime.h"
#include "velseq/error.hpp"

namespace velseq {

// ---- span and null view ----------------------------------------------------

template <class T> struct is_optional : std::false_type {};
template <class T> struct is_optional<const std::optional<T>> : std::true_type {};

// A read-only view of contiguous values (C++17 has no std::span).
template <class T> class span {
  public:
    using value_type = std::remove_cv_t<T>;
    constexpr span() noexcept = default;
    constexpr span(T *data, size_t size) noexcept : data_(data), size_(size) {}
    template <class C, class = std::enable_if_t<
                           std::is_convertible_v<decltype(std::declval<C &>().data()), T *>>>
    constexpr span(C &&c) noexcept : data_(c.data()), size_(c.size()) {}
    // For const T: a braced list, alive until the end of the full expression
    // (not for std::optional elements, whose lists would be ambiguous).
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Winit-list-lifetime"
#endif
    template <class U = T, class = std::enable_if_t<std::is_const_v<U> && !is_optional<U>::value>>
    constexpr span(std::initializer_list<value_type> l) noexcept
        : data_(l.begin()), size_(l.size()) {}
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic pop
#endif
    template <size_t N> constexpr span(T (&a)[N]) noexcept : data_(a), size_(N) {}
    constexpr T *data() const noexcept { return data_; }
    constexpr size_t size() const noexcept { return size_; }
    constexpr bool empty() const noexcept { return size_ == 0; }
    constexpr T &operator[](size_t i) const noexcept { return data_[i]; }
    constexpr T *begin() const noexcept { return data_; }
    constexpr T *end() const noexcept { return data_ + size_; }
    constexpr span subspan(size_t off, size_t n) const noexcept { return {data_ + off, n}; }

  private:
    T *data_ = nullptr;
    size_t size_ = 0;
};

// Null flags as a bitmap: bit i (bit i%64 of word i/64, from bit `offset`) set
// means element i is null.  A null `words` pointer means no element is null.
class null_view {
  public:
    constexpr null_view() noexcept = default;
    constexpr null_view(const vel_bitmap_word_t *words, size_t size, size_t offset = 0) noexcept
        : words_(words), size_(size), offset_(offset) {}
    constexpr size_t size() const noexcept { return size_; }
    bool operator[](size_t i) const noexcept {
        const size_t b = offset_ + i;
        return words_ != nullptr && ((words_[b / 64] >> (b % 64)) & 1u) != 0;
    }
    bool any() const noexcept {
        for (size_t i = 0; words_ != nullptr && i < size_; i++)
            if ((*this)[i])
                return true;
        return false;
    }
    const vel_bitmap_word_t *words() const noexcept { return words_; }
    size_t offset() const noexcept { return offset_; }

  private:
    const vel_bitmap_word_t *words_ = nullptr;
    size_t size_ = 0;
    size_t offset_ = 0;
};

namespace detail {

// Whether any of bits [off, off + n) of a bitmap is set, a word at a time.
inline bool any_bit(const vel_bitmap_word_t *words, size_t off, size_t n) {
    while (n > 0) {
        const size_t b = off % 64, k = std::min<size_t>(n, 64 - b);
        const vel_bitmap_word_t mask =
            k == 64 ? ~vel_bitmap_word_t(0) : ((vel_bitmap_word_t(1) << k) - 1) << b;
        if ((words[off / 64] & mask) != 0)
            return true;
        off += k;
        n -= k;
    }
    return false;
}

} // namespace detail

// ---- element types -----------------------------------------------------------

// A point in time: the calendar convention of velseq/datetime.h (nanoseconds
// since 1970-01-01T00:00:00Z, sign bit flipped, so that unsigned order is time
// order).  Layout-compatible with vel_datetime.
class datetime {
  public:
    using clock_time = std::chrono::time_point<std::chrono::system_clock, std::chrono::nanoseconds>;
    constexpr datetime() noexcept = default;
    static constexpr datetime from_raw(vel_datetime raw) noexcept { return datetime(raw); }
    static datetime from_ns(int64_t ns) noexcept { return datetime(vel_dt_from_ns(ns)); }
    template <class Duration>
    static datetime from(std::chrono::time_point<std::chrono::system_clock, Duration> tp) {
        return from_ns(
            std::chrono::duration_cast<std::chrono::nanoseconds>(tp.time_since_epoch()).count());
    }
    // ISO-8601 text (see velseq/datetime.h); throws VEL_E_ILLEGAL_PARAM when bad.
    static datetime parse(std::string_view text) {
        vel_datetime v = 0;
        const int rc = vel_dt_parse(text.data(), text.size(), &v);
        if (rc != VEL_DT_OK)
            throw error(VEL_E_ILLEGAL_PARAM,
                        std::string(rc == VEL_DT_RANGE ? "datetime out of 1677-09-21..2262-04-11: "
                                                       : "not an ISO-8601 date or date-time: ") +
                            std::string(text));
        return datetime(v);
    }
    constexpr vel_datetime raw() const noexcept { return raw_; }
    int64_t ns() const noexcept { return vel_dt_to_ns(raw_); }
    clock_time time_point() const noexcept { return clock_time(std::chrono::nanoseconds(ns())); }
    std::string iso() const {
        char buf[VEL_DT_TEXT_MAX];
        return std::string(buf, vel_dt_format(raw_, buf, sizeof buf));
    }
    datetime operator+(std::chrono::nanoseconds d) const noexcept {
        return from_ns(ns() + static_cast<int64_t>(d.count()));
    }
    datetime operator-(std::chrono::nanoseconds d) const noexcept {
        return from_ns(ns() - static_cast<int64_t>(d.count()));
    }
    std::chrono::nanoseconds operator-(datetime o) const noexcept {
        return std::chrono::nanoseconds(ns() - o.ns());
    }
    friend constexpr bool operator==(datetime a, datetime b) noexcept { return a.raw_ == b.raw_; }
    friend constexpr bool operator!=(datetime a, datetime b) noexcept { return a.raw_ != b.raw_; }
    friend constexpr bool operator<(datetime a, datetime b) noexcept { return a.raw_ < b.raw_; }
    friend constexpr bool operator>(datetime a, datetime b) noexcept { return a.raw_ > b.raw_; }
    friend constexpr bool operator<=(datetime a, datetime b) noexcept { return a.raw_ <= b.raw_; }
    friend constexpr bool operator>=(datetime a, datetime b) noexcept { return a.raw_ >= b.raw_; }

  private:
    constexpr explicit datetime(vel_datetime raw) noexcept : raw_(raw) {}
    vel_datetime raw_ = 0;
};
static_assert(sizeof(datetime) == sizeof(vel_datetime) && std::is_standard_layout_v<datetime>);

// A char(N) element: N bytes, ordered byte-wise (unsigned), no terminator.
template <size_t N> struct chars {
    static_assert(N >= 1 && N <= VELH_MAX_SEQ_CHAR_WIDTH, "char(N) sequences take N in 1..32");
    char bytes[N];
    static chars from(std::string_view s) {
        if (s.size() > N)
            throw error(VEL_E_ILLEGAL_PARAM, "text longer than char(" + std::to_string(N) + ")");
        chars c{};
        std::memcpy(c.bytes, s.data(), s.size());
        return c;
    }
    std::string_view view() const noexcept {
        size_t n = N;
        while (n > 0 && bytes[n - 1] == '\0')
            n--;
        return {bytes, n};
    }
    friend bool operator==(const chars &a, const chars &b) noexcept {
        return std::memcmp(a.bytes, b.bytes, N) == 0;
    }
    friend bool operator!=(const chars &a, const chars &b) noexcept { return !(a == b); }
    friend bool operator<(const chars &a, const chars &b) noexcept {
        return std::memcmp(a.bytes, b.bytes, N) < 0;
    }
    friend bool operator>(const chars &a, const chars &b) noexcept { return b < a; }
    friend bool operator<=(const chars &a, const chars &b) noexcept { return !(b < a); }
    friend bool operator>=(const chars &a, const chars &b) noexcept { return !(a < b); }
};

enum class order {
    none = VEL_SEQ_NO_ORDER,
    ascending = VEL_SEQ_ASC_ORDER,
    descending = VEL_SEQ_DESC_ORDER
};
enum class bound {
    open = VEL_SEQ_BOUNDARY_OPEN,
    inclusive = VEL_SEQ_BOUNDARY_INCLUSIVE,
    exclusive = VEL_SEQ_BOUNDARY_EXCLUSIVE
};

namespace detail {

// Module entry points of one element type, behind one signature per operation.
template <class T> struct elem;

#define VELSEQ_ELEM_(T, S, DD)                                                                     \
    template <> struct elem<T> {                                                                   \
        using c_type = vel_##S;                                                                    \
        static constexpr uint8_t scalar_type = VEL_DD_##DD;                                        \
        static constexpr uint8_t seq_type = VEL_DD_SEQUENCE_##DD;                                  \
        static constexpr uint16_t width = 0;                                                       \
        static const c_type *c(const T *v) { return reinterpret_cast<const c_type *>(v); }         \
        static c_type cv(const T &v) { return *c(&v); }                                            \
        static VEL_RET append(vel_objhandle_h o, const velh_field_info_t &f, const T *v,           \
                              vel_size_t n, vel_seq_order_t ord, const vel_bitmap_word_t *nb) {    \
            return vel_w_seq_append_##S(o, f.u_offset, f.c_offset, f.fld_no, c(v), n, ord, nb);    \
        }                                                                                          \
        static VEL_RET insert(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t pos,     \
                              const T *v, vel_size_t n, vel_seq_order_t ord,                       \
                              const vel_bitmap_word_t *nb) {                                       \
            return vel_w_seq_insert_##S(o, f.u_offset, f.c_offset, f.fld_no, pos, c(v), n, ord,    \
                                        nb);                                                       \
        }                                                                                          \
        static VEL_RET first(vel_objhandle_h o, const velh_field_info_t &f, T *v) {                \
            return vel_w_seq_first_##S(o, f.u_offset, f.c_offset, reinterpret_cast<c_type *>(v));  \
        }                                                                                          \
        static VEL_RET last(vel_objhandle_h o, const velh_field_info_t &f, T *v) {                 \
            return vel_w_seq_last_##S(o, f.u_offset, f.c_offset, reinterpret_cast<c_type *>(v));   \
        }                                                                                          \
        static VEL_RET erase(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t from,     \
                             vel_seq_no_t till, vel_seq_order_t ord) {                             \
            return vel_w_seq_delete_##S(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord);     \
        }                                                                                          \
        static VEL_RET subseq(vel_objhandle_h o, const velh_field_info_t &f,                       \
                              vel_seq_iterator_h it, vel_seq_no_t from, vel_seq_no_t till) {       \
            return vel_w_seq_subseq_##S(o, f.u_offset, f.c_offset, it, from, till);                \
        }                                                                                          \
        static VEL_RET search(vel_objhandle_h o, const velh_field_info_t &f,                       \
                              vel_seq_iterator_h it, const T &lo, bound lk, const T &hi, bound hk, \
                              vel_seq_order_t ord) {                                               \
            return vel_w_seq_search_##S(o, f.u_offset, f.c_offset, it, cv(lo),                     \
                                        static_cast<vel_seq_boundary_kind_t>(lk), cv(hi),          \
                                        static_cast<vel_seq_boundary_kind_t>(hk), ord);            \
        }                                                                                          \
        static VEL_RET map(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,   \
                           vel_seq_iterator_h pos) {                                               \
            return vel_w_seq_map_##S(o, f.u_offset, f.c_offset, it, pos);                          \
        }                                                                                          \
        static VEL_RET join(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,  \
                            vel_seq_iterator_h with, vel_seq_order_t ord) {                        \
            return vel_w_seq_join_##S(o, f.u_offset, f.c_offset, it, with, ord);                   \
        }                                                                                          \
    };

// The C++ type of each scalar of velseq.h's list: its C type, but datetime
// for the datetime family.
template <class C, uint8_t DD> struct cxx_type { using type = C; };
template <> struct cxx_type<vel_datetime, VEL_DD_DATETIME> { using type = datetime; };
#define VELSEQ_ELEM_OF_(S, C, DD)                                                                  \
    using cxx_##S = cxx_type<C, VEL_DD_##DD>::type;                                                \
    VELSEQ_ELEM_(cxx_##S, S, DD)
VEL_SEQ_SCALAR_TYPES(VELSEQ_ELEM_OF_)
#undef VELSEQ_ELEM_OF_
#undef VELSEQ_ELEM_

template <size_t N> struct elem<chars<N>> {
    using T = chars<N>;
    static constexpr uint8_t scalar_type = VEL_DD_CHAR;
    static constexpr uint8_t seq_type = VEL_DD_SEQUENCE_CHAR;
    static constexpr uint16_t width = N;
    static VEL_RET append(vel_objhandle_h o, const velh_field_info_t &f, const T *v, vel_size_t n,
                          vel_seq_order_t ord, const vel_bitmap_word_t *nb) {
        return vel_w_seq_append_char(o, f.u_offset, f.c_offset, f.fld_no, v->bytes, n, ord, N, nb);
    }
    static VEL_RET insert(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t pos,
                          const T *v, vel_size_t n, vel_seq_order_t ord,
                          const vel_bitmap_word_t *nb) {
        return vel_w_seq_insert_char(o, f.u_offset, f.c_offset, f.fld_no, pos, v->bytes, n, ord, N,
                                     nb);
    }
    static VEL_RET first(vel_objhandle_h o, const velh_field_info_t &f, T *v) {
        return vel_w_seq_first_char(o, f.u_offset, f.c_offset, v->bytes, N);
    }
    static VEL_RET last(vel_objhandle_h o, const velh_field_info_t &f, T *v) {
        return vel_w_seq_last_char(o, f.u_offset, f.c_offset, v->bytes, N);
    }
    static VEL_RET erase(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_no_t from,
                         vel_seq_no_t till, vel_seq_order_t ord) {
        return vel_w_seq_delete_char(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord, N);
    }
    static VEL_RET subseq(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                          vel_seq_no_t from, vel_seq_no_t till) {
        return vel_w_seq_subseq_char(o, f.u_offset, f.c_offset, it, from, till, N);
    }
    static VEL_RET search(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                          const T &lo, bound lk, const T &hi, bound hk, vel_seq_order_t ord) {
        return vel_w_seq_search_char(o, f.u_offset, f.c_offset, it, lo.bytes,
                                     static_cast<vel_seq_boundary_kind_t>(lk), hi.bytes,
                                     static_cast<vel_seq_boundary_kind_t>(hk), ord, N);
    }
    static VEL_RET map(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                       vel_seq_iterator_h pos) {
        return vel_w_seq_map_char(o, f.u_offset, f.c_offset, it, pos, N);
    }
    static VEL_RET join(vel_objhandle_h o, const velh_field_info_t &f, vel_seq_iterator_h it,
                        vel_seq_iterator_h with, vel_seq_order_t ord) {
        return vel_w_seq_join_char(o, f.u_offset, f.c_offset, it, with, ord);
    }
};

template <class T> bool is_nan(const T &v) {
    if constexpr (std::is_floating_point_v<T>)
        return std::isnan(v);
    else
        return (void)v, false;
}

// An iterator record (4.5 KB) on the heap, zeroed, placed so that its tile
// starts on a cache line.  Left to the allocator, one 16-byte-aligned record
// in eight has its tile straddle a 4 KiB boundary at an address that is not
// a multiple of 32, and a scan through it then takes about 1.3 times as
// long: reads of the tile just after the module's copy into it wait on the
// copy's stores across the two pages (measured on x86-64).
inline constexpr size_t kTileAlign = 64;
inline constexpr size_t kIterPad =
    (kTileAlign - (offsetof(vel_seq_iterator_t, tile) + offsetof(vel_seq_tile_t, u)) % kTileAlign) %
    kTileAlign;
struct iter_delete {
    void operator()(vel_seq_iterator_t *it) const noexcept {
        ::operator delete (reinterpret_cast<unsigned char *>(it) - kIterPad,
                           std::align_val_t{kTileAlign});
    }
};
using iter_ptr = std::unique_ptr<vel_seq_iterator_t, iter_delete>;
inline iter_ptr new_iter() {
    void *raw =
        ::operator new (kIterPad + sizeof(vel_seq_iterator_t), std::align_val_t{kTileAlign});
    return iter_ptr(new (static_cast<unsigned char *>(raw) + kIterPad) vel_seq_iterator_t());
}

// An iterator that delivers a caller's array as tiles, so that the module's map
// and join take positions or probes that are not stored in a field.
struct array_source {
    const unsigned char *data;
    size_t n, done, elem_size;
};
inline VEL_RET array_source_next(vel_seq_iterator_h it) {
    auto *s = static_cast<array_source *>(it->buf);
    if (s->done >= s->n)
        return VEL_S_CURSOR_END;
    const size_t k = std::min<size_t>(VEL_SEQ_TILE_SIZE, s->n - s->done);
    std::memcpy(it->tile.u.arr_char, s->data + s->done * s->elem_size, k * s->elem_size);
    it->tile.null_bitmap[0] = it->tile.null_bitmap[1] = 0;
    it->tile_size = static_cast<uint16_t>(k);
    it->tile_offs = 0;
    s->done += k;
    it->next_seq_no = s->done;
    return VEL_S_OK;
}
inline VEL_RET array_source_reset(vel_seq_iterator_h it) {
    static_cast<array_source *>(it->buf)->done = 0;
    it->tile_size = it->tile_offs = 0;
    it->next_seq_no = 0;
    it->bounded = 0;
    return VEL_S_OK;
}
inline void make_array_source(vel_seq_iterator_t &it, array_source &s, uint8_t elem_type) {
    it.next = array_source_next;
    it.reset = array_source_reset;
    it.elem_size = static_cast<uint16_t>(s.elem_size);
    it.elem_type = elem_type;
    it.buf = &s;
    it.last_seq_no = ~vel_seq_no_t(0);
}

} // namespace detail

} // namespace velseq

#endif // VELSEQ_TYPES_HPP
