#include "harness/families.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <type_traits>

namespace velrel {
namespace {

template <class T> T ld(const void *p) {
    T v;
    std::memcpy(&v, p, sizeof v);
    return v;
}

template <class T> bool lt_t(const void *a, const void *b, size_t) { return ld<T>(a) < ld<T>(b); }
template <class T> bool le_t(const void *a, const void *b, size_t) { return ld<T>(a) <= ld<T>(b); }
bool lt_c(const void *a, const void *b, size_t w) { return std::memcmp(a, b, w) < 0; }
bool le_c(const void *a, const void *b, size_t w) { return std::memcmp(a, b, w) <= 0; }

// One adapter struct per suffix: each forwards to that suffix's own exported
// wrapper, so every family exercises its own functions.  V reads a search
// bound; WP declares the width parameter and W passes it on (the char
// wrappers' own argument; empty for the scalars).
#define OPS(S, T, V, WP, W)                                                                        \
    struct Ops_##S {                                                                               \
        static VEL_RET append(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,       \
                              const void *v, vel_size_t n, vel_seq_order_t ord,                    \
                              const vel_bitmap_word_t *nb, WP) {                                   \
            return vel_w_seq_append_##S(o, u, c, f, static_cast<const T *>(v), n, ord W, nb);      \
        }                                                                                          \
        static VEL_RET insert(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,       \
                              vel_seq_no_t pos, const void *v, vel_size_t n, vel_seq_order_t ord,  \
                              const vel_bitmap_word_t *nb, WP) {                                   \
            return vel_w_seq_insert_##S(o, u, c, f, pos, static_cast<const T *>(v), n, ord W, nb); \
        }                                                                                          \
        static VEL_RET del(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,          \
                           vel_seq_no_t a, vel_seq_no_t b, vel_seq_order_t ord, WP) {              \
            return vel_w_seq_delete_##S(o, u, c, f, a, b, ord W);                                  \
        }                                                                                          \
        static VEL_RET first(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, void *v, WP) {     \
            return vel_w_seq_first_##S(o, u, c, static_cast<T *>(v) W);                            \
        }                                                                                          \
        static VEL_RET last(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, void *v, WP) {      \
            return vel_w_seq_last_##S(o, u, c, static_cast<T *>(v) W);                             \
        }                                                                                          \
        static VEL_RET subseq(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                   \
                              vel_seq_iterator_h it, vel_seq_no_t a, vel_seq_no_t b, WP) {         \
            return vel_w_seq_subseq_##S(o, u, c, it, a, b W);                                      \
        }                                                                                          \
        static VEL_RET search(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                   \
                              vel_seq_iterator_h it, const void *lo, vel_seq_boundary_kind_t lk,   \
                              const void *hi, vel_seq_boundary_kind_t hk, vel_seq_order_t ord,     \
                              WP) {                                                                \
            return vel_w_seq_search_##S(o, u, c, it, V(lo), lk, V(hi), hk, ord W);                 \
        }                                                                                          \
        static VEL_RET store(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c, uint16_t f,        \
                             vel_seq_iterator_h src, vel_seq_order_t ord, WP) {                    \
            return vel_w_seq_store_##S(o, u, c, f, src, ord W);                                    \
        }                                                                                          \
        static VEL_RET map(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                      \
                           vel_seq_iterator_h it, vel_seq_iterator_h pos, WP) {                    \
            return vel_w_seq_map_##S(o, u, c, it, pos W);                                          \
        }                                                                                          \
        static VEL_RET project(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                  \
                               vel_seq_iterator_h d, vel_seq_iterator_h s, WP) {                   \
            return vel_w_seq_project_##S(o, u, c, d, s W);                                         \
        }                                                                                          \
        static VEL_RET join(vel_objhandle_h o, vel_offs32_t u, vel_offs32_t c,                     \
                            vel_seq_iterator_h r, vel_seq_iterator_h jw, vel_seq_order_t ord) {    \
            return vel_w_seq_join_##S(o, u, c, r, jw, ord);                                        \
        }                                                                                          \
    };
#define X(S, T, CODE) OPS(S, T, ld<T>, size_t, )
#include "elem/elem_types.def"
#undef X
#define CHAR_WIDTH_ARG , w
OPS(char, char, static_cast<const char *>, size_t w, CHAR_WIDTH_ARG)
#undef CHAR_WIDTH_ARG
#undef OPS

template <class Ops>
Family make(const char *name, uint8_t elem_type, uint8_t seq_code, size_t width, bool is_float,
            decltype(Family::lt) lt, decltype(Family::le) le) {
    return {name,       elem_type,  seq_code,     width,       std::is_same_v<Ops, Ops_char>,
            is_float,   lt,         le,           Ops::append, Ops::insert,
            Ops::del,   Ops::first, Ops::last,    Ops::subseq, Ops::search,
            Ops::store, Ops::map,   Ops::project, Ops::join};
}

} // namespace

const std::vector<Family> &scalar_families() {
#define X(S, T, DD)                                                                                \
    make<Ops_##S>(#S, VEL_DD_##DD, VEL_DD_SEQUENCE_##DD, sizeof(T), std::is_floating_point_v<T>,   \
                  lt_t<T>, le_t<T>),
    static const std::vector<Family> v = {VEL_SEQ_SCALAR_TYPES(X)};
#undef X
    return v;
}

Family char_family(size_t width) {
    return make<Ops_char>("char", VEL_DD_CHAR, VEL_DD_SEQUENCE_CHAR, width, false, lt_c, le_c);
}

Family family_of(uint8_t type_code, size_t width) {
    if (type_code == VEL_DD_CHAR || type_code == VEL_DD_SEQUENCE_CHAR)
        return char_family(width);
    for (const Family &f : scalar_families())
        if (f.elem_type == type_code || f.seq_code == type_code)
            return f;
    std::fprintf(stderr, "family_of: no family for type code %d\n", type_code);
    std::abort();
}

const std::vector<Family> &all_families() {
    static const std::vector<Family> v = [] {
        std::vector<Family> all = scalar_families();
        all.push_back(char_family(5));
        return all;
    }();
    return v;
}

std::string show(const Family &f, const void *elem) {
    char buf[128];
    const auto *p = static_cast<const unsigned char *>(elem);
    if (f.is_char) {
        std::string s = "'";
        for (size_t i = 0; i < f.width; ++i) {
            std::snprintf(buf, sizeof buf, "\\x%02x", p[i]);
            s += buf;
        }
        return s + "'";
    }
    if (f.is_float) {
        std::snprintf(buf, sizeof buf, "%g", f.width == 4 ? ld<float>(p) : ld<double>(p));
        return buf;
    }
    switch (f.elem_type) {
#define X(S, T, DD)                                                                                \
    case VEL_DD_##DD:                                                                              \
        return std::to_string(ld<T>(p));
        VEL_SEQ_SCALAR_TYPES(X)
#undef X
    }
    return "?";
}

} // namespace velrel
