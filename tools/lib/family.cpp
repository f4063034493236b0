#include "family.h"

#include "velseq/datetime.h"

#include <charconv>
#include <cstdarg>
#include <cstdio>
#include <cstring>

namespace veltools {

namespace {

template <class T> void format_scalar(const void *value, size_t, std::string &out) {
    T v;
    std::memcpy(&v, value, sizeof v);
    char buf[64];
    // Shortest text that reads back to the same value, floats included.
    auto r = std::to_chars(buf, buf + sizeof buf, v);
    out.append(buf, r.ptr);
}

// Datetimes are calendar time (velseq/datetime.h), written as ISO-8601.
void format_datetime(const void *value, size_t, std::string &out) {
    vel_datetime v;
    std::memcpy(&v, value, sizeof v);
    char buf[VEL_DT_TEXT_MAX];
    out.append(buf, vel_dt_format(v, buf, sizeof buf));
}

void format_char(const void *value, size_t width, std::string &out) {
    const char *p = static_cast<const char *>(value);
    while (width > 0 && p[width - 1] == '\0')
        width--;
    out.append(p, width);
}

// Datetimes print as calendar time, the other scalars as numbers.
template <class T, uint8_t DD> constexpr auto formatter() {
    return DD == VEL_DD_DATETIME ? format_datetime : format_scalar<T>;
}

#define VELT_FAMILY_(S, T, DD)                                                                     \
    {#S, VEL_DD_##DD, VEL_DD_SEQUENCE_##DD, sizeof(T), formatter<T, VEL_DD_##DD>()},
const Family kFamilies[] = {{"char", VEL_DD_CHAR, VEL_DD_SEQUENCE_CHAR, 0, format_char},
                            VEL_SEQ_SCALAR_TYPES(VELT_FAMILY_)};
#undef VELT_FAMILY_

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

void set_error(velt_error_t *err, int code, uint64_t index, const char *fmt, ...) {
    if (err == nullptr)
        return;
    err->code = code;
    err->index = index;
    va_list ap;
    va_start(ap, fmt);
    std::vsnprintf(err->message, sizeof err->message, fmt, ap);
    va_end(ap);
}

} // namespace veltools

using namespace veltools;

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
