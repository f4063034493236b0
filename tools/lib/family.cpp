#include "family.h"

#include "velseq/datetime.h"

#include <charconv>
#include <cmath>
#include <cstdarg>
#include <cstring>
#include <limits>
#include <type_traits>

namespace veltools {

namespace {

template <class T> bool parse_scalar(const char *text, size_t len, size_t, void *value) {
    T v{};
    const char *end = text + len;
    std::from_chars_result r;
    if constexpr (std::is_floating_point_v<T>) {
        // from_chars takes no leading '+'; accept it as strtod does.
        if (len > 1 && text[0] == '+' && text[1] != '-')
            text++;
        r = std::from_chars(text, end, v, std::chars_format::general);
    } else {
        if (len > 1 && text[0] == '+' && text[1] != '-')
            text++;
        r = std::from_chars(text, end, v, 10);
    }
    if (r.ec != std::errc() || r.ptr != end)
        return false;
    std::memcpy(value, &v, sizeof v);
    return true;
}

template <class T> void format_scalar(const void *value, size_t, std::string &out) {
    T v;
    std::memcpy(&v, value, sizeof v);
    char buf[64];
    // Shortest text that reads back to the same value, floats included.
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

template <class T> int compare_scalar(const void *a, const void *b, size_t) {
    T x, y;
    std::memcpy(&x, a, sizeof x);
    std::memcpy(&y, b, sizeof y);
    if (x < y)
        return -1;
    if (x > y)
        return 1;
    if (x == y)
        return 0;
    return 2;
}

// Datetimes are calendar time (velseq/datetime.h): ISO-8601 text, or a signed
// count of nanoseconds since 1970-01-01T00:00:00Z; written back as ISO-8601.
bool parse_datetime(const char *text, size_t len, size_t, void *value) {
    vel_datetime v;
    if (vel_dt_parse(text, len, &v) != VEL_DT_OK) {
        int64_t ns;
        if (!parse_scalar<int64_t>(text, len, 0, &ns))
            return false;
        v = vel_dt_from_ns(ns);
    }
    std::memcpy(value, &v, sizeof v);
    return true;
}

void format_datetime(const void *value, size_t, std::string &out) {
    vel_datetime v;
    std::memcpy(&v, value, sizeof v);
    char buf[VEL_DT_TEXT_MAX];
    out.append(buf, vel_dt_format(v, buf, sizeof buf));
}

bool parse_char(const char *text, size_t len, size_t width, void *value) {
    if (len > width)
        return false;
    std::memcpy(value, text, len);
    std::memset(static_cast<char *>(value) + len, 0, width - len);
    return true;
}

void format_char(const void *value, size_t width, std::string &out) {
    const char *p = static_cast<const char *>(value);
    while (width > 0 && p[width - 1] == '\0')
        width--;
    out.append(p, width);
}

int compare_char(const void *a, const void *b, size_t width) {
    int c = vel_memcmp(a, b, width);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

#define VELT_TYPED_OPS(S, T)                                                                       \
    VEL_RET append_##S(vel_objhandle_h obj, const velt_field_t &f, const void *vals, uint64_t n,   \
                       const vel_bitmap_word_t *nulls) {                                           \
        return vel_w_seq_append_##S(obj, f.u_offset, f.c_offset, f.fld_no,                         \
                                    static_cast<const T *>(vals), n, f.order, nulls);              \
    }                                                                                              \
    VEL_RET last_##S(vel_objhandle_h obj, const velt_field_t &f, void *val) {                      \
        return vel_w_seq_last_##S(obj, f.u_offset, f.c_offset, static_cast<T *>(val));             \
    }                                                                                              \
    VEL_RET subseq_##S(vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it,          \
                       uint64_t from, uint64_t till) {                                             \
        return vel_w_seq_subseq_##S(obj, f.u_offset, f.c_offset, it, from, till);                  \
    }                                                                                              \
    VEL_RET search_##S(vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it,          \
                       const void *low, const void *high) {                                        \
        T lo, hi;                                                                                  \
        std::memcpy(&lo, low, sizeof lo);                                                          \
        std::memcpy(&hi, high, sizeof hi);                                                         \
        return vel_w_seq_search_##S(obj, f.u_offset, f.c_offset, it, lo,                           \
                                    VEL_SEQ_BOUNDARY_INCLUSIVE, hi, VEL_SEQ_BOUNDARY_INCLUSIVE,    \
                                    f.order);                                                      \
    }

VELT_TYPED_OPS(int1, vel_int1)
VELT_TYPED_OPS(int2, vel_int2)
VELT_TYPED_OPS(int4, vel_int4)
VELT_TYPED_OPS(int8, vel_int8)
VELT_TYPED_OPS(uint1, vel_uint1)
VELT_TYPED_OPS(uint2, vel_uint2)
VELT_TYPED_OPS(uint4, vel_uint4)
VELT_TYPED_OPS(uint8, vel_uint8)
VELT_TYPED_OPS(float, vel_float)
VELT_TYPED_OPS(double, vel_double)
VELT_TYPED_OPS(datetime, vel_datetime)
#undef VELT_TYPED_OPS

VEL_RET append_char(vel_objhandle_h obj, const velt_field_t &f, const void *vals, uint64_t n,
                    const vel_bitmap_word_t *nulls) {
    return vel_w_seq_append_char(obj, f.u_offset, f.c_offset, f.fld_no,
                                 static_cast<const char *>(vals), n, f.order, f.type.elem_size,
                                 nulls);
}
VEL_RET last_char(vel_objhandle_h obj, const velt_field_t &f, void *val) {
    return vel_w_seq_last_char(obj, f.u_offset, f.c_offset, static_cast<char *>(val),
                               f.type.elem_size);
}
VEL_RET subseq_char(vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it,
                    uint64_t from, uint64_t till) {
    return vel_w_seq_subseq_char(obj, f.u_offset, f.c_offset, it, from, till, f.type.elem_size);
}
VEL_RET search_char(vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it,
                    const void *low, const void *high) {
    return vel_w_seq_search_char(obj, f.u_offset, f.c_offset, it, static_cast<const char *>(low),
                                 VEL_SEQ_BOUNDARY_INCLUSIVE, static_cast<const char *>(high),
                                 VEL_SEQ_BOUNDARY_INCLUSIVE, f.order, f.type.elem_size);
}

const Family kFamilies[] = {
    {"int1", VEL_DD_INT1, VEL_DD_SEQUENCE_INT1, 1, parse_scalar<vel_int1>, format_scalar<vel_int1>,
     compare_scalar<vel_int1>, append_int1, last_int1, subseq_int1, search_int1},
    {"int2", VEL_DD_INT2, VEL_DD_SEQUENCE_INT2, 2, parse_scalar<vel_int2>, format_scalar<vel_int2>,
     compare_scalar<vel_int2>, append_int2, last_int2, subseq_int2, search_int2},
    {"int4", VEL_DD_INT4, VEL_DD_SEQUENCE_INT4, 4, parse_scalar<vel_int4>, format_scalar<vel_int4>,
     compare_scalar<vel_int4>, append_int4, last_int4, subseq_int4, search_int4},
    {"int8", VEL_DD_INT8, VEL_DD_SEQUENCE_INT8, 8, parse_scalar<vel_int8>, format_scalar<vel_int8>,
     compare_scalar<vel_int8>, append_int8, last_int8, subseq_int8, search_int8},
    {"uint1", VEL_DD_UINT1, VEL_DD_SEQUENCE_UINT1, 1, parse_scalar<vel_uint1>,
     format_scalar<vel_uint1>, compare_scalar<vel_uint1>, append_uint1, last_uint1, subseq_uint1,
     search_uint1},
    {"uint2", VEL_DD_UINT2, VEL_DD_SEQUENCE_UINT2, 2, parse_scalar<vel_uint2>,
     format_scalar<vel_uint2>, compare_scalar<vel_uint2>, append_uint2, last_uint2, subseq_uint2,
     search_uint2},
    {"uint4", VEL_DD_UINT4, VEL_DD_SEQUENCE_UINT4, 4, parse_scalar<vel_uint4>,
     format_scalar<vel_uint4>, compare_scalar<vel_uint4>, append_uint4, last_uint4, subseq_uint4,
     search_uint4},
    {"uint8", VEL_DD_UINT8, VEL_DD_SEQUENCE_UINT8, 8, parse_scalar<vel_uint8>,
     format_scalar<vel_uint8>, compare_scalar<vel_uint8>, append_uint8, last_uint8, subseq_uint8,
     search_uint8},
    {"float", VEL_DD_FLOAT, VEL_DD_SEQUENCE_FLOAT, 4, parse_scalar<vel_float>,
     format_scalar<vel_float>, compare_scalar<vel_float>, append_float, last_float, subseq_float,
     search_float},
    {"double", VEL_DD_DOUBLE, VEL_DD_SEQUENCE_DOUBLE, 8, parse_scalar<vel_double>,
     format_scalar<vel_double>, compare_scalar<vel_double>, append_double, last_double,
     subseq_double, search_double},
    {"datetime", VEL_DD_DATETIME, VEL_DD_SEQUENCE_DATETIME, 8, parse_datetime, format_datetime,
     compare_scalar<vel_datetime>, append_datetime, last_datetime, subseq_datetime,
     search_datetime},
    {"char", VEL_DD_CHAR, VEL_DD_SEQUENCE_CHAR, 0, parse_char, format_char, compare_char,
     append_char, last_char, subseq_char, search_char},
};

} // namespace

const Family *family_of(velt_type_t type) {
    for (const Family &fam : kFamilies) {
        if (fam.elem_type != type.elem_type)
            continue;
        if (fam.size == 0 ? (type.elem_size >= 1 && type.elem_size <= 4096)
                          : type.elem_size == fam.size)
            return &fam;
        return nullptr;
    }
    return nullptr;
}

void set_error(velt_error_t *err, int code, uint64_t line, uint64_t index, const char *fmt, ...) {
    if (err == nullptr)
        return;
    err->code = code;
    err->line = line;
    err->index = index;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(err->message, sizeof err->message, fmt, ap);
    va_end(ap);
}

} // namespace veltools

using namespace veltools;

extern "C" int velt_type_parse(const char *name, velt_type_t *type) {
    if (name == nullptr || type == nullptr)
        return VELT_E_ARG;
    for (const Family &fam : kFamilies) {
        if (fam.size != 0 && std::strcmp(name, fam.name) == 0) {
            *type = {fam.elem_type, fam.size};
            return VELT_OK;
        }
    }
    // char(N) or charN, N decimal in 1..4096 without sign or blanks.
    if (std::strncmp(name, "char", 4) != 0)
        return VELT_E_ARG;
    const char *p = name + 4;
    size_t len = std::strlen(p);
    bool paren = len > 0 && p[0] == '(';
    if (paren) {
        if (len < 3 || p[len - 1] != ')')
            return VELT_E_ARG;
        p++;
        len -= 2;
    }
    unsigned n = 0;
    auto r = std::from_chars(p, p + len, n, 10);
    if (len == 0 || r.ec != std::errc() || r.ptr != p + len || n < 1 || n > 4096)
        return VELT_E_ARG;
    *type = {VEL_DD_CHAR, static_cast<uint16_t>(n)};
    return VELT_OK;
}

extern "C" void velt_type_name(velt_type_t type, char *buf, size_t size) {
    const Family *fam = family_of(type);
    if (fam == nullptr)
        std::snprintf(buf, size, "?");
    else if (fam->size == 0)
        std::snprintf(buf, size, "char(%u)", static_cast<unsigned>(type.elem_size));
    else
        std::snprintf(buf, size, "%s", fam->name);
}

extern "C" uint8_t velt_sequence_code(velt_type_t type) {
    const Family *fam = family_of(type);
    return fam == nullptr ? 0 : fam->seq_type;
}
