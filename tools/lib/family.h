// One table entry per element family: names, parsing and formatting of a
// value, its ordering, and the module's typed operations behind untyped
// pointers, so that the tools handle every family with one code path.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "veltools.h"

namespace veltools {

struct Family {
    const char *name; // "int4"; "char" for the character family
    uint8_t elem_type;
    uint8_t seq_type;
    uint16_t size; // 0 for char: the width comes with the velt_type_t

    // Parses trimmed text; false if it is not a value.
    bool (*parse)(const char *text, size_t len, size_t width, void *value);
    // Appends the text of a value (characters: bytes up to the last non-NUL).
    void (*format)(const void *value, size_t width, std::string &out);
    // -1, 0, 1 by the module's ordering, 2 when unordered (a NaN).
    int (*compare)(const void *a, const void *b, size_t width);

    VEL_RET(*append)
    (vel_objhandle_h obj, const velt_field_t &f, const void *vals, uint64_t n,
     const vel_bitmap_word_t *nulls);
    VEL_RET (*last)(vel_objhandle_h obj, const velt_field_t &f, void *val);
    VEL_RET(*subseq)
    (vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it, uint64_t from,
     uint64_t till);
    VEL_RET(*search)
    (vel_objhandle_h obj, const velt_field_t &f, vel_seq_iterator_h it, const void *low,
     const void *high);
};

// The family of an element type, or nullptr (also for a char of width 0).
const Family *family_of(velt_type_t type);

void set_error(velt_error_t *err, int code, uint64_t line, uint64_t index, const char *fmt, ...)
    __attribute__((format(printf, 5, 6)));

} // namespace veltools
