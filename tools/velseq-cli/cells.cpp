// Values as text: one parser and one formatter per element type, generated
// from the one list of scalar types (VEL_SEQ_SCALAR_TYPES) plus char(N).
#include "table.h"

#include <charconv>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <type_traits>

namespace vcli {

std::string_view trim(std::string_view s) {
    while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
        s.remove_prefix(1);
    while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
        s.remove_suffix(1);
    return s;
}

bool parse_datetime(std::string_view s, vel_datetime &out) {
    s = trim(s);
    return vel_dt_parse(s.data(), s.size(), &out) == VEL_DT_OK;
}

int64_t parse_duration(const std::string &text, const char *what) {
    static const std::pair<const char *, int64_t> units[] = {
        {"ns", 1},
        {"us", 1000},
        {"ms", 1000000},
        {"s", VEL_DT_NS_PER_SEC},
        {"m", 60 * VEL_DT_NS_PER_SEC},
        {"h", 3600 * VEL_DT_NS_PER_SEC},
        {"d", 86400 * VEL_DT_NS_PER_SEC},
        {"w", 7 * 86400 * VEL_DT_NS_PER_SEC},
    };
    int64_t n = 0;
    auto r = std::from_chars(text.data(), text.data() + text.size(), n);
    const std::string unit(r.ptr, text.data() + text.size());
    if (r.ec == std::errc() && n > 0)
        for (auto [u, mul] : units)
            if (unit == u) {
                if (n > INT64_MAX / mul)
                    break;
                return n * mul;
            }
    throw Fail(kExitUsage, std::string(what) + " '" + text +
                               "' is not a positive duration such as 500ms, 30s, 15m, 1h, 1d, 1w" +
                               (std::string(what) == "bucket width"
                                    ? " or calendar unit such as 1D, 1W, 1W-SUN, 1M, 3M, 1Q, 1Y"
                                    : ""));
}

namespace {

template <class T, uint8_t Code> Parsed parse_scalar(std::string_view s, unsigned char *out) {
    T v{};
    s = trim(s);
    if constexpr (Code == VEL_DD_SEQUENCE_DATETIME) {
        if (!parse_datetime(s, v))
            return Parsed::Bad;
    } else {
        if (!s.empty() && s.front() == '+')
            s.remove_prefix(1);
        const auto r = std::from_chars(s.data(), s.data() + s.size(), v);
        if (s.empty() || r.ec == std::errc::invalid_argument || r.ptr != s.data() + s.size())
            return Parsed::Bad;
        if (r.ec == std::errc::result_out_of_range)
            return std::is_floating_point_v<T> ? Parsed::NotFinite : Parsed::OutOfRange;
        if constexpr (std::is_floating_point_v<T>)
            if (!std::isfinite(v))
                return Parsed::NotFinite;
    }
    std::memcpy(out, &v, sizeof v);
    return Parsed::Ok;
}

template <class T, uint8_t Code> void format_scalar(const unsigned char *p, size_t, OutCell &c) {
    T v;
    std::memcpy(&v, p, sizeof v);
    if constexpr (Code == VEL_DD_SEQUENCE_DATETIME) {
        char buf[VEL_DT_TEXT_MAX];
        c.text.assign(buf, vel_dt_format(v, buf, sizeof buf));
        c.quoted = true;
    } else {
        char buf[64];
        c.text.assign(buf, std::to_chars(buf, buf + sizeof buf, v).ptr);
    }
}

void format_chars(const unsigned char *p, size_t width, OutCell &c) {
    while (width > 0 && p[width - 1] == '\0')
        width--;
    c.text.assign(reinterpret_cast<const char *>(p), width);
    c.quoted = true;
}

} // namespace

Parsed parse_value(velseq::table::column_type t, std::string_view s, unsigned char *out) {
    switch (t.code) {
#define VCLI_PARSE_(S, T, DD)                                                                      \
    case VEL_DD_SEQUENCE_##DD:                                                                     \
        return parse_scalar<T, VEL_DD_SEQUENCE_##DD>(s, out);
        VEL_SEQ_SCALAR_TYPES(VCLI_PARSE_)
#undef VCLI_PARSE_
    default:
        if (s.size() > t.width)
            return Parsed::TooLong;
        std::memset(out, 0, t.width);
        std::memcpy(out, s.data(), s.size());
        return Parsed::Ok;
    }
}

std::string refusal(velseq::table::column_type t, Parsed p) {
    const std::string name = velseq::table::type_name(t);
    return p == Parsed::NotFinite ? "is NaN or infinite (leave the cell empty for a missing value)"
           : p == Parsed::OutOfRange ? "is out of the range of " + name
           : p == Parsed::TooLong
               ? "is longer than the " + std::to_string(t.width) + " bytes of a " + name + " cell"
           : t.code == VEL_DD_SEQUENCE_DATETIME ? "is not a date or time (ISO-8601 or YYYYMMDD)"
           : t.code == VEL_DD_SEQUENCE_FLOAT || t.code == VEL_DD_SEQUENCE_DOUBLE
               ? "is not a number"
               : "is not an integer";
}

namespace {

using Formatter = void (*)(const unsigned char *value, size_t width, OutCell &out);

// The one formatter of each element type.
Formatter formatter_of(velseq::table::column_type t) {
    switch (t.code) {
#define VCLI_FORMAT_(S, T, DD)                                                                     \
    case VEL_DD_SEQUENCE_##DD:                                                                     \
        return format_scalar<T, VEL_DD_SEQUENCE_##DD>;
        VEL_SEQ_SCALAR_TYPES(VCLI_FORMAT_)
#undef VCLI_FORMAT_
    default:
        return format_chars;
    }
}

} // namespace

OutCell cell_of(const velseq::table::array &a, uint64_t i) {
    OutCell c;
    if (!a.valid(i)) {
        c.null = true;
        return c;
    }
    formatter_of(a.type)(a.values.data() + i * a.type.width, a.type.width, c);
    return c;
}

} // namespace vcli
