// velseq/aggregates.hpp -- count, sum, min, max, mean, first and last of a
// position or time window, and resampling into time buckets: typed views of
// the table layer's kernels (libveltable), which every front end shares.
#ifndef VELSEQ_AGGREGATES_HPP
#define VELSEQ_AGGREGATES_HPP

#include <chrono>
#include <optional>
#include <utility>

#include "velseq/asof.hpp"
#include "velseq/calendar.hpp"
#include "velseq/table.hpp"

namespace velseq {

// ---- aggregates ------------------------------------------------------------------

template <class T>
using sum_t = std::conditional_t<
    std::is_floating_point_v<T>, double,
    std::conditional_t<std::is_signed_v<T>, int64_t,
                       std::conditional_t<std::is_unsigned_v<T>, uint64_t, std::monostate>>>;

// Nulls are skipped by everything but `rows`.  The sum wraps around for
// integers as the C types do; NaN values propagate into sum and mean, and
// min and max pass over them.
template <class T> struct summary {
    uint64_t rows = 0;  // elements, nulls included
    uint64_t count = 0; // non-null elements
    sum_t<T> sum{};     // arithmetic types only
    std::optional<T> min, max, first, last;
    // Positions in the field of the first smallest and largest values, and
    // (over a time window) their times; none without a value.
    std::optional<uint64_t> argmin, argmax;
    std::optional<datetime> argmin_time, argmax_time;
    uint64_t nulls() const { return rows - count; }
    std::optional<double> mean() const {
        if constexpr (std::is_arithmetic_v<T>) {
            if (count > 0)
                return static_cast<double>(sum) / static_cast<double>(count);
        }
        return std::nullopt;
    }
};

namespace detail {

// The column a sequence is to the table layer, with the order the C++ side
// declared (an image of an older format keeps none).
template <class T> table::column column_of(const sequence<T> &s) {
    table::column c{*s.obj(), s.info(), *table::type_of(s.info())};
    c.field.order = static_cast<uint8_t>(s.declared_order());
    return c;
}

// Value i of a kernel's answer, nullopt when null.
template <class V> std::optional<V> answer(const table::array &a, size_t i = 0) {
    if (!a.valid(i))
        return std::nullopt;
    V v;
    std::memcpy(&v, a.values.data() + i * sizeof(V), sizeof(V));
    return v;
}

// The kernels of a summary and of a bar, in the order they are read back.
template <class T> std::vector<std::string> summary_kernels() {
    std::vector<std::string> k = {"rows", "count", "first", "max", "min", "last"};
    if constexpr (std::is_arithmetic_v<T>)
        k.push_back("sum");
    return k;
}

template <class T, class S> void fill(S &s, const std::vector<table::array> &a, size_t i) {
    s.rows = *answer<uint64_t>(a[0], i);
    s.count = *answer<uint64_t>(a[1], i);
    s.first = answer<T>(a[2], i);
    s.max = answer<T>(a[3], i);
    s.min = answer<T>(a[4], i);
    s.last = answer<T>(a[5], i);
    if constexpr (std::is_arithmetic_v<T>)
        s.sum = *answer<sum_t<T>>(a[6], i);
}

} // namespace detail

// Count, nulls, sum, min, max, mean, first, last, argmin and argmax of
// positions [first, last), from the table layer's kernels.
template <class T> summary<T> aggregate(const sequence<T> &s, position_range r) {
    summary<T> out;
    std::vector<std::string> ks = detail::summary_kernels<T>();
    ks.insert(ks.end(), {"argmin", "argmax"});
    const std::vector<table::array> a = table::aggregate(detail::column_of(s), r.first, r.last, ks);
    detail::fill<T>(out, a, 0);
    out.argmin = detail::answer<uint64_t>(a[ks.size() - 2]);
    out.argmax = detail::answer<uint64_t>(a[ks.size() - 1]);
    return out;
}

// The same over the time window from <= ts < to of an ascending datetime
// field of the same object.
template <class T>
summary<T> aggregate(const sequence<T> &s, const sequence<datetime> &ts, datetime from,
                     datetime to) {
    detail::require_ascending(ts, "a time window");
    if (to < from)
        throw error(VEL_E_ILLEGAL_PARAM, "time window given reversed (to < from)");
    summary<T> out = aggregate(s, ts.search(from, to, bound::inclusive, bound::exclusive));
    if (out.argmin)
        out.argmin_time = ts.at(*out.argmin);
    if (out.argmax)
        out.argmax_time = ts.at(*out.argmax);
    return out;
}

// ---- resampling ----------------------------------------------------------------------

// One time bucket [start, start + width): first, max, min, last, count and sum
// of the non-null values of the rows whose time falls in it.
template <class V> struct bar {
    datetime start;
    uint64_t rows = 0;
    uint64_t count = 0;
    sum_t<V> sum{};
    std::optional<V> first, max, min, last;
};

namespace detail {
template <class V> std::vector<bar<V>> bars_of(const table::buckets &b) {
    std::vector<bar<V>> out(b.start.length);
    for (size_t i = 0; i < out.size(); i++) {
        out[i].start = datetime::from_raw(*detail::answer<vel_datetime>(b.start, i));
        detail::fill<V>(out[i], b.answers, i);
    }
    return out;
}
} // namespace detail

// Buckets of `width` aligned on `origin`, over the rows from <= ts < to (all
// rows without a window), in time order; only buckets holding a row appear.
// `ts` is an ascending datetime field and `vals` a field of the same length.
template <class V>
std::vector<bar<V>> resample(const sequence<datetime> &ts, const sequence<V> &vals,
                             std::chrono::nanoseconds width,
                             std::optional<std::pair<datetime, datetime>> window = std::nullopt,
                             datetime origin = datetime::from_ns(0)) {
    detail::require_ascending(ts, "resample");
    std::optional<std::pair<vel_datetime, vel_datetime>> w;
    if (window)
        w = {window->first.raw(), window->second.raw()};
    return detail::bars_of<V>(table::resample(detail::column_of(ts), detail::column_of(vals),
                                              width.count(), origin.raw(), w,
                                              detail::summary_kernels<V>()));
}

// Calendar buckets (velseq/calendar.hpp): days, weeks from a chosen weekday,
// months, quarters or years, at local midnight of UTC + the calendar's
// offset; each bar's start is its bucket's.  The mean per calendar year:
//   for (auto &b : velseq::resample(s[ts], s[temp], velseq::calendar::years()))
//       b.sum / b.count ...
template <class V>
std::vector<bar<V>> resample(const sequence<datetime> &ts, const sequence<V> &vals,
                             const calendar &cal,
                             std::optional<std::pair<datetime, datetime>> window = std::nullopt) {
    detail::require_ascending(ts, "resample");
    std::optional<std::pair<vel_datetime, vel_datetime>> w;
    if (window)
        w = {window->first.raw(), window->second.raw()};
    return detail::bars_of<V>(table::resample(detail::column_of(ts), detail::column_of(vals), cal,
                                              w, detail::summary_kernels<V>()));
}

} // namespace velseq

#endif // VELSEQ_AGGREGATES_HPP
