// Plain models of the table layer's answers, shared by its tests and the
// velseq program's: arrays built from and read into optionals, as-of
// matches by binary search over the keys, and summaries row by row.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <optional>
#include <string>
#include <type_traits>
#include <vector>

#include "velseq/error.hpp"
#include "velseq/table.hpp"

namespace model {

namespace tbl = velseq::table;

// The code of the velseq::error that f throws; 0 when it throws none.
inline int code_of(const std::function<void()> &f) {
    try {
        f();
    } catch (const velseq::error &e) {
        return e.code();
    }
    return 0;
}

// An array of type t (T = std::string for char(N)), a validity bitmap only
// when a value is null; and the values of an array.
template <class T> tbl::array array_of(const std::vector<std::optional<T>> &v, tbl::column_type t) {
    tbl::array a;
    a.type = t;
    a.length = v.size();
    a.values.resize(v.size() * t.width);
    for (size_t i = 0; i < v.size(); i++) {
        if (!v[i]) {
            a.validity.resize((v.size() + 7) / 8, 0xFF);
            a.validity[i / 8] &= uint8_t(~(1u << (i % 8)));
        } else if constexpr (std::is_same_v<T, std::string>)
            std::memcpy(a.values.data() + i * t.width, v[i]->data(), v[i]->size());
        else
            std::memcpy(a.values.data() + i * t.width, &*v[i], sizeof(T));
    }
    return a;
}
template <class T> std::vector<std::optional<T>> values_of(const tbl::array &a) {
    std::vector<std::optional<T>> v(a.length);
    for (size_t i = 0; i < a.length; i++)
        if (a.valid(i)) {
            T x;
            std::memcpy(&x, a.values.data() + i * sizeof(T), sizeof x);
            v[i] = x;
        }
    return v;
}

// The position that probe p matches in the ascending keys.
inline std::optional<uint64_t> asof(const std::vector<int64_t> &keys, int64_t p,
                                    const tbl::asof_options &opt) {
    const auto b = opt.strict ? std::lower_bound(keys.begin(), keys.end(), p)
                              : std::upper_bound(keys.begin(), keys.end(), p);
    const auto f = opt.strict ? std::upper_bound(keys.begin(), keys.end(), p)
                              : std::lower_bound(keys.begin(), keys.end(), p);
    std::optional<uint64_t> back, fwd;
    if (opt.dir != tbl::direction::forward && b != keys.begin())
        back = uint64_t(b - keys.begin() - 1);
    if (opt.dir != tbl::direction::backward && f != keys.end())
        fwd = uint64_t(f - keys.begin());
    std::optional<uint64_t> pick = back ? back : fwd;
    if (back && fwd && keys[*fwd] - p < p - keys[*back])
        pick = fwd;
    if (pick && opt.tolerance && std::llabs(keys[*pick] - p) > *opt.tolerance)
        pick = std::nullopt;
    return pick;
}

// The values [b, e) of v summarised row by row: nulls skipped, NaN counted
// and summed but never an extreme, the first of equal extremes.  Integers
// are summed as the 64-bit integers they widen to (wrapping), floats as
// doubles in row order.
template <class T> struct summary {
    uint64_t count = 0, rows = 0, isum = 0, argmin = 0, argmax = 0;
    double fsum = 0;
    std::optional<T> min, max, first, last;
    std::optional<double> mean() const {
        if (count == 0)
            return std::nullopt;
        if constexpr (std::is_floating_point_v<T>)
            return fsum / double(count);
        else
            return (std::is_signed_v<T> ? double(int64_t(isum)) : double(isum)) / double(count);
    }
};
template <class T>
summary<T> summarize(const std::vector<std::optional<T>> &v, size_t b, size_t e) {
    summary<T> s;
    s.rows = e - b;
    for (size_t i = b; i < e; i++) {
        if (!v[i])
            continue;
        const T &x = *v[i];
        s.count++;
        if constexpr (std::is_arithmetic_v<T>)
            s.fsum += double(x);
        if constexpr (std::is_integral_v<T>)
            s.isum += std::is_signed_v<T> ? uint64_t(int64_t(x)) : uint64_t(x);
        s.first = s.first ? s.first : x;
        s.last = x;
        if constexpr (std::is_arithmetic_v<T>)
            if (std::isnan(double(x)))
                continue;
        if (!s.min || x < *s.min)
            s.min = x, s.argmin = i;
        if (!s.max || *s.max < x)
            s.max = x, s.argmax = i;
    }
    return s;
}

} // namespace model
