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
// first, last, argmin, argmax, rows); aggregate() and resample() take kernel
// names, and every front end uses these names for the same answers.
//
// Failures throw velseq::error.
#ifndef VELSEQ_TABLE_HPP
#define VELSEQ_TABLE_HPP

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "velembed.h"
#include "velseq/arrow.h"

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

// Borrowed buffers laid out as array's, for callers that own their memory
// (NumPy arrays, the C++ API's results): read-only input, and output that
// the layer fills whole (validity holds (length + 7) / 8 bytes and is always
// written).
struct const_buffer {
    column_type type;
    uint64_t length = 0;
    const void *values = nullptr;
    const uint8_t *validity = nullptr; // nullptr: every value present
};
struct buffer {
    column_type type;
    uint64_t length = 0;
    void *values = nullptr;
    uint8_t *validity = nullptr;
};
inline const_buffer view(const array &a) {
    return {a.type, a.length, a.values.data(), a.validity.empty() ? nullptr : a.validity.data()};
}

// A sequence field of an open object, as its transaction sees it.
struct column {
    vel_objhandle_t obj;
    velh_field_info_t field;
    column_type type;
};

// ---- catalogue --------------------------------------------------------------

// A field of a table: a sequence column, or (scalar) one value per object
// of the same element type (char(N) scalars take N up to 4096).
struct column_def {
    std::string name;
    column_type type;
    vel_seq_order_t order = VEL_SEQ_NO_ORDER; // sequences only: the order kept
    bool scalar = false;
};

// A named class as the host's catalogue describes it; field i is
// columns[i].
struct table_info {
    uint16_t code = 0;
    std::string name;
    std::vector<column_def> columns;
    // The index of the field named `name`; VEL_E_HOST_NO_FIELD if none.
    uint16_t field(std::string_view name) const;
};

// Every named class of the database, in definition order.  A class with a
// field of a type this layer does not know is refused (VEL_E_ILLEGAL_TYPE).
std::vector<table_info> tables(velh_db_t *db);
std::optional<table_info> find_table(velh_db_t *db, std::string_view name);
// Defines a class; refused (nothing defined) for an empty or duplicate name,
// names longer than VELH_MAX_NAME bytes, orders on scalars and bad types.
table_info define_table(velh_db_t *db, const std::string &name,
                        const std::vector<column_def> &columns);
// Sequence field `fld_no` of an object of table `t`.
column column_of(const vel_objhandle_t &obj, velh_db_t *db, const table_info &t, uint16_t fld_no);

// ---- reading and writing -------------------------------------------------------

// Values at positions [first, last).
array read(const column &c, uint64_t first, uint64_t last);

// A run of a column's values in place, in one leaf page of its tree.
struct leaf_run {
    uint64_t first = 0;  // the position of values[0] in the column
    uint64_t length = 0; // values in the run
    const void *values = nullptr;
    // The leaf's null mask, bit set where a value is null, values[0] at bit
    // null_bit; nullptr when no value of the run is null.
    const uint64_t *nulls = nullptr;
    uint64_t null_bit = 0;
};
// Calls f for the runs of positions [first, last) in order, without copying
// a value; f returns false to stop.  The runs stay valid while the column's
// transaction is open and makes no update to this field (the pages of a
// snapshot never change).  A tree that breaks the page layout's invariants
// traps (vel_stop__), as the module's own reads do, before f sees its leaf.
void visit_leaves(const column &c, uint64_t first, uint64_t last,
                  const std::function<bool(const leaf_run &)> &f);

// Appends `values` (of the column's type).  On an ordered column the values
// must be present, not NaN, and keep the order, also against the last value
// stored; all of it is checked before anything is written, so a refused
// append changes nothing.
void append(const column &c, const array &values);

// The number of values.
uint64_t count(const column &c);

// Inserts `values` before position `pos` (pos = count appends), with the
// checks of append against both neighbours; erases positions [first, last);
// empties the column.  Inserts and erases keep the field compact through
// `state`, the transaction's keep-compact state of this field of this
// object (velh_keep_compact; zeroed before its first use, which first
// compacts a field that C callers may have left at the depth limit).
void insert(const column &c, uint64_t pos, const array &values, velh_compact_state_t &state);
void erase(const column &c, uint64_t first, uint64_t last, velh_compact_state_t &state);
void truncate(const column &c);

// A scalar field of an object (zero until set): its value as a one-value
// array of the field's type, and setting it.
array get_scalar(const vel_objhandle_t &obj, const table_info &t, uint16_t fld_no);
void set_scalar(const vel_objhandle_t &obj, const table_info &t, uint16_t fld_no,
                const array &value);

enum class bound {
    open = VEL_SEQ_BOUNDARY_OPEN,
    inclusive = VEL_SEQ_BOUNDARY_INCLUSIVE,
    exclusive = VEL_SEQ_BOUNDARY_EXCLUSIVE
};
// The positions [first, last) of the values between bounds[0] and
// bounds[1] (a two-value array of the column's type; an open bound's value
// is not read) of an ordered column.  NaN bounds and bounds given reversed
// are refused.
std::pair<uint64_t, uint64_t> search(const column &c, const array &bounds, bound lo_kind,
                                     bound hi_kind);

// Values at the given positions (a uint8 array; a null position gives a
// null).  Positions past the end are refused, before anything is written.
array gather(const column &c, const array &positions);
// The same for several columns of one length at once, into out[i] (of
// cols[i]'s type and the positions' length): the positions checked once,
// each column's leaves visited once, in order, when the positions ascend.
void gather(const column *cols, const buffer *out, size_t ncols, const const_buffer &positions);

enum class direction {
    backward, // the last key at or before the probe
    forward,  // the first key at or after the probe
    nearest   // the closer of the two; on a tie the backward one
};
struct asof_options {
    direction dir = direction::backward;
    bool strict = false; // a key equal to the probe does not match
    // Matches farther than this are null: nanoseconds for datetime keys, a
    // difference of values otherwise; not for char keys.
    std::optional<long double> tolerance;
};
// For each probe (an array of the key column's type), the position of its
// match in the ascending column `keys`, as a uint8 array; null where there
// is none, for a null probe and for a NaN probe.
array asof(const column &keys, const array &probes, const asof_options &opt = {});
// The same into caller-owned buffers: positions[i] is the match of probe i,
// ~0 where there is none, and validity bit i is set where there is one.
void asof(const column &keys, const const_buffer &probes, const asof_options &opt,
          uint64_t *positions, uint8_t *validity);
// asof() and then gather() of several columns at its positions, sharing the
// order in which probes that do not ascend were answered.
void asof_join(const column &keys, const const_buffer &probes, const asof_options &opt,
               uint64_t *positions, uint8_t *validity, const column *cols, const buffer *out,
               size_t ncols);
// One group of an as-of join by groups: the ascending key column of one
// object and its columns to gather.
struct asof_group {
    column keys;
    std::vector<column> cols;
};
// asof_join() within groups: probe i is matched in groups[group_of[i]]
// (its positions count in that group's columns); a probe whose group_of is
// kNoGroup matches nothing.  Every group gathers ncols columns of out's
// types.
constexpr uint32_t kNoGroup = ~uint32_t(0);
void asof_join_by(const std::vector<asof_group> &groups, const uint32_t *group_of,
                  const const_buffer &probes, const asof_options &opt, uint64_t *positions,
                  uint8_t *validity, const buffer *out, size_t ncols);

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

// ---- Arrow and Parquet ------------------------------------------------------
// The C functions of velseq/arrow.h, throwing instead of returning codes.

void export_arrow(velh_db_t *db, const velt_export_t &opts, ArrowArrayStream *out);
// Releases `in`; returns the rows imported.
uint64_t import_arrow(velh_db_t *db, const velt_import_t &opts, ArrowArrayStream *in);
void to_parquet(velh_db_t *db, const velt_export_t &opts, const std::string &dir,
                unsigned partition);
uint64_t from_parquet(velh_db_t *db, const velt_import_t &opts, const std::string &dir);

} // namespace velseq::table

#endif // VELSEQ_TABLE_HPP
