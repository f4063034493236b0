// Element types by code and by name, from the one list of velseq.h.
#include <charconv>

#include "dispatch.h"

namespace velseq::table {

namespace {
struct named {
    const char *name;
    uint8_t code;
    uint16_t width;
};
#define VELSEQ_NAMED_(S, T, DD) {#S, VEL_DD_SEQUENCE_##DD, sizeof(T)},
constexpr named kScalars[] = {VEL_SEQ_SCALAR_TYPES(VELSEQ_NAMED_)};
#undef VELSEQ_NAMED_

bool char_width_ok(size_t w) { return w >= 1 && w <= VELH_MAX_SEQ_CHAR_WIDTH; }
} // namespace

std::optional<column_type> type_of(const velh_field_info_t &field) {
    if (field.type == VEL_DD_SEQUENCE_CHAR)
        return char_width_ok(field.elem_size)
                   ? std::optional<column_type>({field.type, field.elem_size})
                   : std::nullopt;
    for (const named &s : kScalars)
        if (s.code == field.type)
            return column_type{s.code, s.width};
    return std::nullopt;
}

std::string type_name(column_type t) {
    if (t.code == VEL_DD_SEQUENCE_CHAR)
        return "char(" + std::to_string(t.width) + ")";
    for (const named &s : kScalars)
        if (s.code == t.code)
            return s.name;
    return "type " + std::to_string(t.code);
}

std::optional<column_type> type_by_name(std::string_view name) {
    for (const named &s : kScalars)
        if (name == s.name)
            return column_type{s.code, s.width};
    if (name.size() > 6 && name.substr(0, 5) == "char(" && name.back() == ')') {
        size_t w = 0;
        const char *b = name.data() + 5, *e = name.data() + name.size() - 1;
        const auto r = std::from_chars(b, e, w);
        if (r.ec == std::errc() && r.ptr == e && char_width_ok(w))
            return column_type{VEL_DD_SEQUENCE_CHAR, static_cast<uint16_t>(w)};
    }
    return std::nullopt;
}

} // namespace velseq::table
