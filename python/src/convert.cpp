// Values between NumPy and the table layer's arrays (see convert.h).
#include "convert.h"

#include <array>
#include <cmath>
#include <cstring>
#include <optional>
#include <vector>

#include "velseq.hpp"
#include "velseq/datetime.h"

namespace vpy {

using velseq::error;

py::module_ &numpy() {
    static auto *np = new py::module_(py::module_::import("numpy"));
    return *np;
}

namespace {

// NumPy's NaT: the smallest int64.
constexpr int64_t nat = std::numeric_limits<int64_t>::min();
const table::column_type datetime_type{VEL_DD_SEQUENCE_DATETIME, 8};

const char *const pass_time = "pass a point in time: np.datetime64('2024-01-02T09:30'), "
                              "pd.Timestamp, datetime.datetime or ISO-8601 text such as "
                              "'2024-01-02T09:30'";
const char *const pass_duration = "pass a duration: pd.Timedelta('5min'), np.timedelta64(5, "
                                  "'m'), datetime.timedelta or text such as '5min'";

std::string str(const py::handle &h) { return py::str(h); }
// The repr of h, cut short: error messages stay one line whatever was passed.
std::string shown(const py::handle &h) {
    return velseq::detail::shortened(std::string(py::repr(h)), 40);
}
std::string type_name(const py::handle &h) { return py::str(py::type::of(h).attr("__name__")); }

// What a Python exception says, without its traceback.
std::string why(const py::error_already_set &e) {
    return type_name(e.value()) + ": " + str(e.value());
}

py::module_ &datetime_module() {
    static auto *m = new py::module_(py::module_::import("datetime"));
    return *m;
}

// Python and NumPy numbers (bool included), which are neither times nor
// durations.  np.timedelta64 is a NumPy integer: callers test it first.
bool is_number(const py::handle &h) {
    static auto *number = new py::object(numpy().attr("number"));
    static auto *boolean = new py::object(numpy().attr("bool_"));
    return PyBool_Check(h.ptr()) || PyLong_Check(h.ptr()) || PyFloat_Check(h.ptr()) ||
           py::isinstance(h, *number) || py::isinstance(h, *boolean);
}

// The NumPy kind of a column type, from the layer's name of it.
char kind_of(table::column_type t) {
    const std::string n = table::type_name(t);
    if (n.rfind("int", 0) == 0)
        return 'i';
    if (n.rfind("uint", 0) == 0)
        return 'u';
    if (n == "float" || n == "double")
        return 'f';
    if (n == "datetime")
        return 'M';
    if (n.rfind("char(", 0) == 0 || t.code == VEL_DD_SEQUENCE_CHAR)
        return 'S'; // char scalars are wider than the layer's sequence names go
    throw error(VEL_E_ILLEGAL_TYPE, "no NumPy dtype for " + n);
}

// Every fixed-width type the layer knows, found by asking it about each
// field code.
const std::vector<table::column_type> &layer_types() {
    static const std::vector<table::column_type> all = [] {
        std::vector<table::column_type> v;
        for (unsigned code = 0; code <= 0xFF; code++) {
            velh_field_info_t fi{};
            fi.type = static_cast<uint8_t>(code);
            if (code == VEL_DD_SEQUENCE_CHAR)
                continue;
            if (std::optional<table::column_type> t = table::type_of(fi))
                v.push_back(*t);
        }
        return v;
    }();
    return all;
}

bool is_masked(const py::handle &h) {
    static auto *ma = new py::object(numpy().attr("ma").attr("MaskedArray"));
    return py::isinstance(h, *ma);
}

// The array in the machine's byte order: the layer copies values bytewise.
py::array native(const py::array &a) {
    if (a.dtype().attr("isnative").cast<bool>())
        return a;
    return a.attr("astype")(a.dtype().attr("newbyteorder")("="));
}

// An ndarray as it is, anything else through np.asarray (no dtype: NumPy's
// own conversions of lists cut and wrap silently).
py::array to_array(const py::handle &values, const std::string &what) {
    if (py::isinstance<py::array>(values))
        return py::reinterpret_borrow<py::array>(values);
    try {
        return numpy().attr("asarray")(values);
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, what + ": not an array (" + why(e) + ")");
    }
}

py::array one_d(const py::array &a, const std::string &what) {
    if (a.ndim() != 1)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": a 1-d array is needed, got " + std::to_string(a.ndim()) + "-d");
    if (!(a.flags() & py::array::c_style))
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": the array is not contiguous (pass np.ascontiguousarray(a))");
    return a;
}

// A 1-d C-contiguous array of exactly `want`: an ndarray of that dtype (in
// either byte order), or a list whose values `want` holds exactly (floats
// take any number, rounded as floats are).  Bad ones raise.
py::array as_input(const py::handle &values, const py::dtype &want, const std::string &what) {
    const bool listed = !py::isinstance<py::array>(values);
    py::array a = to_array(values, what);
    if (a.dtype().kind() == want.kind() && a.dtype().itemsize() == want.itemsize())
        a = native(a);
    const char k = a.dtype().kind();
    if (listed && !a.dtype().equal(want) && (k == 'i' || k == 'u' || k == 'f')) {
        py::array cast = a.attr("astype")(want);
        if (want.kind() != 'f') {
            py::array bad = numpy().attr("not_equal")(cast.attr("astype")(a.dtype()), a);
            if (bad.attr("any")().cast<bool>())
                throw error(VEL_E_ILLEGAL_PARAM,
                            what + ": value " + str(numpy().attr("argmax")(bad)) + " (" +
                                shown(a.attr("__getitem__")(numpy().attr("argmax")(bad))) +
                                ") is not a " + str(want) + " value");
        }
        a = cast;
    }
    if (!a.dtype().equal(want))
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": the field holds " + str(want) + ", the array is " + str(a.dtype()));
    return one_d(a, what);
}

// Nanoseconds per unit of a datetime64 or timedelta64 dtype; 0 for units
// that are not a fixed length (years, months) and for no unit at all
// ("generic", which is set in `generic`), -N for 1/N ns.
int64_t ns_per_unit(const py::dtype &dt, int64_t &count, bool *generic = nullptr) {
    py::tuple info = numpy().attr("datetime_data")(dt);
    const std::string unit = py::str(info[0]);
    count = info[1].cast<int64_t>();
    if (generic)
        *generic = unit == "generic";
    static const std::pair<const char *, int64_t> units[] = {{"W", 604800'000'000'000},
                                                             {"D", 86400'000'000'000},
                                                             {"h", 3600'000'000'000},
                                                             {"m", 60'000'000'000},
                                                             {"s", 1'000'000'000},
                                                             {"ms", 1'000'000},
                                                             {"us", 1'000},
                                                             {"ns", 1},
                                                             {"ps", -1'000},
                                                             {"fs", -1'000'000},
                                                             {"as", -1'000'000'000}};
    for (const auto &[u, k] : units)
        if (unit == u)
            return k;
    return 0;
}

// `n` of a unit of k ns (see ns_per_unit) as nanoseconds; false when they
// overflow or hold a fraction of a nanosecond.
bool scale_ns(int64_t n, int64_t count, int64_t k, int64_t &ns) {
    int64_t unit = 0; // a multiplied unit ([100000W]) may itself overflow
    if (k > 0)
        return !__builtin_mul_overflow(count, k, &unit) && !__builtin_mul_overflow(n, unit, &ns);
    int64_t units = 0;
    if (__builtin_mul_overflow(n, count, &units) || units % -k != 0)
        return false;
    ns = units / -k;
    return true;
}

// datetime64 values of any unit (native order) as the layer's raw datetimes
// into `out` (whose length is set); NaT is a null.
void put_datetimes(py::array a, table::array &out, const std::string &what) {
    int64_t count = 1;
    bool generic = false;
    int64_t k = ns_per_unit(a.dtype(), count, &generic);
    if (generic)
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": datetime64 without a unit holds plain numbers; " + pass_time);
    if (k == 0) { // years or months: through days, which NumPy converts exactly
        a = a.attr("astype")("datetime64[D]");
        k = ns_per_unit(a.dtype(), count);
    }
    const int64_t *src = static_cast<const int64_t *>(a.data());
    std::optional<uint64_t> bad;
    {
        py::gil_scoped_release nogil;
        for (uint64_t i = 0; i < out.length && !bad; i++) {
            int64_t ns = 0;
            if (src[i] == nat) {
                if (out.validity.empty())
                    out.validity.assign((out.length + 7) / 8, 0xFF);
                out.validity[i / 8] = static_cast<uint8_t>(out.validity[i / 8] & ~(1u << (i % 8)));
            } else if (!scale_ns(src[i], count, k, ns)) {
                bad = i;
            }
            const vel_datetime raw = vel_dt_from_ns(ns);
            std::memcpy(out.values.data() + i * 8, &raw, 8);
        }
    }
    if (bad)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": value " + std::to_string(*bad) + " (" +
                        shown(a.attr("__getitem__")(static_cast<py::ssize_t>(*bad))) + ")" +
                        (k > 0 ? " lies outside 1677-09-21..2262-04-11"
                               : " has a fraction of a nanosecond"));
}

// Nanoseconds since 1970 of one point in time (see value_in); nullopt for
// None and NaT (and NaN, pandas' missing value in object arrays).
std::optional<int64_t> time_ns(const py::handle &v, const std::string &what) {
    if (v.is_none())
        return std::nullopt;
    if (py::isinstance(v, numpy().attr("timedelta64")))
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": " + shown(v) + " is a duration, not a point in time; " + pass_time);
    if (is_number(v)) {
        if (PyFloat_Check(v.ptr()) && std::isnan(v.cast<double>()))
            return std::nullopt;
        throw error(VEL_E_ILLEGAL_TYPE, what + ": " + shown(v) +
                                            " is a number, not a point in time (it is not taken "
                                            "as nanoseconds since 1970); " +
                                            pass_time);
    }
    py::object x = py::reinterpret_borrow<py::object>(v);
    if (py::isinstance<py::str>(x)) {
        const std::string text = x.cast<std::string>();
        vel_datetime raw = 0;
        const int rc = vel_dt_parse(text.data(), text.size(), &raw);
        if (rc != VEL_DT_OK)
            throw error(VEL_E_ILLEGAL_PARAM,
                        what + ": " + shown(x) +
                            (rc == VEL_DT_RANGE
                                 ? " lies outside 1677-09-21..2262-04-11"
                                 : " is not ISO-8601 text; " + std::string(pass_time)));
        return vel_dt_to_ns(raw);
    }
    try {
        // Aware times count in UTC, as from_pandas stores aware columns.
        if (py::hasattr(x, "tzinfo") && !x.attr("tzinfo").is_none())
            x = x.attr("astimezone")(datetime_module().attr("timezone").attr("utc"))
                    .attr("replace")(py::arg("tzinfo") = py::none());
        if (py::hasattr(x, "asm8")) // Timestamp, NaT: to the nanosecond
            x = x.attr("asm8");
        else if (py::isinstance(x, datetime_module().attr("date")))
            x = numpy().attr("datetime64")(x);
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": " + shown(v) + " is not a point in time (" + why(e) + ")");
    }
    if (!py::isinstance(x, numpy().attr("datetime64")))
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": a " + type_name(v) + " is not a point in time; " + pass_time);
    if (numpy().attr("isnat")(x).cast<bool>()) // of any unit, or none
        return std::nullopt;
    table::array one;
    one.type = datetime_type;
    one.length = 1;
    one.values.resize(8);
    put_datetimes(native(numpy().attr("array")(x).attr("reshape")(1)), one, what);
    if (!one.valid(0))
        return std::nullopt;
    vel_datetime raw;
    std::memcpy(&raw, one.values.data(), 8);
    return vel_dt_to_ns(raw);
}

// Points in time as a 1-d datetime64 array: one of any unit, or each value
// of an object or text array through time_ns.  Numbers are refused.
py::array times_in(const py::handle &values, const std::string &what) {
    py::array a = to_array(values, what);
    const char k = a.dtype().kind();
    if (k == 'M')
        return one_d(native(a), what);
    if (k != 'O' && k != 'U')
        throw error(VEL_E_ILLEGAL_TYPE, what + ": the field holds datetime64[ns], the array is " +
                                            str(a.dtype()) +
                                            " (numbers are not taken as "
                                            "nanoseconds since 1970); " +
                                            pass_time);
    one_d(a, what);
    py::array_t<int64_t> ns(a.size());
    for (py::ssize_t i = 0; i < a.size(); i++)
        ns.mutable_data()[i] =
            time_ns(a.attr("__getitem__")(i), what + " (value " + std::to_string(i) + ")")
                .value_or(nat);
    return ns.attr("view")("M8[ns]");
}

// Values with their nulls: a masked array, or values and a boolean mask.
struct input {
    py::object values;
    std::optional<py::array> mask; // when nulls were given
};
input split_masked(const py::handle &values, const py::object &mask, const std::string &what) {
    input in{py::reinterpret_borrow<py::object>(values), std::nullopt};
    py::object m = mask;
    if (is_masked(values)) {
        if (!mask.is_none())
            throw error(VEL_E_ILLEGAL_PARAM, what + ": a masked array and a mask both given");
        m = numpy().attr("ma").attr("getmaskarray")(values);
        in.values = values.attr("data");
    }
    if (!m.is_none())
        in.mask = as_input(m, py::dtype::of<bool>(), what + " (mask)");
    return in;
}

// Bytes or text for a char(N) field as S<N>: narrower ones are padded with
// zero bytes, wider ones accepted only when no value is longer than N
// (NumPy's own conversion would cut them silently).
py::array chars_input(const py::object &values, size_t width, std::vector<bool> &nulls,
                      const std::string &what) {
    py::array a = bytes_in(values, &nulls, what);
    const auto have = static_cast<size_t>(a.dtype().itemsize());
    if (have == width)
        return a;
    if (have > width && a.size() > 0) {
        py::array len = numpy().attr("char").attr("str_len")(a);
        const auto longest = numpy().attr("argmax")(len).cast<size_t>();
        const auto n = len.attr("max")().cast<int64_t>();
        if (static_cast<size_t>(n) > width)
            throw error(VEL_E_ILLEGAL_PARAM,
                        what + ": value " + std::to_string(longest) + " is " + std::to_string(n) +
                            " bytes long (text counts its UTF-8 bytes), more than char(" +
                            std::to_string(width) + ") holds");
    }
    return a.attr("astype")("S" + std::to_string(width));
}

// Clears validity bit i, making the bitmap when it is the first null.
void set_null(table::array &a, uint64_t i) {
    if (a.validity.empty())
        a.validity.assign((a.length + 7) / 8, 0xFF);
    a.validity[i / 8] = static_cast<uint8_t>(a.validity[i / 8] & ~(1u << (i % 8)));
}

template <class F> void nan_to_null(table::array &a) {
    const unsigned char *p = a.values.data();
    for (uint64_t i = 0; i < a.length; i++) {
        F x;
        std::memcpy(&x, p + i * sizeof(F), sizeof(F));
        if (std::isnan(x))
            set_null(a, i);
    }
}

} // namespace

py::array bytes_in(const py::handle &values, std::vector<bool> *nulls, const std::string &what) {
    // A list value by value: NumPy would turn a number in it into its text.
    py::array a = py::isinstance<py::array>(values)
                      ? py::reinterpret_borrow<py::array>(values)
                      : to_array(numpy().attr("array")(values, "O"), what);
    const char k = a.dtype().kind();
    if (k == 'S')
        return a;
    if (k == 'U') {
        one_d(a, what);
        try {
            a = numpy().attr("char").attr("encode")(a, "utf-8");
        } catch (py::error_already_set &e) { // lone surrogates
            throw error(VEL_E_ILLEGAL_PARAM, what + ": text that is not UTF-8 (" + why(e) + ")");
        }
    } else if (k == 'O') {
        one_d(a, what);
        py::list out;
        for (py::ssize_t i = 0; i < a.size(); i++) {
            py::object x = a.attr("__getitem__")(i);
            const std::string at = what + ": value " + std::to_string(i);
            if (x.is_none() || (PyFloat_Check(x.ptr()) && std::isnan(x.cast<double>())) ||
                type_name(x) == "NAType") {
                if (!nulls)
                    throw error(VEL_E_SEQ_NULL_VALUE, at + " is null");
                nulls->resize(static_cast<size_t>(a.size()));
                (*nulls)[static_cast<size_t>(i)] = true;
                out.append(py::bytes(""));
            } else if (py::isinstance<py::str>(x)) {
                try {
                    out.append(x.attr("encode")("utf-8"));
                } catch (py::error_already_set &e) {
                    throw error(VEL_E_ILLEGAL_PARAM,
                                at + " is text that is not UTF-8 (" + why(e) + ")");
                }
            } else if (py::isinstance<py::bytes>(x)) {
                out.append(x);
            } else {
                throw error(VEL_E_ILLEGAL_TYPE,
                            at + " is a " + type_name(x) + ", not text (str) or bytes");
            }
        }
        a = numpy().attr("array")(out, "S");
    } else {
        throw error(VEL_E_ILLEGAL_TYPE, what +
                                            ": a char field holds text (str) or bytes, the "
                                            "array is " +
                                            str(a.dtype()));
    }
    if (a.dtype().itemsize() == 0) // only empty values
        a = a.attr("astype")("S1");
    return a;
}

py::dtype dtype_of(table::column_type t) {
    const char k = kind_of(t);
    if (k == 'M')
        return py::dtype("M8[ns]");
    return py::dtype(std::string(1, k) + std::to_string(t.width));
}

std::string dtype_name(table::column_type t) {
    const py::dtype dt = dtype_of(t);
    return dt.kind() == 'S' ? "S" + std::to_string(t.width) : std::string(py::str(dt.attr("name")));
}

table::column_type type_of_dtype(const py::handle &dtype, bool scalar, const std::string &what) {
    const std::string at = what.empty() ? "" : what + ": ";
    py::dtype dt;
    try {
        dt = numpy().attr("dtype")(dtype);
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, at + "not a dtype: " + str(dtype) + " (" + why(e) + ")");
    }
    if (dt.kind() == 'S') {
        const auto w = static_cast<size_t>(dt.itemsize());
        const size_t most = scalar ? 4096 : VELH_MAX_SEQ_CHAR_WIDTH;
        if (w < 1 || w > most)
            throw error(VEL_E_ILLEGAL_TYPE, at + "a char " + (scalar ? "value" : "field") +
                                                " is S1..S" + std::to_string(most) + ", not " +
                                                str(dt));
        return {VEL_DD_SEQUENCE_CHAR, static_cast<uint16_t>(w)};
    }
    if (dt.kind() == 'M')
        dt = py::dtype("M8[ns]"); // any unit: stored as nanoseconds
    dt = dt.attr("newbyteorder")("=");
    for (const table::column_type &t : layer_types())
        if (dt.equal(dtype_of(t)))
            return t;
    std::string known;
    for (const table::column_type &t : layer_types())
        known += dtype_name(t) + ", ";
    throw error(VEL_E_ILLEGAL_TYPE, at + "no field type for dtype " + str(dt) + " (" + known +
                                        "S1..S" + std::to_string(VELH_MAX_SEQ_CHAR_WIDTH) + ")");
}

table::array array_in(const py::handle &values, const py::object &mask, table::column_type t,
                      const std::string &what, bool nan_as_null) {
    const py::dtype want = dtype_of(t);
    input in = split_masked(values, mask, what);
    std::vector<bool> text_nulls; // None in an object array of text
    if (want.kind() == 'S')
        in.values = chars_input(in.values, t.width, text_nulls, what);
    else if (want.kind() == 'M')
        in.values = times_in(in.values, what);
    const py::array a = want.kind() == 'M' ? py::array(in.values) : as_input(in.values, want, what);
    table::array out;
    out.type = t;
    out.length = static_cast<uint64_t>(a.size());
    if (in.mask && static_cast<uint64_t>(in.mask->size()) != out.length)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, what + ": " + std::to_string(in.mask->size()) +
                                                   " mask flags for " + std::to_string(out.length) +
                                                   " values");
    out.values.resize(out.length * t.width);
    if (want.kind() == 'M')
        put_datetimes(a, out, what);
    else if (out.length > 0)
        std::memcpy(out.values.data(), a.data(), out.values.size());
    if (want.kind() == 'f' && nan_as_null) {
        py::gil_scoped_release nogil;
        if (t.width == 4)
            nan_to_null<float>(out);
        else
            nan_to_null<double>(out);
    }
    for (size_t i = 0; i < text_nulls.size(); i++)
        if (text_nulls[i])
            set_null(out, i);
    if (in.mask) {
        const bool *m = static_cast<const bool *>(in.mask->data());
        for (uint64_t i = 0; i < out.length; i++)
            if (m[i])
                set_null(out, i);
    }
    return out;
}

table::array value_in(const py::handle &v, table::column_type t, const std::string &what) {
    const py::dtype dt = dtype_of(t);
    py::object a;
    try {
        if (dt.kind() == 'M') {
            const std::optional<int64_t> ns = time_ns(v, what);
            a = numpy().attr("array")(py::make_tuple(ns.value_or(nat)), "int64").attr("view")(dt);
        } else if (dt.kind() == 'S') {
            if (!py::isinstance<py::bytes>(v) && !py::isinstance<py::str>(v))
                throw error(VEL_E_ILLEGAL_TYPE, what + ": a " + type_name(v) +
                                                    " is not text or bytes (the field holds " +
                                                    dtype_name(t) + ")");
            a = py::list(py::make_tuple(v));
        } else if (dt.kind() == 'f') {
            if (py::isinstance<py::str>(v))
                throw py::cast_error();
            a = numpy().attr("array")(py::make_tuple(v.cast<double>()), dt);
        } else { // integers: Python's, range-checked against the dtype's
            const py::int_ i = py::reinterpret_steal<py::int_>(PyNumber_Index(v.ptr()));
            const py::object info = numpy().attr("iinfo")(dt);
            if (!i || PyObject_RichCompareBool(i.ptr(), info.attr("min").ptr(), Py_LT) == 1 ||
                PyObject_RichCompareBool(i.ptr(), info.attr("max").ptr(), Py_GT) == 1) {
                PyErr_Clear();
                throw error(VEL_E_ILLEGAL_TYPE,
                            what + ": " + shown(v) + " is not a " + dtype_name(t) + " value");
            }
            a = numpy().attr("array")(py::make_tuple(i), dt);
        }
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, what + ": " + shown(v) + " is not a " + dtype_name(t) +
                                            " value (" + why(e) + ")");
    } catch (py::cast_error &) {
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": a " + type_name(v) + " is not a " + dtype_name(t) + " value");
    }
    table::array out = array_in(a, py::none(), t, what);
    if (out.null_count() != 0)
        throw error(VEL_E_SEQ_NULL_VALUE,
                    what + (dt.kind() == 'M' ? ": NaT is not a point in time"
                                             : ": NaN is a null (as in pandas), not a "
                                               "value to compare or store here"));
    return out;
}

int64_t duration_ns(const py::handle &d, const std::string &what) {
    static auto *td64 = new py::object(numpy().attr("timedelta64"));
    py::object x = py::reinterpret_borrow<py::object>(d);
    if (!py::isinstance(x, *td64)) {
        if (is_number(x))
            throw error(VEL_E_ILLEGAL_TYPE, what + ": " + shown(d) +
                                                " is a number, not a duration (it is not taken "
                                                "as nanoseconds); " +
                                                pass_duration);
        try {
            if (py::isinstance<py::str>(x))
                x = py::module_::import("pandas").attr("Timedelta")(x);
            if (py::hasattr(x, "asm8")) // Timedelta: to the nanosecond (NaT: a NaT datetime64)
                x = x.attr("asm8");
            else if (py::isinstance(x, datetime_module().attr("timedelta")))
                x = numpy().attr("timedelta64")(x);
        } catch (py::error_already_set &e) {
            throw error(VEL_E_ILLEGAL_PARAM, what + ": " + shown(d) + " is not a duration (" +
                                                 why(e) + "); " + pass_duration);
        }
    }
    if (numpy().attr("isnat")(x).cast<bool>())
        throw error(VEL_E_ILLEGAL_PARAM, what + ": NaT is not a duration; " + pass_duration);
    if (!py::isinstance(x, *td64))
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": a " + type_name(d) + " is not a duration; " + pass_duration);
    int64_t count = 1, ns = 0;
    bool generic = false;
    const int64_t k = ns_per_unit(x.attr("dtype"), count, &generic);
    if (generic || k == 0)
        throw error(
            VEL_E_ILLEGAL_PARAM,
            what + ": " + shown(d) +
                (generic ? " has no unit" : " counts months or years, which have no fixed length") +
                "; " + pass_duration);
    if (!scale_ns(x.attr("astype")("int64").cast<int64_t>(), count, k, ns))
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": " + shown(d) +
                        " is not a whole number of nanoseconds within 292 years");
    return ns;
}

py::array out_array(table::column_type t, uint64_t n, const py::object &into,
                    const std::string &what) {
    const py::dtype dt = dtype_of(t);
    if (into.is_none())
        return py::array(dt, static_cast<py::ssize_t>(n));
    if (!py::isinstance<py::array>(into))
        throw error(VEL_E_ILLEGAL_TYPE, what + ": out is a " + type_name(into) + ", not an array");
    py::array out = one_d(py::reinterpret_borrow<py::array>(into), what + " into out");
    if (!out.dtype().equal(dt)) // no conversion: the values must land in the caller's array
        throw error(VEL_E_ILLEGAL_TYPE, what + ": out is " + str(out.dtype()) + ", not " + str(dt));
    if (!out.writeable())
        throw error(VEL_E_ILLEGAL_PARAM, what + ": out is read-only");
    if (static_cast<uint64_t>(out.size()) != n)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, what + ": out holds " + std::to_string(out.size()) +
                                                   " values, not " + std::to_string(n));
    return out;
}

py::object array_out(const table::array &a, const py::object &into, const std::string &what) {
    numpy_column c(a.type, out_array(a.type, a.length, into, what));
    if (a.length > 0)
        std::memcpy(c.values.mutable_data(), a.values.data(), a.values.size());
    if (!a.validity.empty())
        std::memcpy(c.validity.data(), a.validity.data(), c.validity.size());
    return c.finish();
}

numpy_column::numpy_column(table::column_type t, uint64_t n)
    : numpy_column(t, py::array(dtype_of(t), static_cast<py::ssize_t>(n))) {}

numpy_column::numpy_column(table::column_type t, py::array into)
    : type(t), values(std::move(into)),
      validity((static_cast<uint64_t>(values.size()) + 7) / 8, 0xFF) {}

py::object numpy_column::finish() {
    const auto n = static_cast<uint64_t>(values.size());
    auto valid = [&](uint64_t i) { return (validity[i / 8] >> (i % 8)) & 1; };
    // Any null: the whole bytes of the validity, then the bits of a part byte.
    bool nulls = false;
    for (uint64_t b = 0; b < n / 8 && !nulls; b++)
        nulls = validity[b] != 0xFF;
    for (uint64_t i = n / 8 * 8; i < n && !nulls; i++)
        nulls = !valid(i);
    // np.zeros: pages the kernel gives zeroed on first touch, so that only
    // the stretches holding a null are ever written.
    py::array_t<bool> mask =
        nulls ? py::array_t<bool>(numpy().attr("zeros")(n, numpy().attr("bool_")))
              : py::array_t<bool>(0);
    bool *m = nulls ? mask.mutable_data() : nullptr;
    {
        py::gil_scoped_release nogil;
        if (type.code == VEL_DD_SEQUENCE_DATETIME) {
            auto *d = static_cast<int64_t *>(values.mutable_data());
            for (uint64_t i = 0; i < n; i++)
                d[i] = valid(i) ? vel_dt_to_ns(static_cast<vel_datetime>(d[i])) : nat;
        }
        if (m != nullptr) {
            // Eight mask bytes per validity byte, from a table of the 256.
            static const auto kMask = [] {
                std::array<uint64_t, 256> t{};
                for (unsigned b = 0; b < 256; b++)
                    for (unsigned k = 0; k < 8; k++)
                        if (!((b >> k) & 1))
                            t[b] |= uint64_t(1) << (8 * k);
                return t;
            }();
            for (uint64_t b = 0; b < n / 8; b++)
                if (validity[b] != 0xFF)
                    std::memcpy(m + 8 * b, &kMask[validity[b]], 8);
            for (uint64_t i = n / 8 * 8; i < n; i++)
                m[i] = !valid(i);
        }
    }
    if (!nulls)
        return std::move(values);
    return numpy().attr("ma").attr("MaskedArray")(values, py::arg("mask") = mask);
}

py::object value_out(const table::array &a, uint64_t i) {
    if (!a.valid(i))
        return py::none();
    table::array one;
    one.type = a.type;
    one.length = 1;
    one.values.assign(a.values.begin() + static_cast<std::ptrdiff_t>(i * a.type.width),
                      a.values.begin() + static_cast<std::ptrdiff_t>((i + 1) * a.type.width));
    return py::array(array_out(one, py::none(), "")).attr("__getitem__")(0);
}

} // namespace vpy
