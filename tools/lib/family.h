// One table entry per element family: its name, codes and how a value is
// written, so that the tree walks handle every family with one code path.
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
    // Appends the text of a value (characters: bytes up to the last non-NUL).
    void (*format)(const void *value, size_t width, std::string &out);
};

// The family of an element type, or nullptr (also for a char of width 0).
const Family *family_of(velt_type_t type);

void set_error(velt_error_t *err, int code, uint64_t index, const char *fmt, ...)
    __attribute__((format(printf, 4, 5)));

} // namespace veltools
