#include "family_ops.h"

#include <cmath>
#include <cstring>
#include <stdexcept>
#include <type_traits>

namespace vstest {

namespace {

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

int compare_bytes(const void *a, const void *b, size_t size) {
    int c = std::memcmp(a, b, size);
    return c < 0 ? -1 : c > 0 ? 1 : 0;
}

constexpr uint8_t seq_code(uint8_t elem_code) {
    switch (elem_code) {
    case VEL_DD_UINT1:
        return VEL_DD_SEQUENCE_UINT1;
    case VEL_DD_UINT2:
        return VEL_DD_SEQUENCE_UINT2;
    case VEL_DD_UINT4:
        return VEL_DD_SEQUENCE_UINT4;
    case VEL_DD_UINT8:
        return VEL_DD_SEQUENCE_UINT8;
    case VEL_DD_INT1:
        return VEL_DD_SEQUENCE_INT1;
    case VEL_DD_INT2:
        return VEL_DD_SEQUENCE_INT2;
    case VEL_DD_INT4:
        return VEL_DD_SEQUENCE_INT4;
    case VEL_DD_INT8:
        return VEL_DD_SEQUENCE_INT8;
    case VEL_DD_FLOAT:
        return VEL_DD_SEQUENCE_FLOAT;
    case VEL_DD_DOUBLE:
        return VEL_DD_SEQUENCE_DOUBLE;
    case VEL_DD_DATETIME:
        return VEL_DD_SEQUENCE_DATETIME;
    default:
        return VEL_DD_SEQUENCE_CHAR;
    }
}

std::vector<FamilyOps> build() {
    std::vector<FamilyOps> out;
#define X(S, T, CODE)                                                                              \
    out.push_back(FamilyOps{                                                                       \
        #S, seq_code(CODE), CODE, sizeof(T), false, std::is_floating_point_v<T>,                   \
        std::is_signed_v<T> && !std::is_floating_point_v<T>,                                       \
        [](vel_objhandle_h o, const FieldRef &f, const void *v, vel_size_t n, vel_seq_order_t ord, \
           const vel_bitmap_word_t *nb) {                                                          \
            return vel_w_seq_append_##S(o, f.u_offset, f.c_offset, f.fld_no,                       \
                                        static_cast<const T *>(v), n, ord, nb);                    \
        },                                                                                         \
        [](vel_objhandle_h o, const FieldRef &f, vel_seq_no_t pos, const void *v, vel_size_t n,    \
           vel_seq_order_t ord, const vel_bitmap_word_t *nb) {                                     \
            return vel_w_seq_insert_##S(o, f.u_offset, f.c_offset, f.fld_no, pos,                  \
                                        static_cast<const T *>(v), n, ord, nb);                    \
        },                                                                                         \
        [](vel_objhandle_h o, const FieldRef &f, vel_seq_no_t from, vel_seq_no_t till,             \
           vel_seq_order_t ord) {                                                                  \
            return vel_w_seq_delete_##S(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord);     \
        },                                                                                         \
        [](vel_objhandle_h o, const FieldRef &f, void *v) {                                        \
            return vel_w_seq_first_##S(o, f.u_offset, f.c_offset, static_cast<T *>(v));            \
        },                                                                                         \
        [](vel_objhandle_h o, const FieldRef &f, void *v) {                                        \
            return vel_w_seq_last_##S(o, f.u_offset, f.c_offset, static_cast<T *>(v));             \
        },                                                                                         \
        compare_scalar<T>});
#include "elem/elem_types.def"
#undef X
    for (size_t width : {3, 16, 32}) {
        out.push_back(FamilyOps{
            "char" + std::to_string(width), VEL_DD_SEQUENCE_CHAR, VEL_DD_CHAR, width, true, false,
            false,
            [](vel_objhandle_h o, const FieldRef &f, const void *v, vel_size_t n,
               vel_seq_order_t ord, const vel_bitmap_word_t *nb) {
                return vel_w_seq_append_char(o, f.u_offset, f.c_offset, f.fld_no,
                                             static_cast<const char *>(v), n, ord, f.elem_size, nb);
            },
            [](vel_objhandle_h o, const FieldRef &f, vel_seq_no_t pos, const void *v, vel_size_t n,
               vel_seq_order_t ord, const vel_bitmap_word_t *nb) {
                return vel_w_seq_insert_char(o, f.u_offset, f.c_offset, f.fld_no, pos,
                                             static_cast<const char *>(v), n, ord, f.elem_size, nb);
            },
            [](vel_objhandle_h o, const FieldRef &f, vel_seq_no_t from, vel_seq_no_t till,
               vel_seq_order_t ord) {
                return vel_w_seq_delete_char(o, f.u_offset, f.c_offset, f.fld_no, from, till, ord,
                                             f.elem_size);
            },
            [](vel_objhandle_h o, const FieldRef &f, void *v) {
                return vel_w_seq_first_char(o, f.u_offset, f.c_offset, static_cast<char *>(v),
                                            f.elem_size);
            },
            [](vel_objhandle_h o, const FieldRef &f, void *v) {
                return vel_w_seq_last_char(o, f.u_offset, f.c_offset, static_cast<char *>(v),
                                           f.elem_size);
            },
            compare_bytes});
    }
    return out;
}

} // namespace

const std::vector<FamilyOps> &all_families() {
    static const std::vector<FamilyOps> families = build();
    return families;
}

const FamilyOps &family(const std::string &name) {
    for (const FamilyOps &f : all_families())
        if (f.name == name)
            return f;
    throw std::invalid_argument("no element family " + name);
}

} // namespace vstest
