// The scalar element families as test types: the value type, how a test
// integer maps to a value (order-preserving), and the family's exported
// operations.
#pragma once

#include <cstdint>
#include <cstring>

#include "velhost.h"

namespace itest {

// Field slots of the test class: one sequence field per family, in this order.
enum FamilyIndex {
    F_INT1,
    F_INT2,
    F_INT4,
    F_INT8,
    F_UINT1,
    F_UINT2,
    F_UINT4,
    F_UINT8,
    F_FLOAT,
    F_DOUBLE,
    F_DATETIME,
    F_CHAR8,
    F_COUNT
};

#define ITEST_SCALAR_FAMILY(S, TT, CODE, IDX, MAKE)                                                \
    struct Fam_##S {                                                                               \
        using T = TT;                                                                              \
        static constexpr const char *name = #S;                                                    \
        static constexpr int index = IDX;                                                          \
        static constexpr uint8_t code = CODE;                                                      \
        static constexpr uint16_t size = sizeof(TT);                                               \
        static constexpr bool is_char = false;                                                     \
        static T make(int64_t v) { return static_cast<T>(MAKE); }                                  \
        static bool lt(const T &a, const T &b) { return a < b; }                                   \
        static bool eq(const T &a, const T &b) { return a == b; }                                  \
        static const T *tile(vel_seq_iterator_h it) {                                              \
            return reinterpret_cast<const T *>(it->tile.u.arr_char);                               \
        }                                                                                          \
        static VEL_RET append(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,       \
                              const T *v, vel_size_t n, vel_seq_order_t ord,                       \
                              const vel_bitmap_word_t *nulls) {                                    \
            return vel_w_seq_append_##S(o, u, c, f, v, n, ord, nulls);                             \
        }                                                                                          \
        static VEL_RET subseq(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                   \
                              vel_seq_iterator_h it, vel_seq_no_t from, vel_seq_no_t till) {       \
            return vel_w_seq_subseq_##S(o, u, c, it, from, till);                                  \
        }                                                                                          \
        static VEL_RET search(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                   \
                              vel_seq_iterator_h it, const T &lo, vel_seq_boundary_kind_t lk,      \
                              const T &hi, vel_seq_boundary_kind_t hk, vel_seq_order_t ord) {      \
            return vel_w_seq_search_##S(o, u, c, it, lo, lk, hi, hk, ord);                         \
        }                                                                                          \
        static VEL_RET store(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,        \
                             vel_seq_iterator_h src, vel_seq_order_t ord) {                        \
            return vel_w_seq_store_##S(o, u, c, f, src, ord);                                      \
        }                                                                                          \
        static VEL_RET map(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                      \
                           vel_seq_iterator_h it, vel_seq_iterator_h pos) {                        \
            return vel_w_seq_map_##S(o, u, c, it, pos);                                            \
        }                                                                                          \
        static VEL_RET project(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                  \
                               vel_seq_iterator_h dst, vel_seq_iterator_h src) {                   \
            return vel_w_seq_project_##S(o, u, c, dst, src);                                       \
        }                                                                                          \
        static VEL_RET join(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                     \
                            vel_seq_iterator_h res, vel_seq_iterator_h with,                       \
                            vel_seq_order_t ord) {                                                 \
            return vel_w_seq_join_##S(o, u, c, res, with, ord);                                    \
        }                                                                                          \
        static VEL_RET from_cursor(vel_trans_h t, vel_offs32_t u, vel_offs32_t c, uint16_t cls,    \
                                   vel_seq_iterator_h it, vel_cursor_h cur) {                      \
            return vel_w_seq_from_cursor_##S(t, u, c, cls, it, cur);                               \
        }                                                                                          \
    };

ITEST_SCALAR_FAMILY(int1, vel_int1, VEL_DD_INT1, F_INT1, v)
ITEST_SCALAR_FAMILY(int2, vel_int2, VEL_DD_INT2, F_INT2, v * 3)
ITEST_SCALAR_FAMILY(int4, vel_int4, VEL_DD_INT4, F_INT4, v * 1000)
ITEST_SCALAR_FAMILY(int8, vel_int8, VEL_DD_INT8, F_INT8, v *(int64_t{1} << 40))
ITEST_SCALAR_FAMILY(uint1, vel_uint1, VEL_DD_UINT1, F_UINT1, v + 120)
ITEST_SCALAR_FAMILY(uint2, vel_uint2, VEL_DD_UINT2, F_UINT2, (v + 120) * 300)
ITEST_SCALAR_FAMILY(uint4, vel_uint4, VEL_DD_UINT4, F_UINT4, (v + 120) * 20000000)
ITEST_SCALAR_FAMILY(uint8, vel_uint8, VEL_DD_UINT8, F_UINT8, (v + 120) * (int64_t{1} << 52))
ITEST_SCALAR_FAMILY(float, vel_float, VEL_DD_FLOAT, F_FLOAT, v * 0.25)
ITEST_SCALAR_FAMILY(double, vel_double, VEL_DD_DOUBLE, F_DOUBLE, v * 0.125)
// The top bit set orders above everything without it (unsigned).
ITEST_SCALAR_FAMILY(datetime, vel_datetime, VEL_DD_DATETIME, F_DATETIME,
                    static_cast<uint64_t>(v + 120) << 56)
#undef ITEST_SCALAR_FAMILY

} // namespace itest
