// Values between NumPy and the table layer's arrays.
//
// A column type maps to one NumPy dtype, derived from the layer's own name
// of the type (table::type_name): intN and uintN are i<N> and u<N>, float and
// double f4 and f8, datetime M8[ns] (the layer keeps raw datetimes, NumPy
// nanoseconds since the epoch), char(N) S<N>.  Nulls cross as masks: NumPy's
// mask is set where a value is null, the layer's validity bit where one is
// present.  As in pandas, NaN in float input and NaT are nulls.
//
// Points in time and durations are never plain numbers: an integer would
// have to be taken as nanoseconds since 1970, which is what no caller who
// writes 20240101 means, so it is refused with a sentence on what to pass.
// Text (str) crosses into char(N) fields as UTF-8.
#pragma once

#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "velseq/table.hpp"

namespace vpy {

namespace py = pybind11;
namespace table = velseq::table;

// NumPy, held for the life of the process (a static py::object would drop
// its reference at exit, after the interpreter has gone).
py::module_ &numpy();

py::dtype dtype_of(table::column_type t);
// "int32", "datetime64[ns]", "S4": how fields() names a column's dtype.
std::string dtype_name(table::column_type t);
// The column type of a NumPy dtype (or anything np.dtype takes; either byte
// order); a scalar field takes bytes up to 4096 wide, a sequence up to
// VELH_MAX_SEQ_CHAR_WIDTH.  VEL_E_ILLEGAL_TYPE for a dtype with none, its
// sentence starting with `what` when given.
table::column_type type_of_dtype(const py::handle &dtype, bool scalar,
                                 const std::string &what = "");

// Text or bytes as an S<longest> array (str encoded as UTF-8; from an object
// array, None and NaN are nulls, set in `nulls` when given, refused
// otherwise).  VEL_E_ILLEGAL_TYPE for anything else.
py::array bytes_in(const py::handle &values, std::vector<bool> *nulls, const std::string &what);

// Values of type `t`: an array of its dtype (either byte order; datetime64
// of any unit, or of points in time as value_in takes them; bytes or text of
// any width whose values fit), a masked array, or a list whose values
// convert exactly; `mask` (True: null) when not a masked array.  NaT, and
// NaN when nan_as_null, are nulls.
table::array array_in(const py::handle &values, const py::object &mask, table::column_type t,
                      const std::string &what, bool nan_as_null = true);
// One present value of type `t` from a Python object (datetimes:
// datetime64, pandas Timestamp, datetime.datetime or date, ISO-8601 text;
// integers range-checked; text as UTF-8).  NaN and NaT are refused.
table::array value_in(const py::handle &v, table::column_type t, const std::string &what);
// Nanoseconds of a duration: pandas Timedelta, np.timedelta64 of a fixed
// unit, datetime.timedelta, or text pandas reads ("5min", "1h30m").
int64_t duration_ns(const py::handle &d, const std::string &what);

// The array a result of n values of type t is written into: `into` when
// given (a writable 1-d contiguous array of t's dtype and length n, else
// refused), a new one otherwise.
py::array out_array(table::column_type t, uint64_t n, const py::object &into,
                    const std::string &what);

// A NumPy array of type t's dtype that the table layer fills in place
// (values plus an Arrow-layout validity), then handed out as a plain array,
// or a masked one when it holds a null (null datetimes are also NaT):
// datetimes are turned from the layer's raw form into nanoseconds in place.
struct numpy_column {
    table::column_type type;
    py::array values;
    std::vector<uint8_t> validity;

    numpy_column(table::column_type t, uint64_t n);
    // Over `into`, an array of t's dtype (checked by the caller).
    numpy_column(table::column_type t, py::array into);
    table::buffer buffer() {
        return {type, static_cast<uint64_t>(values.size()), values.mutable_data(), validity.data()};
    }
    py::object finish();
};

// An array as NumPy: a plain array, or a masked one when it holds a null
// (null datetimes are also NaT).  Into `out` when given: an array of exactly
// the dtype, writable and as long.
py::object array_out(const table::array &a, const py::object &out, const std::string &what);
// Value i as a NumPy scalar, None when null.
py::object value_out(const table::array &a, uint64_t i);

} // namespace vpy
