// velt_column_t: values, null bits and source lines grow together; the null
// bitmap always covers `capacity` values so that a push never reallocates it
// separately.
#include <cstdlib>
#include <cstring>

#include "family.h"

extern "C" void velt_column_init(velt_column_t *col, velt_type_t type) {
    std::memset(col, 0, sizeof *col);
    col->type = type;
}

extern "C" void velt_column_free(velt_column_t *col) {
    std::free(col->values);
    std::free(col->nulls);
    std::free(col->lines);
    velt_column_init(col, col->type);
}

extern "C" int velt_column_is_null(const velt_column_t *col, uint64_t i) {
    return static_cast<int>((col->nulls[i / 64] >> (i % 64)) & 1);
}

namespace veltools {

// Makes room for one more value.  The lines array appears with the first
// value that has a line and then follows the capacity.
int column_reserve(velt_column_t *col, bool with_line) {
    if (col->n == col->capacity) {
        const uint64_t cap = col->capacity == 0 ? 64 : col->capacity * 2;
        auto *values = static_cast<uint8_t *>(std::realloc(col->values, cap * col->type.elem_size));
        if (values == nullptr)
            return VELT_E_NOMEM;
        col->values = values;
        auto *nulls = static_cast<vel_bitmap_word_t *>(
            std::realloc(col->nulls, cap / 64 * sizeof(vel_bitmap_word_t)));
        if (nulls == nullptr)
            return VELT_E_NOMEM;
        // New words start clear; the capacity stays a multiple of 64.
        std::memset(nulls + col->capacity / 64, 0, (cap - col->capacity) / 64 * sizeof *nulls);
        col->nulls = nulls;
        if (col->lines != nullptr) {
            auto *lines = static_cast<uint64_t *>(std::realloc(col->lines, cap * sizeof(uint64_t)));
            if (lines == nullptr)
                return VELT_E_NOMEM;
            col->lines = lines;
        }
        col->capacity = cap;
    }
    if (with_line && col->lines == nullptr) {
        col->lines = static_cast<uint64_t *>(std::calloc(col->capacity, sizeof(uint64_t)));
        if (col->lines == nullptr)
            return VELT_E_NOMEM;
    }
    return VELT_OK;
}

int column_push_line(velt_column_t *col, const void *value, uint64_t line) {
    int rc = column_reserve(col, line != 0);
    if (rc != VELT_OK)
        return rc;
    const size_t w = col->type.elem_size;
    uint8_t *slot = col->values + col->n * w;
    if (value == nullptr) {
        std::memset(slot, 0, w);
        col->nulls[col->n / 64] |= vel_bitmap_word_t{1} << (col->n % 64);
    } else {
        std::memcpy(slot, value, w);
    }
    if (col->lines != nullptr)
        col->lines[col->n] = line;
    col->n++;
    return VELT_OK;
}

} // namespace veltools

extern "C" int velt_column_push(velt_column_t *col, const void *value) {
    return veltools::column_push_line(col, value, 0);
}
