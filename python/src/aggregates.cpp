// aggregate, aggregate_window and resample: the table layer's kernels, asked
// for by name (count, sum, mean, min, max, first, last, argmin, argmax), and
// answered under the same names.
#include <pybind11/stl.h>

#include "convert.h"
#include "handles.h"
#include "velseq/calendar.hpp"
#include "velseq/datetime.h"

namespace vpy {

namespace {

// The kernels asked for; None: every kernel that applies to the column, in
// the layer's order.  Unknown names and kernels that do not apply are
// refused by the layer before it reads a value.
std::vector<std::string> kernels_for(const py::object &aggs, table::column_type t) {
    std::vector<std::string> names;
    if (!aggs.is_none()) {
        if (py::isinstance<py::str>(aggs))
            throw error(VEL_E_ILLEGAL_PARAM, "aggs is a list of kernel names, not one name");
        for (const py::handle &a : aggs)
            names.push_back(py::str(a));
        if (names.empty())
            throw error(VEL_E_ILLEGAL_PARAM, "aggs names no kernel");
        return names;
    }
    for (const table::kernel_info &k : table::kernels())
        if (table::applies(k.name, t))
            names.emplace_back(k.name);
    return names;
}

const table::column_type datetime_type{VEL_DD_SEQUENCE_DATETIME, 8};

// The raw datetime of a Python point in time.
vel_datetime time_of(const py::handle &v, const std::string &what) {
    const table::array a = value_in(v, datetime_type, what);
    vel_datetime raw;
    std::memcpy(&raw, a.values.data(), 8);
    return raw;
}

// ts, a datetime column of the same object as s.
table::column time_column(const Sequence &s, const Sequence &ts, const char *what) {
    if (ts.tx != s.tx || ts.h.oid != s.h.oid || ts.t->code != s.t->code)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    std::string(what) + ": the fields belong to different objects");
    if (ts.def().type.code != VEL_DD_SEQUENCE_DATETIME)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    std::string(what) + ": " + ts.what() + " is not a datetime64 field");
    return ts.column();
}

// The answers of `names` over positions [first, last) of c: the layer's
// kernels, and nulls (rows - count) and, with the time field ts,
// argmin_time and argmax_time (its times at argmin's and argmax's rows).
py::dict answers(const std::vector<std::string> &names, const table::column &c, uint64_t first,
                 uint64_t last, const table::column *ts) {
    std::vector<std::string> layer{"rows"};
    for (const std::string &n : names) {
        const bool timed = n == "argmin_time" || n == "argmax_time";
        if (timed && ts == nullptr)
            throw error(VEL_E_ILLEGAL_PARAM, n + " needs the time field: aggregate_window");
        layer.push_back(n == "nulls" ? "count" : timed ? n.substr(0, 6) : n);
    }
    std::vector<table::array> a;
    std::vector<table::array> times(names.size());
    {
        py::gil_scoped_release nogil;
        a = table::aggregate(c, first, last, layer);
        for (size_t j = 0; j < names.size(); j++)
            if (layer[j + 1] != names[j] && names[j] != "nulls" && a[j + 1].valid(0)) {
                uint64_t at;
                std::memcpy(&at, a[j + 1].values.data(), 8);
                times[j] = table::read(*ts, at, at + 1);
            }
    }
    py::dict d;
    for (size_t j = 0; j < names.size(); j++) {
        if (names[j] == "nulls") {
            uint64_t rows, count;
            std::memcpy(&rows, a[0].values.data(), 8);
            std::memcpy(&count, a[j + 1].values.data(), 8);
            d[py::str(names[j])] = rows - count;
        } else if (layer[j + 1] != names[j]) {
            d[py::str(names[j])] = times[j].length ? value_out(times[j], 0) : py::none();
        } else {
            d[py::str(names[j])] = value_out(a[j + 1], 0);
        }
    }
    return d;
}

// A summary's default answers: every kernel that applies, then the count of
// nulls, then (over a time window) the times of the extremes.
std::vector<std::string> summary_names(const py::object &aggs, table::column_type t, bool timed) {
    std::vector<std::string> names = kernels_for(aggs, t);
    if (!aggs.is_none())
        return names;
    names.emplace_back("nulls");
    if (timed)
        names.insert(names.end(), {"argmin_time", "argmax_time"});
    return names;
}

py::dict aggregate(const Sequence &s, uint64_t first, std::optional<uint64_t> last,
                   const py::object &aggs) {
    const table::column c = s.column();
    const std::vector<std::string> names = summary_names(aggs, c.type, false);
    return answers(names, c, first, last ? *last : table::count(c), nullptr);
}

// The kernels over the rows with from <= ts < to.
py::dict aggregate_window(const Sequence &s, const Sequence &ts, const py::object &from,
                          const py::object &to, const py::object &aggs) {
    const table::column t = time_column(s, ts, "aggregate");
    const table::column c = s.column();
    const std::vector<std::string> names = summary_names(aggs, c.type, true);
    table::array bounds;
    bounds.type = datetime_type;
    bounds.length = 2;
    bounds.values.resize(16);
    const vel_datetime ends[] = {time_of(from, "aggregate"), time_of(to, "aggregate")};
    std::memcpy(bounds.values.data(), ends, 16);
    std::pair<uint64_t, uint64_t> p;
    {
        py::gil_scoped_release nogil;
        p = table::search(t, bounds, table::bound::inclusive, table::bound::exclusive);
    }
    return answers(names, c, p.first, p.second, &t);
}

// Nanoseconds east of UTC: "+01:00", "-0430", "Z", or a duration.
int64_t offset_ns(const py::object &o) {
    if (o.is_none())
        return 0;
    if (py::isinstance<py::str>(o))
        return velseq::calendar::parse_offset(o.cast<std::string>());
    return duration_ns(o, "resample utc_offset");
}

// Buckets as columns: start, then a column per kernel under its name.  With
// `cal` (calendar units as the program writes them: "1M", "1W-TUE", ...)
// the buckets are calendar ones, `width` unused, and `last_day` holds the
// midnight that begins each bucket's last day.
py::dict resample(const Sequence &vals, const Sequence &ts, const py::object &width,
                  const py::object &from, const py::object &to, const py::object &origin,
                  const py::object &aggs, const py::object &cal, const py::object &utc_offset) {
    const table::column t = time_column(vals, ts, "resample");
    const table::column v = vals.column();
    const std::vector<std::string> names = kernels_for(aggs, v.type);
    std::optional<std::pair<vel_datetime, vel_datetime>> window;
    if (!from.is_none() || !to.is_none()) {
        if (from.is_none() || to.is_none())
            throw error(VEL_E_ILLEGAL_PARAM, "resample: give both ends of the window, or none");
        window.emplace(time_of(from, "resample"), time_of(to, "resample"));
    }
    const vel_datetime o = origin.is_none() ? vel_dt_from_ns(0) : time_of(origin, "resample");
    const int64_t offset = offset_ns(utc_offset);
    std::optional<velseq::calendar> c;
    if (!cal.is_none()) {
        c = velseq::calendar::parse(cal.cast<std::string>());
        if (!c)
            throw error(VEL_E_ILLEGAL_PARAM, "resample: '" + cal.cast<std::string>() +
                                                 "' is no calendar unit (1D, 1W-MON, 1M, 1Q, 1Y)");
        c->utc_offset_ns = offset;
        c->origin = o;
    }
    const int64_t width_ns = c ? 0 : duration_ns(width, "resample width");
    table::buckets b;
    table::array last_day;
    {
        py::gil_scoped_release nogil;
        b = c ? table::resample(t, v, *c, window, names)
              : table::resample(t, v, width_ns,
                                vel_dt_from_ns(vel_dt_to_ns(o) - (origin.is_none() ? offset : 0)),
                                window, names);
        if (c) {
            last_day.type = datetime_type;
            last_day.length = b.start.length;
            last_day.values.resize(8 * b.start.length);
            for (uint64_t i = 0; i < b.start.length; i++) {
                vel_datetime s;
                std::memcpy(&s, b.start.values.data() + 8 * i, 8);
                const vel_datetime l = table::calendar_bucket(*c, s).last_day;
                std::memcpy(last_day.values.data() + 8 * i, &l, 8);
            }
        }
    }
    py::dict d;
    d["start"] = array_out(b.start, py::none(), "resample");
    if (c)
        d["last_day"] = array_out(last_day, py::none(), "resample");
    for (size_t j = 0; j < names.size(); j++)
        d[py::str(names[j])] = array_out(b.answers[j], py::none(), "resample");
    return d;
}

// The instants that begin the local days years[i]-months[i]-days[i] (UTC +
// utc_offset), as datetime64[ns] counts; the first bad day is refused.
py::array_t<int64_t>
civil_times(const py::array_t<int64_t, py::array::c_style | py::array::forcecast> &y,
            const py::array_t<int64_t, py::array::c_style | py::array::forcecast> &m,
            const py::array_t<int64_t, py::array::c_style | py::array::forcecast> &d,
            const py::object &utc_offset) {
    const py::ssize_t n = y.size();
    if (m.size() != n || d.size() != n)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, "time_from_fields: the fields differ in length");
    const int64_t offset = offset_ns(utc_offset);
    py::array_t<int64_t> out(n);
    const int64_t *yp = y.data(), *mp = m.data(), *dp = d.data();
    int64_t *o = out.mutable_data();
    for (py::ssize_t i = 0; i < n; i++) {
        try {
            o[i] = vel_dt_to_ns(table::civil_time(yp[i], mp[i], dp[i], offset));
        } catch (const error &e) {
            throw error(e.code(),
                        "time_from_fields: row " + std::to_string(i) + ": " + table::refusal_of(e));
        }
    }
    return out;
}

} // namespace

void bind_aggregates(py::class_<Sequence> &seq) {
    seq.def("aggregate", &aggregate, py::arg("first") = 0, py::arg("last") = py::none(),
            py::arg("aggs") = py::none())
        .def("aggregate_window", &aggregate_window, py::arg("ts"), py::arg("start"), py::arg("end"),
             py::arg("aggs") = py::none())
        .def("resample_columns", &resample, py::arg("ts"), py::arg("width"),
             py::arg("start") = py::none(), py::arg("end") = py::none(),
             py::arg("origin") = py::none(), py::arg("aggs") = py::none(),
             py::arg("calendar") = py::none(), py::arg("utc_offset") = py::none())
        .def_static("_civil_times", &civil_times, py::arg("years"), py::arg("months"),
                    py::arg("days"), py::arg("utc_offset") = py::none());
}

} // namespace vpy
