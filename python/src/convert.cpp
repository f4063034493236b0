// Values between NumPy and the table layer's arrays (see convert.h).
#include "convert.h"

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

std::string str(const py::handle &h) { return py::str(h); }

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

// A 1-d C-contiguous array of exactly `want` (any datetime64 unit when want is
// datetime64), or a list/scalar converted to it.  Bad ones raise.
py::array as_input(const py::handle &values, const py::dtype &want, const std::string &what) {
    py::array a;
    if (py::isinstance<py::array>(values)) {
        a = py::reinterpret_borrow<py::array>(values);
    } else {
        try {
            a = numpy().attr("asarray")(values, want);
        } catch (py::error_already_set &e) {
            throw error(VEL_E_ILLEGAL_TYPE,
                        what + ": not convertible to " + str(want) + " (" + e.what() + ")");
        }
    }
    const bool ok = want.kind() == 'M' ? a.dtype().kind() == 'M' : a.dtype().equal(want);
    if (!ok)
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": the field holds " + str(want) + ", the array is " + str(a.dtype()));
    if (a.ndim() != 1)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": a 1-d array is needed, got " + std::to_string(a.ndim()) + "-d");
    if (!(a.flags() & py::array::c_style))
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": the array is not contiguous (pass np.ascontiguousarray(a))");
    return a;
}

// Nanoseconds per unit of a datetime64 dtype; 0 for units that are not a
// fixed length (years, months), -N for 1/N ns.
int64_t ns_per_unit(const py::dtype &dt, int64_t &count) {
    py::tuple info = numpy().attr("datetime_data")(dt);
    const std::string unit = py::str(info[0]);
    count = info[1].cast<int64_t>();
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

// datetime64 values of any unit as the layer's raw datetimes into `out`
// (whose length is set); NaT is a null.
void put_datetimes(py::array a, table::array &out, const std::string &what) {
    int64_t count = 1;
    int64_t k = ns_per_unit(a.dtype(), count);
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
            } else if (k > 0) {
                if (__builtin_mul_overflow(src[i], count * k, &ns))
                    bad = i;
            } else {
                int64_t units = 0;
                if (__builtin_mul_overflow(src[i], count, &units) || units % -k != 0)
                    bad = i;
                ns = units / -k;
            }
            const vel_datetime raw = vel_dt_from_ns(ns);
            std::memcpy(out.values.data() + i * 8, &raw, 8);
        }
    }
    if (bad)
        throw error(VEL_E_ILLEGAL_PARAM, what + ": value " + std::to_string(*bad) +
                                             (k > 0 ? " lies outside 1677-09-21..2262-04-11"
                                                    : " has a fraction of a nanosecond"));
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

// Bytes for a char(N) field as S<N>: narrower ones are padded with zero
// bytes, wider ones accepted only when no value is longer than N (NumPy's
// own conversion would cut them silently).
py::object chars_input(const py::object &values, size_t width, const std::string &what) {
    py::array a;
    try {
        a = py::isinstance<py::array>(values) ? py::reinterpret_borrow<py::array>(values)
                                              : py::array(numpy().attr("asarray")(values));
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, what + ": not convertible to bytes (" + e.what() + ")");
    }
    if (a.dtype().kind() != 'S')
        throw error(VEL_E_ILLEGAL_TYPE, what + ": the field holds S" + std::to_string(width) +
                                            " (bytes), the array is " + str(a.dtype()));
    const auto have = static_cast<size_t>(a.dtype().itemsize());
    if (have == width)
        return a;
    if (have > width && a.size() > 0) {
        py::array len = numpy().attr("char").attr("str_len")(a);
        const auto longest = numpy().attr("argmax")(len).cast<size_t>();
        const auto n = len.attr("max")().cast<int64_t>();
        if (static_cast<size_t>(n) > width)
            throw error(VEL_E_ILLEGAL_PARAM, what + ": value " + std::to_string(longest) + " has " +
                                                 std::to_string(n) + " bytes, more than char(" +
                                                 std::to_string(width) + ") holds");
    }
    return a.attr("astype")("S" + std::to_string(width));
}

// The layer's validity bitmap of a NumPy mask (True: null); empty when no
// value is null.
std::vector<uint8_t> validity_of(const bool *mask, uint64_t n) {
    std::vector<uint8_t> v;
    for (uint64_t i = 0; i < n; i++) {
        if (!mask[i])
            continue;
        if (v.empty())
            v.assign((n + 7) / 8, 0xFF);
        v[i / 8] = static_cast<uint8_t>(v[i / 8] & ~(1u << (i % 8)));
    }
    return v;
}

} // namespace

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

table::column_type type_of_dtype(const py::handle &dtype, bool scalar) {
    py::dtype dt;
    try {
        dt = numpy().attr("dtype")(dtype);
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, "not a dtype: " + str(dtype) + " (" + e.what() + ")");
    }
    if (dt.kind() == 'S') {
        const auto w = static_cast<size_t>(dt.itemsize());
        const size_t most = scalar ? 4096 : VELH_MAX_SEQ_CHAR_WIDTH;
        if (w < 1 || w > most)
            throw error(VEL_E_ILLEGAL_TYPE, std::string("a char ") + (scalar ? "value" : "field") +
                                                " is S1..S" + std::to_string(most) + ", not " +
                                                str(dt));
        return {VEL_DD_SEQUENCE_CHAR, static_cast<uint16_t>(w)};
    }
    if (dt.kind() == 'M')
        dt = py::dtype("M8[ns]"); // any unit: stored as nanoseconds
    for (const table::column_type &t : layer_types())
        if (dt.equal(dtype_of(t)))
            return t;
    std::string known;
    for (const table::column_type &t : layer_types())
        known += dtype_name(t) + ", ";
    throw error(VEL_E_ILLEGAL_TYPE, "no field type for dtype " + str(dt) + " (" + known + "S1..S" +
                                        std::to_string(VELH_MAX_SEQ_CHAR_WIDTH) + ")");
}

table::array array_in(const py::handle &values, const py::object &mask, table::column_type t,
                      const std::string &what) {
    const py::dtype want = dtype_of(t);
    input in = split_masked(values, mask, what);
    if (want.kind() == 'S')
        in.values = chars_input(in.values, t.width, what);
    const py::array a = as_input(in.values, want, what);
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
    if (in.mask) {
        const std::vector<uint8_t> masked =
            validity_of(static_cast<const bool *>(in.mask->data()), out.length);
        if (!masked.empty() && out.validity.empty())
            out.validity = masked;
        else
            for (size_t i = 0; i < masked.size(); i++)
                out.validity[i] &= masked[i];
    }
    return out;
}

table::array value_in(const py::handle &v, table::column_type t, const std::string &what) {
    const py::dtype dt = dtype_of(t);
    py::object a;
    try {
        if (dt.kind() == 'M') {
            if (py::isinstance<py::str>(v))
                a = py::int_(velseq::datetime::parse(v.cast<std::string>()).ns());
            else
                a = numpy().attr("datetime64")(v, "ns");
            a = numpy().attr("array")(a, dt).attr("reshape")(1);
        } else if (dt.kind() == 'S') {
            if (!py::isinstance<py::bytes>(v))
                throw error(VEL_E_ILLEGAL_TYPE, what + ": " + str(py::type::of(v)) +
                                                    " is not bytes (the field holds " +
                                                    dtype_name(t) + ")");
            a = py::list(py::make_tuple(v));
        } else if (dt.kind() == 'f') {
            a = numpy().attr("array")(py::make_tuple(v.cast<double>()), dt);
        } else { // integers: Python's, range-checked against the dtype's
            const py::int_ i = py::reinterpret_steal<py::int_>(PyNumber_Index(v.ptr()));
            const py::object info = numpy().attr("iinfo")(dt);
            if (!i || PyObject_RichCompareBool(i.ptr(), info.attr("min").ptr(), Py_LT) == 1 ||
                PyObject_RichCompareBool(i.ptr(), info.attr("max").ptr(), Py_GT) == 1) {
                PyErr_Clear();
                throw error(VEL_E_ILLEGAL_TYPE,
                            what + ": " + str(v) + " is not a " + dtype_name(t) + " value");
            }
            a = numpy().attr("array")(py::make_tuple(i), dt);
        }
    } catch (py::error_already_set &e) {
        throw error(VEL_E_ILLEGAL_TYPE, what + ": " + str(v) + " is not a " + dtype_name(t) +
                                            " value (" + e.what() + ")");
    } catch (py::cast_error &) {
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": " + str(py::type::of(v)) + " is not a " + dtype_name(t) + " value");
    }
    table::array out = array_in(a, py::none(), t, what);
    if (out.null_count() != 0)
        throw error(VEL_E_SEQ_NULL_VALUE, what + ": NaT is not a point in time");
    return out;
}

py::object array_out(const table::array &a, const py::object &into, const std::string &what) {
    const py::dtype dt = dtype_of(a.type);
    py::array out;
    if (into.is_none()) {
        out = py::array(dt, static_cast<py::ssize_t>(a.length));
    } else {
        out = as_input(into, dt, what + " into out");
        if (!out.dtype().equal(dt))
            throw error(VEL_E_ILLEGAL_TYPE,
                        what + ": out is " + str(out.dtype()) + ", not " + str(dt));
        if (!out.writeable())
            throw error(VEL_E_ILLEGAL_PARAM, what + ": out is read-only");
        if (static_cast<uint64_t>(out.size()) != a.length)
            throw error(VEL_E_SEQ_LENGTH_MISMATCH, what + ": out holds " +
                                                       std::to_string(out.size()) +
                                                       " values, not " + std::to_string(a.length));
    }
    const bool nulls = a.null_count() != 0;
    py::array_t<bool> mask(nulls ? static_cast<py::ssize_t>(a.length) : 0);
    {
        py::gil_scoped_release nogil;
        if (dt.kind() == 'M') {
            auto *dst = static_cast<int64_t *>(out.mutable_data());
            for (uint64_t i = 0; i < a.length; i++) {
                vel_datetime raw;
                std::memcpy(&raw, a.values.data() + i * 8, 8);
                dst[i] = a.valid(i) ? vel_dt_to_ns(raw) : nat;
            }
        } else if (a.length > 0) {
            std::memcpy(out.mutable_data(), a.values.data(), a.values.size());
        }
        bool *m = nulls ? mask.mutable_data() : nullptr;
        for (uint64_t i = 0; m && i < a.length; i++)
            m[i] = !a.valid(i);
    }
    if (!nulls)
        return out;
    return numpy().attr("ma").attr("MaskedArray")(out, py::arg("mask") = mask);
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
