// velseq.hpp -- C++17 API over the sequence module and the embedded host.
//
// Header-only; built on the C functions of velseq.h and velembed.h alone.
//
//   velseq::database db;                              // velh_db_open .. velh_db_close
//   velseq::schema quote("quote");
//   auto ts = quote.seq<velseq::datetime>("ts", velseq::order::ascending);
//   auto px = quote.seq<double>("px");
//   db.define(quote);                                  // field handles become usable
//   velseq::connection con(db);
//   velseq::transaction tx(con, velseq::transaction::write);
//   velseq::object o = tx.create(quote);
//   o[ts].append(times);  o[px].append(prices);
//   for (auto t : o[px].tiles(0, o[px].size())) ...   // a span of values + a null view
//   tx.commit();                                       // else rolled back by ~transaction
//
// Every failure is a velseq::error carrying the module's or host's code.  The
// checks that the module does not make (NaN in ordered fields, bounds given in
// reverse, positions past the end, nulls or disorder in ordered fields) are
// made here before any module call, so a refused call changes nothing and the
// transaction stays usable.
//
// Lifetimes: a database outlives its connections, a connection its
// transaction, a transaction its objects, sequences and ranges.
#ifndef VELSEQ_HPP
#define VELSEQ_HPP

#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <map>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <type_traits>
#include <utility>
#include <variant>
#include <vector>

#include "velembed.h"
#include "velseq/datetime.h"

namespace velseq {

// ---- errors ----------------------------------------------------------------

// Name of any code of velseq.h ("VEL_E_SEQ_OUT_OF_ORDER"); "VEL_?" if unknown.
inline const char *code_name(int code) noexcept {
    const char *n = vel_code_name(code);
    return n ? n : "VEL_?";
}

// One sentence saying what the code means.
inline const char *code_message(int code) noexcept {
    const char *s = vel_code_text(code);
    return s ? s : "unknown code";
}

// The one exception of this API: code, its name, and a sentence with context.
class error : public std::runtime_error {
  public:
    error(int code, const std::string &context)
        : std::runtime_error(std::string(code_name(code)) + " (" + std::to_string(code) +
                             "): " + code_message(code) + (context.empty() ? "" : ": ") + context),
          code_(code) {}
    int code() const noexcept { return code_; }
    const char *name() const noexcept { return code_name(code_); }

  private:
    int code_;
};

namespace detail {
inline void check(VEL_RET rc, const char *what) {
    if (rc != VEL_S_OK)
        throw error(rc, what);
}

// A call that writes the commit log leaves the host's sentence on failure
// ("cannot write LOG: No space left on device"); it is appended, not lost.
inline void check_logged(VEL_RET rc, const std::string &what) {
    if (rc == VEL_S_OK)
        return;
    const char *m = velh_error_message();
    throw error(rc, m != nullptr && *m != '\0' ? what + ": " + m : what);
}

// The first bytes of a name, cut at a character boundary, for messages.
inline std::string shortened(std::string_view s, size_t n = 24) {
    if (s.size() <= n)
        return std::string(s);
    while (n > 0 && (static_cast<unsigned char>(s[n]) & 0xC0) == 0x80)
        n--;
    return std::string(s.substr(0, n)) + "...";
}

// The host refuses a longer class or field name with a bare
// VEL_E_ILLEGAL_PARAM; this says which name.
inline void check_name(std::string_view name, const std::string &what) {
    if (name.size() > VELH_MAX_NAME)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + " '" + shortened(name) + "' has " + std::to_string(name.size()) +
                        " bytes; a name holds at most " + std::to_string(VELH_MAX_NAME));
}
} // namespace detail

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

VELSEQ_ELEM_(int8_t, int1, INT1)
VELSEQ_ELEM_(int16_t, int2, INT2)
VELSEQ_ELEM_(int32_t, int4, INT4)
VELSEQ_ELEM_(int64_t, int8, INT8)
VELSEQ_ELEM_(uint8_t, uint1, UINT1)
VELSEQ_ELEM_(uint16_t, uint2, UINT2)
VELSEQ_ELEM_(uint32_t, uint4, UINT4)
VELSEQ_ELEM_(uint64_t, uint8, UINT8)
VELSEQ_ELEM_(float, float, FLOAT)
VELSEQ_ELEM_(double, double, DOUBLE)
VELSEQ_ELEM_(datetime, datetime, DATETIME)
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

// Class definition shared by a schema and the field handles it gave out.
struct class_state {
    std::string name;
    std::vector<std::string> names;
    std::vector<velh_field_def_t> defs;
    std::vector<velh_field_info_t> info; // filled by database::define
    uint16_t code = 0;
    velh_db_t *db = nullptr;
};

// An iterator record (4.5 KB) on the heap, zeroed.
using iter_ptr = std::unique_ptr<vel_seq_iterator_t>;
inline iter_ptr new_iter() { return iter_ptr(new vel_seq_iterator_t()); }

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

// ---- schema ----------------------------------------------------------------

namespace detail {
struct image_access; // velseq/image.hpp: databases kept in files
} // namespace detail

template <class T> class sequence;
template <class T> class appender;
class object;
class transaction;

// Handle of a sequence field of element type T (char(N): T = chars<N>).
template <class T> class field {
  public:
    field() = default;
    order declared_order() const noexcept { return order_; }
    const velh_field_info_t &info() const {
        if (!cls_ || cls_->info.empty())
            throw error(VEL_E_HOST_NO_CLASS, "field used before its class was defined");
        return cls_->info[fld_no_];
    }
    uint16_t class_code() const noexcept { return cls_ ? cls_->code : 0; }

  private:
    friend class schema;
    field(std::shared_ptr<const detail::class_state> c, uint16_t no, order o)
        : cls_(std::move(c)), fld_no_(no), order_(o) {}
    std::shared_ptr<const detail::class_state> cls_;
    uint16_t fld_no_ = 0;
    order order_ = order::none;
};
template <size_t N> using char_field = field<chars<N>>;

// Handle of a scalar field (an integer, float, double, datetime or chars<N>).
template <class T> class scalar_field {
  public:
    scalar_field() = default;
    const velh_field_info_t &info() const {
        if (!cls_ || cls_->info.empty())
            throw error(VEL_E_HOST_NO_CLASS, "field used before its class was defined");
        return cls_->info[fld_no_];
    }
    uint16_t class_code() const noexcept { return cls_ ? cls_->code : 0; }

  private:
    friend class schema;
    scalar_field(std::shared_ptr<const detail::class_state> c, uint16_t no)
        : cls_(std::move(c)), fld_no_(no) {}
    std::shared_ptr<const detail::class_state> cls_;
    uint16_t fld_no_ = 0;
};

// A class under construction, then (after database::define) a defined class.
class schema {
  public:
    explicit schema(std::string name) : st_(std::make_shared<detail::class_state>()) {
        st_->name = std::move(name);
    }
    // A sequence field; `o` is the order its values keep (checked on every write).
    template <class T> field<T> seq(std::string name, order o = order::none) {
        add(std::move(name), detail::elem<T>::seq_type, detail::elem<T>::width,
            static_cast<uint8_t>(o));
        return field<T>(st_, static_cast<uint16_t>(st_->defs.size() - 1), o);
    }
    template <class T> scalar_field<T> value(std::string name) {
        add(std::move(name), detail::elem<T>::scalar_type, detail::elem<T>::width, 0);
        return scalar_field<T>(st_, static_cast<uint16_t>(st_->defs.size() - 1));
    }
    uint16_t code() const {
        if (st_->code == 0)
            throw error(VEL_E_HOST_NO_CLASS, "class " + st_->name + " is not defined yet");
        return st_->code;
    }
    const std::string &name() const noexcept { return st_->name; }

  private:
    friend class database;
    friend struct detail::image_access;
    void add(std::string name, uint8_t type, uint16_t width, uint8_t ord) {
        if (st_->code != 0)
            throw error(VEL_E_HOST_BAD_ARG, "class " + st_->name + " is already defined");
        st_->names.push_back(std::move(name));
        st_->defs.push_back({nullptr, type, width, ord});
    }
    std::shared_ptr<detail::class_state> st_;
};

// ---- database, connection ----------------------------------------------------

struct config : velh_config_t {
    config() noexcept { velh_config_init(this); }
};

class database {
  public:
    explicit database(const config &cfg = config()) {
        detail::check(velh_db_open(&cfg, &db_), "opening the database");
    }
    ~database() {
        if (db_ != nullptr)
            velh_db_close(db_);
    }
    database(const database &) = delete;
    database &operator=(const database &) = delete;

    // Defines the class of `s` (compact: the compact object layout).
    void define(schema &s, bool compact = false) {
        detail::class_state &st = *s.st_;
        if (st.code != 0)
            throw error(VEL_E_HOST_BAD_ARG, "class " + st.name + " is already defined");
        detail::check_name(st.name, "class name");
        std::vector<velh_field_def_t> defs = st.defs;
        for (size_t i = 0; i < defs.size(); i++) {
            detail::check_name(st.names[i], "field " + std::to_string(i) + " of class " +
                                                detail::shortened(st.name) + ": name");
            defs[i].name = st.names[i].c_str();
        }
        uint16_t code = 0;
        const VEL_RET rc =
            velh_class_define(db_, st.name.c_str(), defs.data(), static_cast<uint16_t>(defs.size()),
                              compact ? VEL_CLASS_COMPACT : 0, VELH_PM_INMEM, &code);
        // Only a failed log write leaves a sentence; another code may find an old one.
        const std::string what = "defining class " + detail::shortened(st.name, 64);
        if (rc == VEL_E_HOST_IO)
            detail::check_logged(rc, what);
        detail::check(rc, what.c_str());
        std::vector<velh_field_info_t> info(defs.size());
        for (size_t i = 0; i < defs.size(); i++)
            detail::check(velh_field_info(db_, code, static_cast<uint16_t>(i), &info[i]),
                          "reading a field definition");
        st.info = std::move(info);
        st.db = db_;
        st.code = code;
    }
    velh_db_t *get() const noexcept { return db_; }

  private:
    friend struct detail::image_access;
    velh_db_t *db_ = nullptr;
};

class connection {
  public:
    explicit connection(database &db) {
        detail::check(velh_connect(db.get(), &con_), "connecting");
    }
    ~connection() { velh_disconnect(con_); }
    connection(const connection &) = delete;
    connection &operator=(const connection &) = delete;
    vel_db_connection_h get() const noexcept { return con_; }

  private:
    vel_db_connection_h con_ = nullptr;
};

// ---- transaction and objects ---------------------------------------------------

class object {
  public:
    uint64_t oid() const noexcept { return h_.oid; }
    uint16_t class_code() const noexcept { return h_.class_code; }
    const vel_objhandle_t *handle() const noexcept { return &h_; }
    transaction &trans() const noexcept { return *tx_; }

    template <class T> T get(const scalar_field<T> &f) const {
        const velh_field_info_t &fi = owned(f.info(), f.class_code());
        T v{};
        detail::check(velh_get(&h_, fi.fld_no, &v, fi.size), "reading a scalar field");
        return v;
    }
    template <class T> void set(const scalar_field<T> &f, const T &v) const {
        const velh_field_info_t &fi = owned(f.info(), f.class_code());
        detail::check(velh_set(&h_, fi.fld_no, &v, fi.size), "writing a scalar field");
    }
    template <class T> sequence<T> operator[](const field<T> &f) const {
        return sequence<T>(*this, f);
    }
    // Deletes the object with its sequences.
    void remove() { detail::check(velh_obj_delete(&h_), "deleting an object"); }

  private:
    friend class transaction;
    template <class T> friend class sequence;
    object(transaction &tx, const vel_objhandle_t &h) : tx_(&tx), h_(h) {}
    const velh_field_info_t &owned(const velh_field_info_t &fi, uint16_t cls) const {
        if (cls != h_.class_code)
            throw error(VEL_E_HOST_WRONG_FIELD, "the field belongs to another class");
        return fi;
    }
    transaction *tx_;
    vel_objhandle_t h_;
};

// A read or write transaction on a connection.  Destroyed while still open
// (also while an exception unwinds) it rolls back.  It keeps the compaction
// state of every (object, field) it inserted into or deleted from.
class transaction {
  public:
    enum mode { read = VELH_READ_ONLY, write = VELH_READ_WRITE };
    transaction(connection &con, mode m) : con_(con.get()), write_(m == write) {
        detail::check(velh_begin(con_, m), "beginning a transaction");
        open_ = true;
    }
    ~transaction() {
        for (buffered *b : buffered_)
            b->detach();
        if (open_)
            velh_rollback(con_);
    }
    transaction(const transaction &) = delete;
    transaction &operator=(const transaction &) = delete;

    // Appenders of this transaction flush first; if one of them fails, or
    // one lost a batch when it was destroyed, nothing is committed and the
    // transaction stays open (roll it back).  A commit the host refuses
    // (rolled back) throws with the host's sentence when it left one: the
    // log that could not be written, and why.
    void commit() {
        require_open();
        for (buffered *b : buffered_)
            b->flush();
        if (lost_)
            throw *lost_;
        open_ = false;
        detail::check_logged(velh_commit(con_), "committing"); // velh_commit clears the sentence
    }
    void rollback() {
        require_open();
        open_ = false;
        detail::check(velh_rollback(con_), "rolling back");
    }
    bool is_open() const noexcept { return open_; }
    bool is_write() const noexcept { return write_; }
    vel_db_connection_h connection_handle() const noexcept { return con_; }

    object create(const schema &cls) {
        require_open();
        vel_objhandle_t h{};
        detail::check(velh_obj_create(con_, cls.code(), &h), "creating an object");
        return object(*this, h);
    }
    object open(const schema &cls, uint64_t oid) {
        require_open();
        vel_objhandle_t h{};
        detail::check(velh_obj_open(con_, cls.code(), oid, &h),
                      ("opening object " + std::to_string(oid)).c_str());
        return object(*this, h);
    }
    uint64_t count(const schema &cls) {
        require_open();
        uint64_t n = 0;
        detail::check(velh_obj_count(con_, cls.code(), &n), "counting objects");
        return n;
    }
    // State of the host's compaction policy for one field of one object.
    velh_compact_state_t &compact_state(uint64_t oid, uint16_t fld_no) {
        return compact_[{oid, fld_no}]; // value-initialised: zeroed on first use
    }
    bool compact_kept(uint64_t oid, uint16_t fld_no) const {
        return compact_.count({oid, fld_no}) != 0;
    }

  private:
    template <class> friend class appender;
    // What an appender shows its transaction.
    struct buffered {
        virtual void flush() = 0;
        virtual void detach() noexcept = 0;

      protected:
        ~buffered() = default;
    };
    void require_open() const {
        if (!open_)
            throw error(VEL_E_HOST_TRANS_CLOSED, "the transaction has ended");
    }
    vel_db_connection_h con_;
    bool write_;
    bool open_ = false;
    std::map<std::pair<uint64_t, uint16_t>, velh_compact_state_t> compact_;
    std::vector<buffered *> buffered_;
    std::optional<error> lost_;
};

// ---- ranges ------------------------------------------------------------------

// One tile: up to 128 values with their null flags; `first` is the position
// of values[0] in the field (for positional ranges; 0-based count otherwise).
template <class T> struct tile {
    span<const T> values;
    null_view nulls;
    uint64_t first = 0;
    size_t size() const noexcept { return values.size(); }
    std::optional<T> operator[](size_t i) const {
        return nulls[i] ? std::nullopt : std::optional<T>(values[i]);
    }
};

// The tiles an iterator delivers, for range-for.  Owns the iterator and the
// operands it reads from.
template <class T> class tile_range {
  public:
    class iterator {
      public:
        using value_type = tile<T>;
        iterator() = default; // the end
        const tile<T> &operator*() const noexcept { return cur_; }
        const tile<T> *operator->() const noexcept { return &cur_; }
        iterator &operator++() {
            fetch();
            return *this;
        }
        bool operator==(const iterator &o) const noexcept { return done_ == o.done_; }
        bool operator!=(const iterator &o) const noexcept { return done_ != o.done_; }

      private:
        friend class tile_range;
        explicit iterator(vel_seq_iterator_t *it) : it_(it), done_(false) { fetch(); }
        void fetch() {
            const VEL_RET rc = it_->next(it_);
            if (rc == VEL_S_CURSOR_END) {
                done_ = true;
                return;
            }
            detail::check(rc, "reading a tile");
            const size_t n = it_->tile_size;
            cur_.values = span<const T>(reinterpret_cast<const T *>(it_->tile.u.arr_char), n);
            cur_.nulls = null_view(it_->tile.null_bitmap, n);
            cur_.first = it_->next_seq_no - n;
        }
        vel_seq_iterator_t *it_ = nullptr;
        tile<T> cur_;
        bool done_ = true;
    };

    tile_range() = default;
    // Each call of begin() restarts the range.
    iterator begin() {
        if (!it_)
            return iterator();
        if (started_)
            detail::check(it_->reset(it_.get()), "restarting a range");
        started_ = true;
        return iterator(it_.get());
    }
    iterator end() { return iterator(); }

  private:
    template <class> friend class sequence;
    template <class> friend class element_range;
    detail::iter_ptr it_;                    // null: empty range
    std::vector<detail::iter_ptr> operands_; // kept alive while it_ reads them
    std::unique_ptr<detail::array_source> source_;
    std::vector<unsigned char> source_data_;
    bool started_ = false;
};

// The elements of a tile range as std::optional<T> (nullopt: null element).
template <class T> class element_range {
  public:
    class iterator {
      public:
        std::optional<T> operator*() const { return (*t_)[i_]; }
        iterator &operator++() {
            if (++i_ >= t_->size()) {
                ++t_;
                i_ = 0;
                skip_empty();
            }
            return *this;
        }
        bool operator!=(const iterator &o) const { return t_ != o.t_ || i_ != o.i_; }
        bool operator==(const iterator &o) const { return !(*this != o); }

      private:
        friend class element_range;
        iterator(typename tile_range<T>::iterator t, typename tile_range<T>::iterator e)
            : t_(t), e_(e) {
            skip_empty();
        }
        void skip_empty() {
            while (t_ != e_ && t_->size() == 0)
                ++t_;
        }
        typename tile_range<T>::iterator t_, e_;
        size_t i_ = 0;
    };
    explicit element_range(tile_range<T> r) : r_(std::move(r)) {}
    iterator begin() { return iterator(r_.begin(), r_.end()); }
    iterator end() { return iterator(r_.end(), r_.end()); }

  private:
    tile_range<T> r_;
};

// Positions [first, last) of a field.
struct position_range {
    uint64_t first = 0, last = 0;
    uint64_t size() const noexcept { return last - first; }
    bool empty() const noexcept { return first >= last; }
};

// ---- sequence ------------------------------------------------------------------

// One sequence field of one object in one transaction.
template <class T> class sequence {
    using E = detail::elem<T>;

  public:
    sequence(const object &o, const field<T> &f)
        : tx_(o.tx_), h_(o.h_), fi_(o.owned(f.info(), f.class_code())), order_(f.declared_order()) {
    }

    order declared_order() const noexcept { return order_; }
    uint64_t size() const {
        vel_seq_no_t n = 0;
        detail::check(vel_w_seq_count(obj(), fi_.u_offset, fi_.c_offset, &n), "counting");
        return n;
    }
    bool empty() const { return size() == 0; }
    // First / last element; nullopt when the field is empty or the element null.
    std::optional<T> front() const { return end_value(true); }
    std::optional<T> back() const { return end_value(false); }

    // Appends values; nulls given as flags, as a bitmap or as std::optional.
    void append(span<const T> vals) { write(size(), vals, nullptr, false); }
    void append(span<const T> vals, span<const bool> nulls) {
        const auto bm = bitmap_of(vals.size(), nulls);
        write(size(), vals, bm.empty() ? nullptr : bm.data(), false);
    }
    void append(span<const T> vals, null_view nulls) {
        const auto bm = bitmap_of(vals.size(), nulls);
        write(size(), vals, bm.empty() ? nullptr : bm.data(), false);
    }
    void append(span<const std::optional<T>> vals) {
        std::vector<T> v;
        std::vector<vel_bitmap_word_t> bm;
        split(vals, v, bm);
        write(size(), span<const T>(v), bm.empty() ? nullptr : bm.data(), false);
    }
    void push_back(const T &v) { append(span<const T>(&v, 1)); }

    // Inserts before position `pos` (pos == size() appends).  The host keeps
    // the tree within its limits afterwards (at most VELH_COMPACT_MAX_DEPTH
    // levels and twice the pages of a dense tree), so single inserts do not
    // degrade the field.
    void insert(uint64_t pos, span<const T> vals) { write(pos, vals, nullptr, true); }
    void insert(uint64_t pos, span<const std::optional<T>> vals) {
        std::vector<T> v;
        std::vector<vel_bitmap_word_t> bm;
        split(vals, v, bm);
        write(pos, span<const T>(v), bm.empty() ? nullptr : bm.data(), true);
    }

    // Removes positions [first, last).
    void erase(uint64_t first, uint64_t last) {
        check_range(first, last, "erase");
        if (first == last)
            return;
        detail::check(E::erase(obj(), fi_, first, last - 1, c_order()), "erasing");
        keep_compact(last - first);
    }
    void truncate() {
        detail::check(vel_w_seq_truncate(obj(), fi_.u_offset, fi_.c_offset, fi_.fld_no),
                      "truncating");
    }

    // Tiles / elements of positions [first, last).
    tile_range<T> tiles(uint64_t first, uint64_t last) const {
        check_range(first, last, "scan");
        tile_range<T> r;
        if (first == last)
            return r;
        r.it_ = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, r.it_.get(), first, last - 1), "scanning");
        return r;
    }
    tile_range<T> tiles() const { return tiles(0, size()); }
    element_range<T> elements(uint64_t first, uint64_t last) const {
        return element_range<T>(tiles(first, last));
    }
    element_range<T> elements() const { return element_range<T>(tiles()); }

    // Positions of the elements v with lo (<= or <) v (<= or <) hi, in an
    // ordered field; lo <= hi in value order whatever the field's order.
    position_range search(const T &lo, const T &hi, bound lo_kind = bound::inclusive,
                          bound hi_kind = bound::inclusive) const {
        auto it = detail::new_iter();
        return search_into(*it, lo, hi, lo_kind, hi_kind);
    }
    // The tiles of a value window (search, then scan of the positions found).
    tile_range<T> window(const T &lo, const T &hi, bound lo_kind = bound::inclusive,
                         bound hi_kind = bound::inclusive) const {
        tile_range<T> r;
        auto it = detail::new_iter();
        const position_range p = search_into(*it, lo, hi, lo_kind, hi_kind);
        if (!p.empty())
            r.it_ = std::move(it);
        return r;
    }
    // Elements at the given positions, in the given order (module map).
    tile_range<T> map(span<const uint64_t> positions) const {
        const uint64_t n = size();
        for (uint64_t p : positions)
            if (p >= n)
                throw error(VEL_E_ILLEGAL_PARAM, "map: position " + std::to_string(p) +
                                                     " past the end (" + std::to_string(n) + ")");
        tile_range<T> r;
        if (positions.empty())
            return r;
        auto src = source_of(r, positions.data(), positions.size(), sizeof(uint64_t), VEL_DD_UINT8);
        r.it_ = detail::new_iter();
        detail::check(E::map(obj(), fi_, r.it_.get(), src), "map");
        return r;
    }
    // For each probe, the position of the first element not before it in the
    // field's order (module join).  Every probe must have such an element:
    // for probes past the last element use asof(), which answers them as null.
    tile_range<uint64_t> join(span<const T> probes) const {
        require_ordered("join");
        tile_range<uint64_t> r;
        if (probes.empty())
            return r;
        const std::optional<T> last = back_slot();
        for (const T &p : probes) {
            if (detail::is_nan(p))
                throw error(VEL_E_ILLEGAL_PARAM, "join: NaN probe");
            if (!last || (order_ == order::ascending ? p > *last : p < *last))
                throw error(VEL_S_NOTFOUND, "join: a probe lies past the last element");
        }
        auto src = source_of(r, probes.data(), probes.size(), sizeof(T), E::scalar_type);
        r.it_ = detail::new_iter();
        detail::check(E::join(obj(), fi_, r.it_.get(), src, c_order()), "join");
        return r;
    }

    // Element at `pos` (nullopt when null).
    std::optional<T> at(uint64_t pos) const {
        check_range(pos, pos + 1, "at");
        auto it = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, it.get(), pos, pos), "reading");
        detail::check(it->next(it.get()), "reading");
        const T v = *reinterpret_cast<const T *>(it->tile.u.arr_char);
        return (it->tile.null_bitmap[0] & 1u) ? std::nullopt : std::optional<T>(v);
    }

    vel_objhandle_h obj() const noexcept { return const_cast<vel_objhandle_t *>(&h_); }
    const velh_field_info_t &info() const noexcept { return fi_; }
    transaction &trans() const noexcept { return *tx_; }

  private:
    vel_seq_order_t c_order() const noexcept { return static_cast<vel_seq_order_t>(order_); }
    // The stored slot of the last element, null or not.
    std::optional<T> back_slot() const {
        T v{};
        const VEL_RET rc = E::last(obj(), fi_, &v);
        if (rc == VEL_S_NOTFOUND)
            return std::nullopt;
        if (rc != VEL_E_SEQ_NULL_VALUE)
            detail::check(rc, "reading the last element");
        return v;
    }
    std::optional<T> end_value(bool first) const {
        T v{};
        const VEL_RET rc = first ? E::first(obj(), fi_, &v) : E::last(obj(), fi_, &v);
        if (rc == VEL_S_NOTFOUND || rc == VEL_E_SEQ_NULL_VALUE)
            return std::nullopt;
        detail::check(rc, first ? "reading the first element" : "reading the last element");
        return v;
    }
    void check_range(uint64_t first, uint64_t last, const char *what) const {
        if (first > last)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + ": positions given reversed (" +
                                                 std::to_string(first) + " > " +
                                                 std::to_string(last) + ")");
        const uint64_t n = size();
        if (last > n)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + ": position " +
                                                 std::to_string(last) + " past the end (" +
                                                 std::to_string(n) + ")");
    }
    void require_ordered(const char *what) const {
        if (order_ == order::none)
            throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + " needs an ordered field");
    }
    // True when a may not come before b in the field's order.
    bool out_of_order(const T &a, const T &b) const {
        return order_ == order::ascending ? b < a : order_ == order::descending ? a < b : false;
    }
    static std::vector<vel_bitmap_word_t> bitmap_of(size_t n, span<const bool> nulls) {
        if (nulls.size() != n)
            throw error(VEL_E_SEQ_LENGTH_MISMATCH, "null flags and values differ in number");
        std::vector<vel_bitmap_word_t> bm;
        for (size_t i = 0; i < n; i++)
            if (nulls[i]) {
                bm.resize((n + 63) / 64);
                bm[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        return bm;
    }
    static std::vector<vel_bitmap_word_t> bitmap_of(size_t n, null_view nulls) {
        if (nulls.size() != n)
            throw error(VEL_E_SEQ_LENGTH_MISMATCH, "null bitmap and values differ in number");
        std::vector<vel_bitmap_word_t> bm;
        for (size_t i = 0; i < n; i++)
            if (nulls[i]) {
                bm.resize((n + 63) / 64);
                bm[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        return bm;
    }
    static void split(span<const std::optional<T>> in, std::vector<T> &v,
                      std::vector<vel_bitmap_word_t> &bm) {
        v.resize(in.size());
        for (size_t i = 0; i < in.size(); i++) {
            if (in[i]) {
                v[i] = *in[i];
            } else {
                bm.resize((in.size() + 63) / 64);
                bm[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        }
    }
    // Validates everything the module would half-apply or accept wrongly, then
    // appends (pos == size, !ins) or inserts.
    void write(uint64_t pos, span<const T> vals, const vel_bitmap_word_t *nulls, bool ins) {
        if (ins)
            check_range(pos, pos, "insert");
        if (vals.empty())
            return;
        if (order_ != order::none) {
            if (nulls != nullptr)
                throw error(VEL_E_SEQ_NULL_VALUE, "an ordered field holds no nulls");
            for (size_t i = 0; i < vals.size(); i++) {
                if (detail::is_nan(vals[i]))
                    throw error(VEL_E_ILLEGAL_PARAM,
                                "NaN in an ordered field (value " + std::to_string(i) + ")");
                if (i > 0 && out_of_order(vals[i - 1], vals[i]))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "value " + std::to_string(i) + " breaks the order of the input");
            }
            const uint64_t n = ins ? size() : pos;
            if (pos > 0) {
                const std::optional<T> before = ins ? slot_at(pos - 1) : back_slot();
                if (before && out_of_order(*before, vals[0]))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "the first value breaks the order of the stored elements");
            }
            if (ins && pos < n) {
                const std::optional<T> after = slot_at(pos);
                if (after && out_of_order(vals[vals.size() - 1], *after))
                    throw error(VEL_E_SEQ_OUT_OF_ORDER,
                                "the last value breaks the order of the stored elements");
            }
        }
        if (order_ != order::none && E::seq_type == VEL_DD_SEQUENCE_CHAR)
            check_char_key_room(vals.size());
        if (!ins) {
            detail::check(E::append(obj(), fi_, vals.data(), vals.size(), c_order(), nulls),
                          "appending");
            return;
        }
        // A field this transaction has not kept yet may be as deep as C
        // callers left it (up to the iterators' limit, where one more level
        // traps): keep it first.
        if (!tx_->compact_kept(h_.oid, fi_.fld_no))
            keep_compact(0);
        detail::check(E::insert(obj(), fi_, pos, vals.data(), vals.size(), c_order(), nulls),
                      "inserting");
        keep_compact(vals.size());
    }
    std::optional<T> slot_at(uint64_t pos) const {
        auto it = detail::new_iter();
        detail::check(E::subseq(obj(), fi_, it.get(), pos, pos), "reading");
        detail::check(it->next(it.get()), "reading");
        return *reinterpret_cast<const T *>(it->tile.u.arr_char);
    }
    // An ordered char(N) inner page keeps one key per child but sizes
    // itself for its entries alone, so past (page_size - 8) / (16 + N)
    // children the keys overwrite entries and the tree is lost.  No inner
    // page has more children than the tree has pages, and keep-compact
    // holds a field to twice its dense pages plus what one call adds (a
    // page a level, at most 8 levels, per leaf's worth of values): the
    // field is refused growth before that sum reaches the limit.
    void check_char_key_room(uint64_t n_new) const {
        const auto ps = static_cast<uint64_t>(h_.pm->large_page_size(h_.con));
        const uint64_t leaf = (8 * ps - 127) / (8 * E::width + 1);
        const uint64_t room = (ps - 8) / (16 + E::width);
        const uint64_t n = size() + n_new;
        const uint64_t worst = 2 * ((n + leaf - 1) / leaf + 1) + 9 * (2 + n_new / leaf);
        if (worst > room)
            throw error(VEL_E_ILLEGAL_PARAM,
                        "an ordered char(" + std::to_string(E::width) + ") field holds at most " +
                            std::to_string((room - 20) / 2 * leaf) +
                            " values on these pages; use an unordered field or wider pages");
    }
    // Single inserts split full leaves into nearly empty ones; the host
    // repairs the subtrees that degraded (about a leaf's worth of
    // copying per insert, amortised).
    void keep_compact(uint64_t n_changed) {
        detail::check(velh_keep_compact(&h_, fi_.fld_no, c_order(), n_changed,
                                        &tx_->compact_state(h_.oid, fi_.fld_no)),
                      "compacting");
    }
    position_range search_into(vel_seq_iterator_t &it, const T &lo, const T &hi, bound lo_kind,
                               bound hi_kind) const {
        require_ordered("search");
        if (detail::is_nan(lo) || detail::is_nan(hi))
            throw error(VEL_E_ILLEGAL_PARAM, "search: NaN bound");
        if (lo_kind != bound::open && hi_kind != bound::open && hi < lo)
            throw error(VEL_E_ILLEGAL_PARAM, "search: bounds given reversed (hi < lo)");
        // The module's bounds follow position order: the high value comes
        // first in a descending field.
        const bool desc = order_ == order::descending;
        const VEL_RET rc = desc ? E::search(obj(), fi_, &it, hi, hi_kind, lo, lo_kind, c_order())
                                : E::search(obj(), fi_, &it, lo, lo_kind, hi, hi_kind, c_order());
        if (rc == VEL_S_NOTFOUND)
            return {};
        detail::check(rc, "search");
        const uint64_t last = it.last_seq_no == ~vel_seq_no_t(0) ? size() : it.last_seq_no + 1;
        return {it.first_seq_no, last};
    }
    template <class R>
    vel_seq_iterator_h source_of(tile_range<R> &r, const void *data, size_t n, size_t elem_size,
                                 uint8_t elem_type) const {
        r.source_data_.assign(static_cast<const unsigned char *>(data),
                              static_cast<const unsigned char *>(data) + n * elem_size);
        r.source_ = std::make_unique<detail::array_source>(
            detail::array_source{r.source_data_.data(), n, 0, elem_size});
        r.operands_.push_back(detail::new_iter());
        detail::make_array_source(*r.operands_.back(), *r.source_, elem_type);
        return r.operands_.back().get();
    }

    template <class> friend class appender;
    transaction *tx_;
    vel_objhandle_t h_;
    velh_field_info_t fi_;
    order order_;
};

// ---- appender ------------------------------------------------------------------

// Takes values one at a time and appends them a batch at a time: each
// append of the module is a whole update of the field (write access, root,
// copy-on-write and order checks along the right edge), so a feed that
// receives one tick per call should collect them here.  Buffered values
// reach the field when the batch is full, at flush(), at destruction and
// before the transaction commits; reads see them only from then on.  A batch
// is checked and appended as one append of the sequence (all or nothing):
// push or flush throws when it is refused, and the batch is dropped.  A
// failure at destruction cannot throw; the transaction keeps it instead and
// its commit throws, so no value is lost silently.  An appender belongs to
// one transaction and is neither copied nor moved.
template <class T> class appender final : transaction::buffered {
  public:
    explicit appender(const sequence<T> &seq, size_t batch = 2048)
        : seq_(seq), batch_(batch == 0 ? 1 : batch) {
        vals_.reserve(batch_);
        seq_.tx_->buffered_.push_back(this);
    }
    ~appender() {
        if (seq_.tx_ == nullptr)
            return;
        auto &reg = seq_.tx_->buffered_;
        transaction::buffered *const me = this;
        reg.erase(std::find(reg.begin(), reg.end(), me));
        try {
            flush();
        } catch (const error &e) {
            if (!seq_.tx_->lost_)
                seq_.tx_->lost_ = e;
        } catch (...) {
            if (!seq_.tx_->lost_)
                seq_.tx_->lost_ = error(VEL_E_NOMEM, "an appender lost its batch");
        }
    }
    appender(const appender &) = delete;
    appender &operator=(const appender &) = delete;

    void push(const T &v) {
        vals_.push_back(v);
        if (vals_.size() >= batch_)
            flush();
    }
    void push(const std::optional<T> &v) {
        if (v) {
            push(*v);
            return;
        }
        const size_t i = vals_.size();
        nulls_.resize(i / 64 + 1);
        nulls_[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
        push(T{});
    }
    void flush() override {
        if (vals_.empty())
            return;
        if (seq_.tx_ == nullptr)
            throw error(VEL_E_HOST_TRANS_CLOSED, "the appender's transaction has ended");
        struct clear {
            appender &a;
            ~clear() {
                a.vals_.clear();
                a.nulls_.clear();
            }
        } done{*this};
        if (nulls_.empty()) {
            seq_.append(span<const T>(vals_));
            return;
        }
        nulls_.resize((vals_.size() + 63) / 64); // words up to the last null only, so far
        seq_.append(span<const T>(vals_), null_view(nulls_.data(), vals_.size()));
    }
    // Values pushed and not yet in the field.
    size_t pending() const noexcept { return vals_.size(); }

  private:
    void detach() noexcept override { seq_.tx_ = nullptr; }
    sequence<T> seq_;
    size_t batch_;
    std::vector<T> vals_;
    std::vector<vel_bitmap_word_t> nulls_;
};

} // namespace velseq

#include "velseq/timeseries.hpp"

#endif // VELSEQ_HPP
