// Object and Sequence: scalar fields and every column operation, each one
// call of the table layer between NumPy conversions (convert.h); the GIL is
// released around the layer's passes over the data.
#include <pybind11/stl.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <unordered_map>

#include "convert.h"
#include "handles.h"

namespace vpy {

namespace {

// ---- objects -------------------------------------------------------------------------

uint16_t field_no(const Object &o, const std::string &name) {
    o.tx->require();
    return o.t->field(name);
}

py::object get_field(const Object &o, const std::string &name) {
    const uint16_t f = field_no(o, name);
    if (!o.t->columns[f].scalar)
        return py::cast(Sequence{o.tx, o.t, o.h, f});
    return value_out(table::get_scalar(o.h, *o.t, f), 0);
}

void set_field(const Object &o, const std::string &name, const py::object &v) {
    const uint16_t f = field_no(o, name);
    if (!o.t->columns[f].scalar)
        throw error(VEL_E_HOST_WRONG_FIELD, name + " is a sequence field: use append or insert");
    o.tx->require_no_streams("set");
    table::set_scalar(o.h, *o.t, f, value_in(v, o.t->columns[f].type, "set " + name));
}

// ---- writing ---------------------------------------------------------------------------

void append(const Sequence &s, const py::object &values, const py::object &mask, bool nan_as_null) {
    const table::column c = s.writable("append");
    const table::array a = array_in(values, mask, c.type, "append to " + s.what(), nan_as_null);
    py::gil_scoped_release nogil;
    table::append(c, a);
}

void insert(const Sequence &s, uint64_t pos, const py::object &values, const py::object &mask,
            bool nan_as_null) {
    const table::column c = s.writable("insert");
    const table::array a = array_in(values, mask, c.type, "insert into " + s.what(), nan_as_null);
    py::gil_scoped_release nogil;
    table::insert(c, pos, a, s.compact_state());
}

void erase(const Sequence &s, uint64_t first, std::optional<uint64_t> last) {
    const table::column c = s.writable("delete");
    table::erase(c, first, last ? *last : first + 1, s.compact_state());
}

// ---- reading ---------------------------------------------------------------------------

// Values [first, last) copied once, from the pages into the NumPy array.
py::object read(const Sequence &s, uint64_t first, std::optional<uint64_t> last,
                const py::object &out) {
    const table::column c = s.column();
    const uint64_t n = table::count(c), end = last ? *last : n;
    const std::string what = "read " + s.what();
    if (first > end || end > n)
        throw error(VEL_E_ILLEGAL_PARAM, what + ": positions " + std::to_string(first) + ".." +
                                             std::to_string(end) + " of " + std::to_string(n));
    numpy_column col(c.type, out_array(c.type, end - first, out, what));
    {
        py::gil_scoped_release nogil;
        auto *dst = static_cast<unsigned char *>(col.values.mutable_data());
        const size_t w = c.type.width;
        table::visit_leaves(c, first, end, [&](const table::leaf_run &r) {
            const uint64_t at = r.first - first;
            std::memcpy(dst + at * w, r.values, r.length * w);
            for (uint64_t i = 0, bit = r.null_bit; r.nulls && i < r.length; i++, bit++)
                if (r.nulls[bit / 64] >> (bit % 64) & 1)
                    col.validity[(at + i) / 8] &= static_cast<uint8_t>(~(1u << ((at + i) % 8)));
            return true;
        });
    }
    return col.finish();
}

table::bound bound_of(const std::string &b) {
    if (b == "inclusive")
        return table::bound::inclusive;
    if (b == "exclusive")
        return table::bound::exclusive;
    if (b == "open")
        return table::bound::open;
    throw error(VEL_E_ILLEGAL_PARAM,
                "a bound is 'inclusive', 'exclusive' or 'open', not '" + b + "'");
}

// Positions [first, last) of the values between lo and hi (None: open).
std::pair<uint64_t, uint64_t> search(const Sequence &s, const py::object &lo, const py::object &hi,
                                     const std::string &lo_b, const std::string &hi_b) {
    const table::column c = s.column();
    const std::string what = "search " + s.what();
    table::array bounds;
    bounds.type = c.type;
    bounds.length = 2;
    bounds.values.assign(2 * c.type.width, 0); // an open bound's value is not read
    const py::object ends[] = {lo, hi};
    for (size_t i = 0; i < 2; i++)
        if (!ends[i].is_none()) {
            const table::array v = value_in(ends[i], c.type, what);
            std::copy(v.values.begin(), v.values.end(), bounds.values.begin() + i * c.type.width);
        }
    const table::bound lk = lo.is_none() ? table::bound::open : bound_of(lo_b);
    const table::bound hk = hi.is_none() ? table::bound::open : bound_of(hi_b);
    py::gil_scoped_release nogil;
    return table::search(c, bounds, lk, hk);
}

table::direction direction_of(const std::string &d) {
    if (d == "backward")
        return table::direction::backward;
    if (d == "forward")
        return table::direction::forward;
    if (d == "nearest")
        return table::direction::nearest;
    throw error(VEL_E_ILLEGAL_PARAM,
                "a direction is 'backward', 'forward' or 'nearest', not '" + d + "'");
}

// A tolerance in the layer's unit: nanoseconds for datetime keys (of a
// duration, never a bare number), a difference of values otherwise.
long double tolerance_of(const py::object &t, const table::column &keys) {
    if (dtype_of(keys.type).kind() == 'M')
        return static_cast<long double>(duration_ns(t, "asof tolerance"));
    double d = 0;
    try {
        d = t.cast<double>();
    } catch (py::cast_error &) {
        throw error(VEL_E_ILLEGAL_TYPE,
                    "asof tolerance: " + std::string(py::str(py::repr(t))) + " is not a number");
    }
    if (std::isnan(d))
        throw error(VEL_E_ILLEGAL_PARAM, "asof tolerance: NaN is no distance");
    return d;
}

// The options of an as-of over `keys`.
table::asof_options asof_options_of(const table::column &keys, const std::string &dir, bool strict,
                                    const py::object &tolerance) {
    table::asof_options opt;
    opt.dir = direction_of(dir);
    opt.strict = strict;
    if (!tolerance.is_none())
        opt.tolerance = tolerance_of(tolerance, keys);
    return opt;
}

// Probes of the keys' type as the layer reads them.  An array of the keys'
// dtype (native, 1-d, contiguous) is read in place, datetime64[ns] turned
// into raw datetimes in one pass into uninitialised memory; anything else
// goes through array_in.  NaT and masked probes of other keys are answered
// null, as no point in time has no match; a NaN (or masked) float probe is
// refused: NaN compares with nothing, so the question has no answer.
struct probe_view {
    table::const_buffer buf;
    py::object keep;                 // the array read in place
    std::unique_ptr<uint64_t[]> raw; // converted datetimes
    std::vector<uint8_t> validity;   // of raw
    table::array converted;          // array_in's
    uint64_t length() const { return buf.length; }
};

probe_view probes_in(const table::column &keys, const py::object &probes, const std::string &what) {
    probe_view v;
    const py::dtype want = dtype_of(keys.type);
    const char kind = want.kind();
    static auto *masked = new py::object(numpy().attr("ma").attr("MaskedArray"));
    if (py::isinstance<py::array>(probes) && !py::isinstance(probes, *masked)) {
        const auto a = py::reinterpret_borrow<py::array>(probes);
        const auto n = static_cast<uint64_t>(a.size());
        if (a.ndim() == 1 && (a.flags() & py::array::c_style) && a.dtype().equal(want) &&
            a.dtype().attr("isnative").cast<bool>()) {
            v.keep = a;
            if (kind != 'M') {
                v.buf = {keys.type, n, a.data(), nullptr};
            } else {
                v.raw.reset(new uint64_t[n]);
                const auto *src = static_cast<const int64_t *>(a.data());
                bool nat = false;
                {
                    py::gil_scoped_release nogil;
                    for (uint64_t i = 0; i < n; i++) {
                        nat |= src[i] == std::numeric_limits<int64_t>::min();
                        v.raw[i] = vel_dt_from_ns(src[i]);
                    }
                    if (nat) {
                        v.validity.assign((n + 7) / 8, 0xFF);
                        for (uint64_t i = 0; i < n; i++)
                            if (src[i] == std::numeric_limits<int64_t>::min())
                                v.validity[i / 8] &= static_cast<uint8_t>(~(1u << (i % 8)));
                    }
                }
                v.buf = {keys.type, n, v.raw.get(), nat ? v.validity.data() : nullptr};
            }
        }
    }
    if (!v.keep) {
        v.converted = array_in(probes, py::none(), keys.type, what);
        v.buf = table::view(v.converted);
    }
    if (kind == 'f')
        for (uint64_t i = 0; i < v.buf.length; i++) {
            const auto *b = static_cast<const unsigned char *>(v.buf.values) + i * keys.type.width;
            float f = 0;
            double d = 0;
            keys.type.width == 4 ? std::memcpy(&f, b, 4) : std::memcpy(&d, b, 8);
            const bool nan = std::isnan(f) || std::isnan(d);
            if (nan || (v.buf.validity && !(v.buf.validity[i / 8] >> (i % 8) & 1)))
                throw error(VEL_E_SEQ_NULL_VALUE,
                            what + ": probe " + std::to_string(i) + " is NaN or masked");
        }
    return v;
}

// Ascending datetime64[ns] probes, the shape of a time-series join, are
// answered a block at a time: each block turned into raw datetimes in a
// buffer that stays in cache, so that no buffer as long as the probes is
// made (the first touch of that much fresh memory costs more than the
// join).  answer(block, at) gets the probes [at, at + block.length), at a
// multiple of 8 (validity bytes start there).  From the first block that
// does not ascend (NaT aside) on, the rest goes in one call, so that the
// layer orders them once.  Called without the GIL.
constexpr uint64_t kProbeBlock = 1 << 14;

struct probe_blocks {
    const table::column &keys;
    py::array src;         // the probes, when in_place
    bool in_place = false; // datetime64[ns], 1-d, contiguous, native
    probe_view whole;      // otherwise

    probe_blocks(const table::column &k, const py::object &probes, const std::string &what)
        : keys(k) {
        static auto *masked = new py::object(numpy().attr("ma").attr("MaskedArray"));
        if (k.type.code == VEL_DD_SEQUENCE_DATETIME && py::isinstance<py::array>(probes) &&
            !py::isinstance(probes, *masked)) {
            const auto a = py::reinterpret_borrow<py::array>(probes);
            if (a.ndim() == 1 && (a.flags() & py::array::c_style) &&
                a.dtype().equal(dtype_of(k.type)) && a.dtype().attr("isnative").cast<bool>()) {
                src = a;
                in_place = true;
            }
        }
        if (!in_place)
            whole = probes_in(k, probes, what);
    }
    uint64_t length() const {
        return in_place ? static_cast<uint64_t>(src.size()) : whole.length();
    }
    template <class F> void each(F &&answer) {
        if (!in_place) {
            answer(whole.buf, uint64_t(0));
            return;
        }
        const auto *ns = static_cast<const int64_t *>(src.data());
        const uint64_t n = length();
        constexpr int64_t nat = std::numeric_limits<int64_t>::min();
        uint64_t raw[kProbeBlock];
        uint8_t valid[kProbeBlock / 8];
        int64_t last = nat;
        for (uint64_t at = 0; at < n; at += kProbeBlock) {
            const uint64_t m = std::min(kProbeBlock, n - at);
            bool up = true, any_nat = false;
            for (uint64_t i = 0; i < m; i++) {
                const int64_t t = ns[at + i];
                if (t != nat) { // NaT is answered null wherever it stands
                    up &= t >= last;
                    last = t;
                }
                any_nat |= t == nat;
                raw[i] = vel_dt_from_ns(t);
            }
            if (!up) { // from here on in one call
                std::unique_ptr<uint64_t[]> rest(new uint64_t[n - at]);
                std::vector<uint8_t> rv((n - at + 7) / 8, 0xFF);
                bool rest_nat = false;
                for (uint64_t i = 0; i < n - at; i++) {
                    rest[i] = vel_dt_from_ns(ns[at + i]);
                    if (ns[at + i] == nat) {
                        rest_nat = true;
                        rv[i / 8] &= static_cast<uint8_t>(~(1u << (i % 8)));
                    }
                }
                answer(table::const_buffer{keys.type, n - at, rest.get(),
                                           rest_nat ? rv.data() : nullptr},
                       at);
                return;
            }
            if (any_nat) {
                std::memset(valid, 0xFF, (m + 7) / 8);
                for (uint64_t i = 0; i < m; i++)
                    if (ns[at + i] == nat)
                        valid[i / 8] &= static_cast<uint8_t>(~(1u << (i % 8)));
            }
            answer(table::const_buffer{keys.type, m, raw, any_nat ? valid : nullptr}, at);
        }
    }
};

// Positions of the as-of matches of the probes in this ascending field, as
// int64 written in place; masked where none matches.
py::object asof(const Sequence &s, const py::object &probes, const std::string &dir, bool strict,
                const py::object &tolerance) {
    const table::column keys = s.column();
    const table::asof_options opt = asof_options_of(keys, dir, strict, tolerance);
    probe_blocks p(keys, probes, "asof on " + s.what());
    numpy_column pos({VEL_DD_SEQUENCE_INT8, 8}, p.length());
    auto *out = static_cast<uint64_t *>(pos.values.mutable_data());
    {
        py::gil_scoped_release nogil;
        p.each([&](const table::const_buffer &b, uint64_t at) {
            table::asof(keys, b, opt, out + at, pos.validity.data() + at / 8);
        });
    }
    return pos.finish();
}

// The field numbers of the sequence fields `names` of table t; a scalar
// field is refused.
std::vector<uint16_t> sequence_fields(const table::table_info &t,
                                      const std::vector<std::string> &names) {
    std::vector<uint16_t> out;
    for (const std::string &name : names) {
        const uint16_t f = t.field(name);
        if (t.columns[f].scalar)
            throw error(VEL_E_HOST_WRONG_FIELD, "asof_join: " + name + " is a scalar field");
        out.push_back(f);
    }
    return out;
}

// The NumPy arrays of the fields `fields` of t that a join gathers into,
// n values each, and the layer's view of them.
struct join_out {
    std::vector<numpy_column> out;
    std::vector<table::buffer> bufs;

    join_out(const table::table_info &t, const std::vector<uint16_t> &fields, uint64_t n) {
        for (uint16_t f : fields)
            out.emplace_back(t.columns[f].type, n);
        for (numpy_column &c : out)
            bufs.push_back(c.buffer());
    }
    // {name: values}
    py::dict finish(const std::vector<std::string> &names) {
        py::dict d;
        for (size_t i = 0; i < names.size(); i++)
            d[py::str(names[i])] = out[i].finish();
        return d;
    }
};

// Columns `fields` of an object.
std::vector<table::column> columns_of(const Object &o, const std::vector<uint16_t> &fields) {
    std::vector<table::column> cols;
    for (uint16_t f : fields)
        cols.push_back(table::column_of(o.h, o.tx->db->get(), *o.t, f));
    return cols;
}

// asof_join's columns: {name: values}, every column gathered straight into
// its NumPy array at the positions of one as-of.
py::dict asof_columns(const Object &o, const std::string &keys, const py::object &probes,
                      const std::vector<std::string> &columns, const std::string &dir, bool strict,
                      const py::object &tolerance) {
    o.tx->require();
    const table::column kc = columns_of(o, sequence_fields(*o.t, {keys}))[0];
    const std::vector<uint16_t> fields = sequence_fields(*o.t, columns);
    const std::vector<table::column> cols = columns_of(o, fields);
    const table::asof_options opt = asof_options_of(kc, dir, strict, tolerance);
    probe_blocks p(kc, probes, "asof_join on " + o.t->name + "." + keys);
    join_out jo(*o.t, fields, p.length());
    {
        py::gil_scoped_release nogil;
        std::unique_ptr<uint64_t[]> pos; // the layer writes each
        std::vector<uint8_t> valid;
        std::vector<table::buffer> out(jo.bufs.size());
        p.each([&](const table::const_buffer &b, uint64_t at) {
            if (valid.size() < (b.length + 7) / 8) {
                pos.reset(new uint64_t[b.length]);
                valid.resize((b.length + 7) / 8);
            }
            for (size_t c = 0; c < out.size(); c++) {
                const table::buffer &w = jo.bufs[c];
                out[c] = {w.type, b.length,
                          static_cast<unsigned char *>(w.values) + at * w.type.width,
                          w.validity + at / 8};
            }
            table::asof_join(kc, b, opt, pos.get(), valid.data(), cols.data(), out.data(),
                             cols.size());
        });
    }
    return jo.finish(columns);
}

// The values at the given int64 positions (masked positions give nulls).
py::object gather(const Sequence &s, const py::object &positions) {
    const table::column c = s.column();
    const std::string what = "gather from " + s.what();
    const table::column_type u8{VEL_DD_SEQUENCE_UINT8, 8}, i8{VEL_DD_SEQUENCE_INT8, 8};
    table::array pos = array_in(positions, py::none(), i8, what);
    for (uint64_t i = 0; i < pos.length; i++) {
        int64_t p;
        std::memcpy(&p, pos.values.data() + i * 8, 8);
        if (pos.valid(i) && p < 0)
            throw error(VEL_E_ILLEGAL_PARAM, what + ": negative position");
    }
    pos.type = u8;
    table::array out;
    {
        py::gil_scoped_release nogil;
        out = table::gather(c, pos);
    }
    return array_out(out, py::none(), what);
}

} // namespace

py::dict asof_join_by(const tx_ptr &tx, const table_ptr &t, const std::vector<uint64_t> &oids,
                      const std::string &keys, const py::object &probes,
                      const std::vector<std::string> &columns, const std::string &by,
                      const py::object &groups, const std::string &dir, bool strict,
                      const py::object &tolerance) {
    tx->require();
    const std::string what = "asof_join on " + t->name + " by " + by;
    const uint16_t bf = t->field(by), kf = sequence_fields(*t, {keys})[0];
    if (!t->columns[bf].scalar)
        throw error(VEL_E_HOST_WRONG_FIELD, what + ": " + by + " is not a scalar field");
    const std::vector<uint16_t> fields = sequence_fields(*t, columns);
    const table::column_type bt = t->columns[bf].type, kt = t->columns[kf].type;
    // The groups: an object each, known by its value of `by`.
    std::unordered_map<std::string, uint32_t> group_of_value;
    std::vector<table::asof_group> gs;
    for (uint64_t oid : oids) {
        Object o{tx, t, {}};
        velseq::detail::check(velh_obj_open(tx->tx->connection_handle(), t->code, oid, &o.h),
                              "opening a group's object");
        const table::array v = table::get_scalar(o.h, *t, bf);
        const std::string key(reinterpret_cast<const char *>(v.values.data()), v.values.size());
        if (!group_of_value.emplace(key, static_cast<uint32_t>(gs.size())).second)
            throw error(VEL_E_ILLEGAL_PARAM, what + ": two objects hold the same " + by + " (" +
                                                 std::string(py::str(py::repr(value_out(v, 0)))) +
                                                 ")");
        gs.push_back({columns_of(o, {kf})[0], columns_of(o, fields)});
    }
    const table::column probe_keys{{}, {}, kt};
    const table::asof_options opt = asof_options_of(probe_keys, dir, strict, tolerance);
    const probe_view p = probes_in(probe_keys, probes, what);
    const table::array g = array_in(groups, py::none(), bt, what + ": groups");
    if (g.length != p.length())
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, what + ": " + std::to_string(p.length()) +
                                                   " probes, " + std::to_string(g.length) +
                                                   " groups");
    std::vector<uint32_t> group_of(p.length(), table::kNoGroup);
    for (uint64_t i = 0; i < g.length; i++) {
        if (!g.valid(i))
            continue; // a null group matches nothing, as in pandas
        const auto it = group_of_value.find(
            std::string(reinterpret_cast<const char *>(g.values.data() + i * bt.width), bt.width));
        if (it != group_of_value.end())
            group_of[i] = it->second;
    }
    join_out jo(*t, fields, p.length());
    std::vector<uint64_t> pos(p.length());
    std::vector<uint8_t> valid((p.length() + 7) / 8);
    {
        py::gil_scoped_release nogil;
        table::asof_join_by(gs, group_of.data(), p.buf, opt, pos.data(), valid.data(),
                            jo.bufs.data(), jo.bufs.size());
    }
    return jo.finish(columns);
}

void bind_object(py::module_ &m) {
    py::class_<Object>(m, "Object")
        .def_property_readonly("oid", [](const Object &o) { return o.h.oid; })
        .def_property_readonly("cls", [](const Object &o) { return o.t->name; })
        .def("__getitem__", &get_field)
        .def("__setitem__", &set_field)
        .def("_asof_columns", &asof_columns)
        .def("delete", [](Object &o) {
            o.tx->require();
            o.tx->require_no_streams("delete");
            velseq::detail::check(velh_obj_delete(&o.h), "deleting an object");
        });
}

py::class_<Sequence> bind_sequence(py::module_ &m) {
    py::class_<Sequence> seq(m, "Sequence");
    seq.def_property_readonly("name", [](const Sequence &s) { return s.def().name; })
        .def_property_readonly("dtype", [](const Sequence &s) { return dtype_of(s.def().type); })
        .def_property_readonly("order",
                               [](const Sequence &s) {
                                   return s.def().order == VEL_SEQ_ASC_ORDER    ? "ascending"
                                          : s.def().order == VEL_SEQ_DESC_ORDER ? "descending"
                                                                                : "none";
                               })
        .def("__len__", [](const Sequence &s) { return table::count(s.column()); })
        .def("append", &append, py::arg("values"), py::arg("mask") = py::none(), py::kw_only(),
             py::arg("nan_as_null") = true)
        .def("insert", &insert, py::arg("pos"), py::arg("values"), py::arg("mask") = py::none(),
             py::kw_only(), py::arg("nan_as_null") = true)
        .def("delete", &erase, py::arg("first"), py::arg("last") = py::none())
        .def("truncate", [](const Sequence &s) { table::truncate(s.writable("truncate")); })
        .def("read", &read, py::arg("first") = 0, py::arg("last") = py::none(),
             py::arg("out") = py::none())
        .def("search", &search, py::arg("lo"), py::arg("hi"), py::arg("lo_bound") = "inclusive",
             py::arg("hi_bound") = "exclusive")
        .def("asof", &asof, py::arg("probes"), py::arg("direction") = "backward",
             py::arg("strict") = false, py::arg("tolerance") = py::none())
        .def("gather", &gather);
    return seq;
}

} // namespace vpy
