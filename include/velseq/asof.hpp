// velseq/asof.hpp -- as-of lookups and joins over an ascending key field,
// gathering values at positions, and filling nulls forward.  As-of and
// gather are typed views of the table layer's (libveltable), which every
// front end shares: ascending probes are answered by one merge over the key
// field's tiles, galloping, and a far jump costs one descent.
#ifndef VELSEQ_ASOF_HPP
#define VELSEQ_ASOF_HPP

#include <tuple>
#include <vector>

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

// ---- columnar results ---------------------------------------------------------

// Values with a validity bitmap, laid out as the table layer's arrays (and
// Arrow's: bit i of byte i / 8, least significant first, set when value i is
// present): what as-of and gather answer, written in place by the table
// layer.  A null's value is unspecified.  Element i reads as an optional.
template <class T> class nullable_vector {
  public:
    nullable_vector() = default;
    explicit nullable_vector(size_t n) : values_(n), validity_((n + 7) / 8) {}

    size_t size() const noexcept { return values_.size(); }
    bool empty() const noexcept { return values_.empty(); }
    bool valid(size_t i) const noexcept { return (validity_[i / 8] >> (i % 8)) & 1; }
    std::optional<T> operator[](size_t i) const {
        return valid(i) ? std::optional<T>(values_[i]) : std::nullopt;
    }
    void set(size_t i, std::optional<T> v) {
        const auto bit = static_cast<uint8_t>(1u << (i % 8));
        validity_[i / 8] = static_cast<uint8_t>(v ? validity_[i / 8] | bit : validity_[i / 8] & ~bit);
        if (v)
            values_[i] = *v;
    }
    const T *data() const noexcept { return values_.data(); }
    T *data() noexcept { return values_.data(); }
    const uint8_t *validity() const noexcept { return validity_.data(); }
    uint8_t *validity() noexcept { return validity_.data(); }
    std::vector<std::optional<T>> to_optionals() const {
        std::vector<std::optional<T>> v(size());
        for (size_t i = 0; i < size(); i++)
            v[i] = (*this)[i];
        return v;
    }

  private:
    std::vector<T> values_;
    std::vector<uint8_t> validity_;
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

constexpr table::column_type kPositions{VEL_DD_SEQUENCE_UINT8, 8};

// The element types of this API are their values' bytes.
template <class T> table::const_buffer view(span<const T> v, table::column_type t) {
    static_assert(std::is_trivially_copyable_v<T>);
    return {t, v.size(), v.data(), nullptr};
}
template <class T> table::buffer out_buffer(nullable_vector<T> &v, table::column_type t) {
    static_assert(std::is_trivially_copyable_v<T>);
    return {t, v.size(), v.data(), v.validity()};
}

template <class K> table::asof_options table_options(const asof_options<K> &opt) {
    table::asof_options o;
    o.dir = static_cast<table::direction>(opt.dir);
    o.strict = opt.strict;
    if (opt.tolerance)
        o.tolerance = static_cast<long double>(key_distance<K>::of(*opt.tolerance));
    return o;
}

template <class K>
nullable_vector<uint64_t> asof(const table::column &keys, const table::const_buffer &probes,
                               const asof_options<K> &opt) {
    nullable_vector<uint64_t> out(probes.length);
    table::asof(keys, probes, table_options(opt), out.data(), out.validity());
    return out;
}

} // namespace detail

// For each probe, the position of its match in the ascending field `keys`
// (null when there is none, also for a NaN probe).  Ascending probes are
// answered by a merge over the field's tiles, others in value order.  A
// negative or NaN tolerance is refused.
template <class K>
nullable_vector<uint64_t> asof(const sequence<K> &keys, span<const K> probes,
                               const asof_options<K> &opt = {}) {
    const table::column c = detail::table_column(keys);
    return detail::asof(c, detail::view(probes, c.type), opt);
}

// Probes stored in another field (null probes get null answers).
template <class K>
nullable_vector<uint64_t> asof(const sequence<K> &keys, const sequence<K> &probes,
                               const asof_options<K> &opt = {}) {
    const table::column c = detail::table_column(keys);
    const table::column pc = detail::table_column(probes);
    const table::array p = table::read(pc, 0, table::count(pc));
    return detail::asof(c, table::view(p), opt);
}

// The values of `col` at the given positions (null position or null element:
// null).  Positions closer than half a tile apart on average are read
// through whole tiles (a far jump costs one descent), sparser ones through
// the module's map.
template <class V>
nullable_vector<V> gather(const sequence<V> &col, const nullable_vector<uint64_t> &positions) {
    const table::column c = detail::table_column(col);
    nullable_vector<V> out(positions.size());
    const table::buffer b = detail::out_buffer(out, c.type);
    table::gather(&c, &b, 1,
                  {detail::kPositions, positions.size(), positions.data(), positions.validity()});
    return out;
}
template <class V>
nullable_vector<V> gather(const sequence<V> &col, span<const std::optional<uint64_t>> positions) {
    nullable_vector<uint64_t> p(positions.size());
    for (size_t i = 0; i < positions.size(); i++)
        p.set(i, positions[i]);
    return gather(col, p);
}

// As-of join: for each probe, the prevailing values of several columns of the
// key field's object (column i of the result holds the values of cols[i]),
// gathered straight into the results.
template <class K, class... V>
std::tuple<nullable_vector<V>...> asof_join(const sequence<K> &keys, span<const K> probes,
                                            const asof_options<K> &opt,
                                            const sequence<V> &...cols) {
    const table::column c = detail::table_column(keys);
    nullable_vector<uint64_t> pos(probes.size());
    std::tuple<nullable_vector<V>...> out(nullable_vector<V>(probes.size())...);
    std::apply(
        [&](auto &...v) {
            const table::column vc[] = {detail::table_column(cols)...};
            const table::buffer b[] = {detail::out_buffer(v, *table::type_of(cols.info()))...};
            table::asof_join(c, detail::view(probes, c.type), detail::table_options(opt),
                             pos.data(), pos.validity(), vc, b, sizeof...(V));
        },
        out);
    return out;
}

// As-of join within groups, one object a group (one object per symbol, say,
// holding its times and prices): probe i is matched in groups[group_of[i]]
// (kNoGroup: in none), whose columns `cols` give its values.  The answers
// are those of asof_join on each group's probes alone.
template <class K, class... V>
std::tuple<nullable_vector<V>...> asof_join_by(span<const object> groups,
                                               span<const uint32_t> group_of, const field<K> &keys,
                                               span<const K> probes, const asof_options<K> &opt,
                                               const field<V> &...cols) {
    if (group_of.size() != probes.size())
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, "asof_join_by: " + std::to_string(probes.size()) +
                                                   " probes, " + std::to_string(group_of.size()) +
                                                   " groups");
    std::vector<table::asof_group> g;
    g.reserve(groups.size());
    for (const object &o : groups)
        g.push_back({detail::table_column(o[keys]), {detail::table_column(o[cols])...}});
    const table::column_type kt = *table::type_of(keys.info());
    nullable_vector<uint64_t> pos(probes.size());
    std::tuple<nullable_vector<V>...> out(nullable_vector<V>(probes.size())...);
    std::apply(
        [&](auto &...v) {
            const table::buffer b[] = {detail::out_buffer(v, *table::type_of(cols.info()))...};
            table::asof_join_by(g, group_of.data(), detail::view(probes, kt),
                                detail::table_options(opt), pos.data(), pos.validity(), b,
                                sizeof...(V));
        },
        out);
    return out;
}
constexpr uint32_t kNoGroup = table::kNoGroup;

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

template <class T> void fill_forward(nullable_vector<T> &v) {
    std::optional<T> last;
    for (size_t i = 0; i < v.size(); i++) {
        if (v.valid(i))
            last = v[i];
        else if (last)
            v.set(i, last);
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
