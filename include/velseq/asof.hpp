// velseq/asof.hpp -- as-of lookups and joins over an ascending key field,
// gathering values at positions, and filling nulls forward.  As-of and
// gather are typed views of the table layer's (libveltable), which every
// front end shares: ascending probes are answered by one merge over the key
// field's tiles, galloping, and a far jump costs one descent.
#ifndef VELSEQ_ASOF_HPP
#define VELSEQ_ASOF_HPP

#include <tuple>

#include "velseq/sequence.hpp"
#include "velseq/table.hpp"

namespace velseq {

// ---- distances between keys ----------------------------------------------------

// Tolerance of an as-of match: nanoseconds for datetime keys, a difference of
// values otherwise.
template <class K> struct key_distance {
    using type = std::conditional_t<std::is_floating_point_v<K>, double, uint64_t>;
    // b - a for a <= b, exact for every integer pair (unsigned wrap-around).
    static type between(const K &a, const K &b) noexcept {
        if constexpr (std::is_floating_point_v<K>)
            return static_cast<double>(b) - static_cast<double>(a);
        else
            return static_cast<uint64_t>(b) - static_cast<uint64_t>(a);
    }
    static type of(type t) noexcept { return t; }
};
template <> struct key_distance<datetime> {
    using type = std::chrono::nanoseconds;
    static uint64_t between(const datetime &a, const datetime &b) noexcept {
        return b.raw() - a.raw();
    }
    static uint64_t of(type t) noexcept {
        return t.count() < 0 ? 0 : static_cast<uint64_t>(t.count());
    }
};

// ---- as-of lookups ---------------------------------------------------------------

enum class direction {
    backward, // last element at or before the probe
    forward,  // first element at or after the probe
    nearest   // the closer of the two; on a tie the backward one
};

template <class K> struct asof_options {
    direction dir = direction::backward;
    bool strict = false; // true: an element equal to the probe does not match
    std::optional<typename key_distance<K>::type> tolerance; // farther matches are null
};

namespace detail {

template <class K> void require_ascending(const sequence<K> &keys, const char *what) {
    if (keys.declared_order() != order::ascending)
        throw error(VEL_E_ILLEGAL_PARAM, std::string(what) + " needs an ascending key field");
}

// The column a sequence is to the table layer, with the order the C++ side
// declared.
template <class T> table::column table_column(const sequence<T> &s) {
    table::column c{*s.obj(), s.info(), *table::type_of(s.info())};
    c.field.order = static_cast<uint8_t>(s.declared_order());
    return c;
}

// The views below hand the table layer batches of this many probes or
// positions: its arrays stay small enough for the allocator to reuse, where
// whole-input arrays would be fresh pages on every call.  A batch costs one
// descent more.
constexpr size_t asof_batch = size_t(1) << 15;

// Values as a table layer's array (the element types of this API are their
// values' bytes), reusing the array's buffer: one copy.
template <class T> void to_array(span<const T> v, table::column_type t, table::array &a) {
    static_assert(std::is_trivially_copyable_v<T>);
    a.type = t;
    a.length = v.size();
    const auto *b = reinterpret_cast<const unsigned char *>(v.data());
    a.values.assign(b, b + v.size() * sizeof(T));
}

// Positions (nullopt: none) as a uint8 array with validity.
inline void to_array(span<const std::optional<uint64_t>> v, table::array &a) {
    a.type = {VEL_DD_SEQUENCE_UINT8, 8};
    a.length = v.size();
    a.values.resize(v.size() * 8);
    a.validity.clear();
    for (size_t i = 0; i < v.size(); i++)
        if (v[i])
            std::memcpy(a.values.data() + i * 8, &*v[i], 8);
        else {
            a.validity.resize((v.size() + 7) / 8, 0xFF);
            a.validity[i / 8] = static_cast<uint8_t>(a.validity[i / 8] & ~(1u << (i % 8)));
        }
}

// The values of `a` into out[at ..].
template <class T> void put(const table::array &a, std::vector<std::optional<T>> &out, size_t at) {
    for (size_t i = 0; i < a.length; i++)
        if (a.valid(i)) {
            T v;
            std::memcpy(static_cast<void *>(&v), a.values.data() + i * sizeof(T), sizeof(T));
            out[at + i] = v;
        }
}

// Calls f(first, count) for consecutive batches covering [0, n); once (with
// count 0) when n is 0, so that refusals do not depend on the input's size.
template <class F> void batches(size_t n, F &&f) {
    size_t i = 0;
    do {
        const size_t m = std::min(asof_batch, n - i);
        f(i, m);
        i += m;
    } while (i < n);
}

template <class K> table::asof_options table_options(const asof_options<K> &opt) {
    table::asof_options o;
    o.dir = static_cast<table::direction>(opt.dir);
    o.strict = opt.strict;
    if (opt.tolerance)
        o.tolerance = static_cast<long double>(key_distance<K>::of(*opt.tolerance));
    return o;
}

} // namespace detail

// For each probe, the position of its match in the ascending field `keys`, or
// nullopt when there is none (also for a NaN probe).  Ascending probes are
// answered by a merge over the field's tiles, others in value order.  A
// negative or NaN tolerance is refused.
template <class K>
std::vector<std::optional<uint64_t>> asof(const sequence<K> &keys, span<const K> probes,
                                          const asof_options<K> &opt = {}) {
    const table::column c = detail::table_column(keys);
    const table::asof_options o = detail::table_options(opt);
    std::vector<std::optional<uint64_t>> out(probes.size());
    table::array a;
    detail::batches(probes.size(), [&](size_t i, size_t m) {
        detail::to_array(probes.subspan(i, m), c.type, a);
        detail::put(table::asof(c, a, o), out, i);
    });
    return out;
}

// Probes stored in another field (null probes get null answers).
template <class K>
std::vector<std::optional<uint64_t>> asof(const sequence<K> &keys, const sequence<K> &probes,
                                          const asof_options<K> &opt = {}) {
    const table::column c = detail::table_column(keys), pc = detail::table_column(probes);
    const table::asof_options o = detail::table_options(opt);
    std::vector<std::optional<uint64_t>> out(table::count(pc));
    detail::batches(out.size(), [&](size_t i, size_t m) {
        detail::put(table::asof(c, table::read(pc, i, i + m), o), out, i);
    });
    return out;
}

// The values of `col` at the given positions (null position or null element:
// nullopt).  Positions closer than half a tile apart on average are read
// through whole tiles (a far jump costs one descent), sparser ones through
// the module's map.
template <class V>
std::vector<std::optional<V>> gather(const sequence<V> &col,
                                     span<const std::optional<uint64_t>> positions) {
    const table::column c = detail::table_column(col);
    std::vector<std::optional<V>> out(positions.size());
    table::array a;
    detail::batches(positions.size(), [&](size_t i, size_t m) {
        detail::to_array(positions.subspan(i, m), a);
        detail::put(table::gather(c, a), out, i);
    });
    return out;
}

// As-of join: for each probe, the prevailing values of several columns of the
// key field's object (column i of the result holds the values of cols[i]).
template <class K, class... V>
std::tuple<std::vector<std::optional<V>>...>
asof_join(const sequence<K> &keys, span<const K> probes, const asof_options<K> &opt,
          const sequence<V> &...cols) {
    const table::column c = detail::table_column(keys);
    const table::asof_options o = detail::table_options(opt);
    const table::column vc[] = {c, detail::table_column(cols)...};
    std::tuple<std::vector<std::optional<V>>...> out(
        std::vector<std::optional<V>>(probes.size())...);
    table::array a;
    detail::batches(probes.size(), [&](size_t i, size_t m) {
        detail::to_array(probes.subspan(i, m), c.type, a);
        const table::array pos = table::asof(c, a, o);
        std::apply(
            [&](auto &...v) {
                size_t k = 1;
                (detail::put(table::gather(vc[k++], pos), v, i), ...);
            },
            out);
    });
    return out;
}

// Last observation carried forward: each null takes the closest earlier
// non-null value; leading nulls stay null.
template <class T> void fill_forward(std::vector<std::optional<T>> &v) {
    std::optional<T> last;
    for (auto &x : v) {
        if (x)
            last = x;
        else
            x = last;
    }
}

// The elements of positions [first, last) with nulls filled forward.
template <class T>
std::vector<std::optional<T>> read_filled(const sequence<T> &s, position_range r) {
    std::vector<std::optional<T>> v;
    v.reserve(r.size());
    for (std::optional<T> x : s.elements(r.first, r.last))
        v.push_back(x);
    fill_forward(v);
    return v;
}

} // namespace velseq

#endif // VELSEQ_ASOF_HPP
