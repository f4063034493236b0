// velseq/table.hpp -- the runtime-typed table layer (libveltable).
//
// The front ends that learn their types at run time (the velseq program,
// the Python package) stand on this layer rather than on the typed
// templates of velseq.hpp: a table is a class, a column one of its sequence
// fields, and column data crosses the layer as arrays laid out as the Arrow
// C data interface lays them out.  Type dispatch happens once, inside the
// library, from the one list of element types (VEL_SEQ_SCALAR_TYPES in
// velseq.h, and char(N)).
//
// Aggregates come from one registry of kernels (count, sum, mean, min, max,
// first, last, argmin, argmax); aggregate() and resample() take kernel
// names, and every front end uses these names for the same answers.
//
// Failures throw velseq::error.
#ifndef VELSEQ_TABLE_HPP
#define VELSEQ_TABLE_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "velembed.h"

namespace velseq::table {

// An element type: `code` is a VEL_DD_SEQUENCE_* code, `width` the bytes of
// one value (the type's size; 1..VELH_MAX_SEQ_CHAR_WIDTH for char(N)).
struct column_type {
    uint8_t code = 0;
    uint16_t width = 0;
    friend bool operator==(column_type a, column_type b) {
        return a.code == b.code && a.width == b.width;
    }
};

// The type of a sequence field's definition; nullopt for a scalar field or
// an unknown code.
std::optional<column_type> type_of(const velh_field_info_t &field);
// "int4", "double", "datetime", "char(12)".
std::string type_name(column_type t);
// The inverse of type_name; nullopt for a name that is no type.
std::optional<column_type> type_by_name(std::string_view name);

// Values of one type, Arrow-style:
//
//   values    length * width bytes, packed, in position order
//   validity  bit i (byte i / 8, bit i % 8, least significant first) set
//             when value i is present; empty when every value is present
//
// A null's value bytes are unspecified (zero as this layer writes them).
struct array {
    column_type type;
    uint64_t length = 0;
    std::vector<unsigned char> values;
    std::vector<uint8_t> validity;

    bool valid(uint64_t i) const { return validity.empty() || ((validity[i / 8] >> (i % 8)) & 1); }
    uint64_t null_count() const;
};

// A sequence field of an open object, as its transaction sees it.
struct column {
    vel_objhandle_t obj;
    velh_field_info_t field;
    column_type type;
};

// ---- aggregates ------------------------------------------------------------

struct kernel_info {
    const char *name;
    const char *answer; // one line: what it gives
};
// Every kernel, in the order the front ends list them.
const std::vector<kernel_info> &kernels();
// Whether the kernel answers for a column of type `t` (sum and mean: numbers
// only), and the type of its answer.  Both throw VEL_E_ILLEGAL_PARAM for an
// unknown kernel name.
bool applies(std::string_view kernel, column_type t);
column_type result_type(std::string_view kernel, column_type t);

// The kernels' answers over positions [first, last) of `c`: one array of
// length 1 per kernel, in the order asked.  Nulls are skipped by every
// kernel; NaN is a value: it counts, and propagates into sum and mean, but
// min, max, argmin and argmax pass over it.  A kernel with no value to
// answer from answers null (count and sum answer 0).
std::vector<array> aggregate(const column &c, uint64_t first, uint64_t last,
                             const std::vector<std::string> &kernels);

// Rows grouped into time buckets [origin + k * width, origin + (k+1) *
// width) of the ascending datetime column `ts`, within the rows whose time
// lies in [from, to) (every row without a window): `start` holds each
// non-empty bucket's start (raw datetimes), and `answers[j]` the j-th
// kernel's answer per bucket over `values` (a column of the same object and
// length).
struct buckets {
    array start;
    std::vector<array> answers;
};
buckets resample(const column &ts, const column &values, int64_t width_ns, vel_datetime origin,
                 std::optional<std::pair<vel_datetime, vel_datetime>> window,
                 const std::vector<std::string> &kernels);

} // namespace velseq::table

#endif // VELSEQ_TABLE_HPP
