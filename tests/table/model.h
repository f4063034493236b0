// Plain models of the table layer's answers, shared by its tests and the
// velseq program's: arrays built from and read into optionals, and as-of
// matches by binary search over the keys.
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

// The position that probe p matches in the ascending keys, under the
// options of the table layer or of the C++ API.
template <class Options>
std::optional<uint64_t> asof(const std::vector<int64_t> &keys, int64_t p, const Options &opt) {
    using direction = decltype(opt.dir);
    const auto b = opt.strict ? std::lower_bound(keys.begin(), keys.end(), p)
                              : std::upper_bound(keys.begin(), keys.end(), p);
    const auto f = opt.strict ? std::upper_bound(keys.begin(), keys.end(), p)
                              : std::lower_bound(keys.begin(), keys.end(), p);
    std::optional<uint64_t> back, fwd;
    if (opt.dir != direction::forward && b != keys.begin())
        back = uint64_t(b - keys.begin() - 1);
    if (opt.dir != direction::backward && f != keys.end())
        fwd = uint64_t(f - keys.begin());
    std::optional<uint64_t> pick = back ? back : fwd;
    if (back && fwd && keys[*fwd] - p < p - keys[*back])
        pick = fwd;
    if (pick && opt.tolerance && std::llabs(keys[*pick] - p) > *opt.tolerance)
        pick = std::nullopt;
    return pick;
}

} // namespace model
