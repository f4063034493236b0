// _velseq: the Python binding of the C++ API (velseq.hpp).
//
// Python sees a Database, Transactions (one connection each, bound to the
// thread that began them), Objects and Sequences.  Field element types are
// chosen at run time from NumPy dtypes, so every typed call goes through
// visit(), which instantiates the C++ API for each element type.
//
// Ownership: a Sequence or Object keeps its transaction's state alive, which
// keeps the database's state alive; the velseq::database itself is closed by
// Database.close() (refused while a transaction is open) or by the last
// reference.  Every call first checks that the database is open, that the
// transaction is open and that it is called from the thread that began it,
// so a stale handle raises instead of reaching freed memory.
//
// Values cross as NumPy arrays: appends read the caller's contiguous buffer
// in place (datetime64 of another unit is converted first); reads allocate
// the result and copy the module's tiles straight into it.  The GIL is
// released around every pass over the data.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>
#include <pybind11/stl.h>

#include <atomic>
#include <mutex>
#include <thread>

#include "velhost.h"
#include "velseq.hpp"
#include "velseq/image.hpp"

namespace py = pybind11;
using velseq::datetime;
using velseq::error;

namespace {

// ---- element types ------------------------------------------------------------

// The element types a field can have, by NumPy dtype name; `ch` is char(N),
// dtype S<N>, whose width N (1..32) a field keeps beside its type.
enum class elem : uint8_t { i1, i2, i4, i8, u1, u2, u4, u8, f4, f8, dt, ch };

struct elem_name {
    elem e;
    const char *dtype;
};
constexpr elem_name elem_names[] = {
    {elem::i1, "int8"},    {elem::i2, "int16"},          {elem::i4, "int32"},
    {elem::i8, "int64"},   {elem::u1, "uint8"},          {elem::u2, "uint16"},
    {elem::u4, "uint32"},  {elem::u8, "uint64"},         {elem::f4, "float32"},
    {elem::f8, "float64"}, {elem::dt, "datetime64[ns]"},
};

constexpr size_t max_chars = VELH_MAX_SEQ_CHAR_WIDTH;

std::string dtype_name(elem e, size_t width = 0) {
    if (e == elem::ch)
        return "S" + std::to_string(width);
    for (const elem_name &n : elem_names)
        if (n.e == e)
            return n.dtype;
    return "?";
}

template <class T> struct tag { using type = T; };

template <class T> struct is_chars : std::false_type {};
template <size_t N> struct is_chars<velseq::chars<N>> : std::true_type {};
template <class T> constexpr bool is_chars_v = is_chars<T>::value;

// char(N) for a width known at run time: one instantiation per width.
template <size_t N = 1, class F> decltype(auto) visit_chars(size_t width, F &&f) {
    if constexpr (N < max_chars) {
        if (width != N)
            return visit_chars<N + 1>(width, std::forward<F>(f));
    }
    return f(tag<velseq::chars<N>>{});
}

template <class F> decltype(auto) visit(elem e, size_t width, F &&f) {
    switch (e) {
    case elem::i1:
        return f(tag<int8_t>{});
    case elem::i2:
        return f(tag<int16_t>{});
    case elem::i4:
        return f(tag<int32_t>{});
    case elem::i8:
        return f(tag<int64_t>{});
    case elem::u1:
        return f(tag<uint8_t>{});
    case elem::u2:
        return f(tag<uint16_t>{});
    case elem::u4:
        return f(tag<uint32_t>{});
    case elem::u8:
        return f(tag<uint64_t>{});
    case elem::f4:
        return f(tag<float>{});
    case elem::f8:
        return f(tag<double>{});
    case elem::ch:
        return visit_chars(width, std::forward<F>(f));
    case elem::dt:
        break;
    }
    return f(tag<datetime>{});
}

template <class T> constexpr elem elem_of_t() {
    return std::is_same_v<T, int8_t>     ? elem::i1
           : std::is_same_v<T, int16_t>  ? elem::i2
           : std::is_same_v<T, int32_t>  ? elem::i4
           : std::is_same_v<T, int64_t>  ? elem::i8
           : std::is_same_v<T, uint8_t>  ? elem::u1
           : std::is_same_v<T, uint16_t> ? elem::u2
           : std::is_same_v<T, uint32_t> ? elem::u4
           : std::is_same_v<T, uint64_t> ? elem::u8
           : std::is_same_v<T, float>    ? elem::f4
           : std::is_same_v<T, double>   ? elem::f8
           : is_chars_v<T>               ? elem::ch
                                         : elem::dt;
}

template <class T> std::string type_name() { return dtype_name(elem_of_t<T>(), sizeof(T)); }

template <class T> py::dtype dtype_of() {
    if constexpr (std::is_same_v<T, datetime>)
        return py::dtype("datetime64[ns]");
    else if constexpr (is_chars_v<T>)
        return py::dtype("S" + std::to_string(sizeof(T)));
    else
        return py::dtype::of<T>();
}

// NumPy's NaT: the smallest int64.
constexpr int64_t nat = std::numeric_limits<int64_t>::min();

// ---- database, transaction ----------------------------------------------------

template <class... T> using seq_handle = std::variant<velseq::field<T>...>;
template <class... T> using value_handle = std::variant<velseq::scalar_field<T>...>;
template <template <class...> class H, class I> struct handles;
template <template <class...> class H, size_t... I> struct handles<H, std::index_sequence<I...>> {
    using type = H<int8_t, int16_t, int32_t, int64_t, uint8_t, uint16_t, uint32_t, uint64_t, float,
                   double, datetime, velseq::chars<I + 1>...>;
};
using any_seq = handles<seq_handle, std::make_index_sequence<max_chars>>::type;
using any_value = handles<value_handle, std::make_index_sequence<max_chars>>::type;

struct field_def {
    std::string name;
    bool is_seq;
    elem type;
    size_t width; // char(N): N
    velseq::order order;
    any_seq seq;
    any_value value;
};

struct class_def {
    velseq::schema schema;
    std::vector<field_def> fields;
    const field_def &field(const std::string &name) const {
        for (const field_def &f : fields)
            if (f.name == name)
                return f;
        throw error(VEL_E_HOST_NO_FIELD, "class " + schema.name() + " has no field '" + name + "'");
    }
};

struct db_state {
    std::unique_ptr<velseq::database> db;
    std::map<std::string, std::shared_ptr<class_def>> classes;
    std::atomic<int> open_transactions{0};
    // Threads with a write transaction open: a second one on the same thread
    // would wait for the first forever.
    std::mutex writers_mu;
    std::map<std::thread::id, int> writers;
    void require_open() const {
        if (!db)
            throw error(VEL_E_HOST_BAD_ARG, "the database is closed");
    }
    const class_def &cls(const std::string &name) const {
        require_open();
        auto it = classes.find(name);
        if (it == classes.end())
            throw error(VEL_E_HOST_NO_CLASS, "no class '" + name + "'");
        return *it->second;
    }
};

struct tx_state {
    std::shared_ptr<db_state> db;
    std::optional<velseq::connection> con;
    std::optional<velseq::transaction> tx;
    std::thread::id owner;
    bool write = false;

    tx_state(std::shared_ptr<db_state> d, bool w) : db(std::move(d)), write(w) {
        db->require_open();
        owner = std::this_thread::get_id();
        if (w) {
            std::lock_guard<std::mutex> g(db->writers_mu);
            if (db->writers[owner] > 0)
                throw error(VEL_E_HOST_BUSY, "this thread has a write transaction open already; "
                                             "a second one would wait for it forever");
            db->writers[owner]++;
        }
        try {
            con.emplace(*db->db);
            // Another thread's writer may hold the database: wait without the GIL.
            py::gil_scoped_release nogil;
            tx.emplace(*con, w ? velseq::transaction::write : velseq::transaction::read);
        } catch (...) {
            con.reset();
            forget_writer();
            throw;
        }
        db->open_transactions++;
    }
    ~tx_state() {
        try {
            end(false);
        } catch (const error &) { // a failed rollback leaves nothing to undo
        }
    }
    void forget_writer() {
        if (!write)
            return;
        std::lock_guard<std::mutex> g(db->writers_mu);
        if (--db->writers[owner] == 0)
            db->writers.erase(owner);
    }
    bool open() const { return tx.has_value(); }
    // Everything a call needs: an open transaction of this thread.
    void require() const {
        if (!tx)
            throw error(VEL_E_HOST_TRANS_CLOSED, "the transaction has ended");
        if (std::this_thread::get_id() != owner)
            throw error(VEL_E_HOST_BUSY,
                        "the transaction belongs to another thread; begin one per thread");
    }
    // Commits or rolls back, then gives the connection back.
    void end(bool commit) {
        if (!tx)
            return;
        struct release {
            tx_state &s;
            ~release() {
                s.tx.reset();
                s.con.reset();
                s.forget_writer();
                s.db->open_transactions--;
            }
        } r{*this};
        if (commit)
            tx->commit();
        else if (tx->is_open())
            tx->rollback();
    }
};

using tx_ptr = std::shared_ptr<tx_state>;

struct Object {
    tx_ptr tx;
    std::shared_ptr<class_def> cls;
    velseq::object obj;
};

struct Sequence {
    tx_ptr tx;
    std::shared_ptr<class_def> cls;
    velseq::object obj;
    const field_def *f;
    // The typed sequence, after the checks every call makes.
    template <class T> velseq::sequence<T> get() const {
        tx->require();
        return obj[std::get<velseq::field<T>>(f->seq)];
    }
    std::string what() const { return cls->schema.name() + "." + f->name; }
};

// ---- values in ----------------------------------------------------------------

// Held for the life of the process, never released: a static py::object
// would drop its reference at exit, after the interpreter has gone.
py::module_ &numpy() {
    static auto *np = new py::module_(py::module_::import("numpy"));
    return *np;
}

bool is_masked(const py::handle &h) {
    static auto *ma = new py::object(numpy().attr("ma").attr("MaskedArray"));
    return py::isinstance(h, *ma);
}

// A 1-d C-contiguous array of exactly `want` (any datetime64 unit when want is
// datetime64), or a list/scalar converted to it.  Bad ones raise.
py::array as_input(const py::handle &values, const py::dtype &want, bool datetime_any_unit,
                   const std::string &what) {
    py::array a;
    if (py::isinstance<py::array>(values)) {
        a = py::reinterpret_borrow<py::array>(values);
    } else {
        try {
            a = numpy().attr("asarray")(values, want);
        } catch (py::error_already_set &e) {
            throw error(VEL_E_ILLEGAL_TYPE, what + ": not convertible to " +
                                                std::string(py::str(py::handle(want))) + " (" +
                                                e.what() + ")");
        }
    }
    const bool ok = datetime_any_unit ? a.dtype().kind() == 'M' : a.dtype().equal(want);
    if (!ok)
        throw error(VEL_E_ILLEGAL_TYPE,
                    what + ": the field holds " + std::string(py::str(py::handle(want))) +
                        ", the array is " + std::string(py::str(py::handle(a.dtype()))));
    if (a.ndim() != 1)
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": a 1-d array is needed, got " + std::to_string(a.ndim()) + "-d");
    if (!(a.flags() & py::array::c_style))
        throw error(VEL_E_ILLEGAL_PARAM,
                    what + ": the array is not contiguous (pass np.ascontiguousarray(a))");
    return a;
}

// Nanoseconds per unit of a datetime64 dtype; 0 for units coarser than a day
// that are not a fixed length (years, months), -N for 1/N ns.
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

// datetime64 values of any unit as velseq datetimes; NaT marks a null.
struct datetimes {
    std::vector<datetime> values;
    std::vector<bool> nat;
    bool any_nat = false;
};
datetimes to_datetimes(py::array a, const std::string &what) {
    int64_t count = 1;
    int64_t k = ns_per_unit(a.dtype(), count);
    if (k == 0) { // years or months: through days, which NumPy converts exactly
        a = a.attr("astype")("datetime64[D]");
        k = ns_per_unit(a.dtype(), count);
    }
    const int64_t *src = static_cast<const int64_t *>(a.data());
    const size_t n = static_cast<size_t>(a.size());
    datetimes out;
    out.values.resize(n);
    out.nat.resize(n);
    py::gil_scoped_release nogil;
    for (size_t i = 0; i < n; i++) {
        if (src[i] == nat) {
            out.nat[i] = out.any_nat = true;
            continue;
        }
        int64_t ns = 0;
        bool bad;
        if (k > 0) {
            bad = __builtin_mul_overflow(src[i], count * k, &ns);
        } else {
            int64_t units = 0;
            bad = __builtin_mul_overflow(src[i], count, &units) || units % -k != 0;
            ns = units / -k;
        }
        if (bad) {
            py::gil_scoped_acquire gil;
            throw error(VEL_E_ILLEGAL_PARAM, what + ": value " + std::to_string(i) +
                                                 (k > 0 ? " lies outside 1677-09-21..2262-04-11"
                                                        : " has a fraction of a nanosecond"));
        }
        out.values[i] = datetime::from_ns(ns);
    }
    return out;
}

// A scalar of element type T from a Python object (datetimes: datetime64,
// pandas Timestamp, datetime.datetime or ISO-8601 text).
template <class T> T scalar_of(const py::handle &v, const std::string &what) {
    if constexpr (std::is_same_v<T, datetime>) {
        if (py::isinstance<py::str>(v))
            return datetime::parse(v.cast<std::string>());
        py::array a;
        try {
            a = numpy().attr("array")(numpy().attr("datetime64")(v, "ns")).attr("reshape")(1);
        } catch (py::error_already_set &e) {
            throw error(VEL_E_ILLEGAL_TYPE, what + ": not a point in time (" + e.what() + ")");
        }
        datetimes d = to_datetimes(a, what);
        if (d.any_nat)
            throw error(VEL_E_SEQ_NULL_VALUE, what + ": NaT is not a point in time");
        return d.values[0];
    } else if constexpr (is_chars_v<T>) {
        // bytes (np.bytes_ too); shorter values are padded with zero bytes,
        // so b"ab" and b"ab\0" are one value, as NumPy's S<N> has it.
        if (!py::isinstance<py::bytes>(v))
            throw error(VEL_E_ILLEGAL_TYPE, what + ": " + std::string(py::str(py::type::of(v))) +
                                                " is not bytes (the field holds " + type_name<T>() +
                                                ")");
        const std::string b = v.cast<std::string>();
        std::string_view sv(b);
        while (sv.size() > sizeof(T) && sv.back() == '\0')
            sv.remove_suffix(1);
        return T::from(sv);
    } else {
        try { // Python and NumPy numbers; integers are range-checked
            return v.cast<T>();
        } catch (py::cast_error &) {
            throw error(VEL_E_ILLEGAL_TYPE, what + ": " + std::string(py::str(py::type::of(v))) +
                                                " is not a " + type_name<T>() + " value");
        }
    }
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
        in.mask = as_input(m, py::dtype::of<bool>(), false, what + " (mask)");
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
                                            " (bytes), the array is " +
                                            std::string(py::str(py::handle(a.dtype()))));
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

// ---- values out ---------------------------------------------------------------

// An array of `n` elements plus a null mask that is written only once a null
// turns up, so that a field without nulls costs no mask.
template <class T> struct output {
    py::array values;
    py::array_t<bool> mask;
    bool any_null = false;
    explicit output(size_t n) : values(dtype_of<T>(), n), mask(n) {}
    output(py::array into, size_t n) : values(std::move(into)), mask(n) {}
    // Stores tile `t` at index `at`; without the GIL.
    void put(size_t at, const velseq::tile<T> &t) {
        const size_t k = t.size();
        if constexpr (std::is_same_v<T, datetime>) {
            int64_t *dst = static_cast<int64_t *>(values.mutable_data()) + at;
            for (size_t i = 0; i < k; i++)
                dst[i] = t.values[i].ns();
        } else {
            std::memcpy(static_cast<T *>(values.mutable_data()) + at, t.values.data(),
                        k * sizeof(T));
        }
        const bool nulls = velseq::detail::any_bit(t.nulls.words(), t.nulls.offset(), k);
        if (!nulls && !any_null)
            return;
        bool *m = mask.mutable_data();
        if (!any_null) {
            std::memset(m, 0, at);
            any_null = true;
        }
        for (size_t i = 0; i < k; i++) {
            m[at + i] = t.nulls[i];
            if constexpr (std::is_same_v<T, datetime>)
                if (m[at + i])
                    static_cast<int64_t *>(values.mutable_data())[at + i] = nat;
        }
    }
    void put_one(size_t at, const std::optional<T> &v) {
        bool *m = mask.mutable_data();
        if (!v && !any_null) {
            std::memset(m, 0, at);
            any_null = true;
        }
        if (any_null)
            m[at] = !v;
        if constexpr (std::is_same_v<T, datetime>)
            static_cast<int64_t *>(values.mutable_data())[at] = v ? v->ns() : nat;
        else
            static_cast<T *>(values.mutable_data())[at] = v ? *v : T{};
    }
    // A plain array, or a masked one when nulls turned up.
    py::object result() {
        if (!any_null)
            return values;
        return numpy().attr("ma").attr("MaskedArray")(values, py::arg("mask") = mask);
    }
};

template <class T> py::object value_out(const std::optional<T> &v) {
    if (!v)
        return py::none();
    if constexpr (std::is_same_v<T, datetime>)
        return numpy().attr("datetime64")(v->ns(), "ns");
    else if constexpr (is_chars_v<T>)
        return numpy().attr("bytes_")(py::bytes(std::string(v->view())));
    else
        return dtype_of<T>().attr("type")(*v);
}

// ---- sequence operations ----------------------------------------------------------

template <class T>
void write(const Sequence &s, std::optional<uint64_t> pos, const py::handle &values,
           const py::object &mask) {
    const std::string what = (pos ? "insert into " : "append to ") + s.what();
    velseq::sequence<T> seq = s.get<T>();
    input in = split_masked(values, mask, what);
    if constexpr (is_chars_v<T>)
        in.values = chars_input(in.values, sizeof(T), what);
    py::array a = as_input(in.values, dtype_of<T>(), std::is_same_v<T, datetime>, what);
    const size_t n = static_cast<size_t>(a.size());
    if (in.mask && static_cast<size_t>(in.mask->size()) != n)
        throw error(VEL_E_SEQ_LENGTH_MISMATCH, what + ": " + std::to_string(in.mask->size()) +
                                                   " mask flags for " + std::to_string(n) +
                                                   " values");
    const bool *m = in.mask ? static_cast<const bool *>(in.mask->data()) : nullptr;
    const T *v;
    std::vector<T> converted;
    std::vector<char> nat_or_mask;
    if constexpr (std::is_same_v<T, datetime>) {
        datetimes d = to_datetimes(a, what);
        converted = std::move(d.values);
        v = converted.data();
        if (d.any_nat) { // NaT: a null like a masked value
            nat_or_mask.resize(n);
            for (size_t i = 0; i < n; i++)
                nat_or_mask[i] = d.nat[i] || (m && m[i]);
            m = reinterpret_cast<const bool *>(nat_or_mask.data());
        }
    } else {
        v = static_cast<const T *>(a.data());
    }
    py::gil_scoped_release nogil;
    const velseq::span<const T> vals(v, n);
    bool any = false;
    for (size_t i = 0; m && i < n && !any; i++)
        any = m[i];
    if (!any) {
        if (pos)
            seq.insert(*pos, vals);
        else
            seq.append(vals);
        return;
    }
    if (pos) { // the C++ API inserts nulls given as optionals
        std::vector<std::optional<T>> o(n);
        for (size_t i = 0; i < n; i++)
            if (!m[i])
                o[i] = v[i];
        seq.insert(*pos, velseq::span<const std::optional<T>>(o));
    } else {
        seq.append(vals, velseq::span<const bool>(m, n));
    }
}

template <class T>
py::object read(const Sequence &s, uint64_t first, std::optional<uint64_t> last,
                const py::object &into) {
    velseq::sequence<T> seq = s.get<T>();
    const uint64_t end = last ? *last : seq.size();
    velseq::tile_range<T> tiles = seq.tiles(first, end); // checks the range
    const size_t n = static_cast<size_t>(end - first);
    std::optional<output<T>> made;
    if (into.is_none()) {
        made.emplace(n);
    } else { // the caller's buffer: exactly the field's dtype, writable, n long
        py::array a = as_input(into, dtype_of<T>(), false, "read " + s.what() + " into out");
        if (!a.writeable())
            throw error(VEL_E_ILLEGAL_PARAM, "read " + s.what() + ": out is read-only");
        if (static_cast<size_t>(a.size()) != n)
            throw error(VEL_E_SEQ_LENGTH_MISMATCH, "read " + s.what() + ": out holds " +
                                                       std::to_string(a.size()) + " values, not " +
                                                       std::to_string(n));
        made.emplace(a, n);
    }
    output<T> &out = *made;
    {
        py::gil_scoped_release nogil;
        size_t at = 0;
        for (const velseq::tile<T> &t : tiles) {
            out.put(at, t);
            at += t.size();
        }
    }
    return out.result();
}

velseq::bound bound_of(const std::string &b) {
    if (b == "inclusive")
        return velseq::bound::inclusive;
    if (b == "exclusive")
        return velseq::bound::exclusive;
    if (b == "open")
        return velseq::bound::open;
    throw error(VEL_E_ILLEGAL_PARAM,
                "a bound is 'inclusive', 'exclusive' or 'open', not '" + b + "'");
}

template <class T>
std::pair<uint64_t, uint64_t> search(const Sequence &s, const py::object &lo, const py::object &hi,
                                     const std::string &lo_b, const std::string &hi_b) {
    velseq::sequence<T> seq = s.get<T>();
    const velseq::bound lk = lo.is_none() ? velseq::bound::open : bound_of(lo_b);
    const velseq::bound hk = hi.is_none() ? velseq::bound::open : bound_of(hi_b);
    const T l = lo.is_none() ? T{} : scalar_of<T>(lo, "search " + s.what());
    const T h = hi.is_none() ? T{} : scalar_of<T>(hi, "search " + s.what());
    py::gil_scoped_release nogil;
    const velseq::position_range r = seq.search(l, h, lk, hk);
    return {r.first, std::max(r.first, r.last)};
}

velseq::direction direction_of(const std::string &d) {
    if (d == "backward")
        return velseq::direction::backward;
    if (d == "forward")
        return velseq::direction::forward;
    if (d == "nearest")
        return velseq::direction::nearest;
    throw error(VEL_E_ILLEGAL_PARAM,
                "a direction is 'backward', 'forward' or 'nearest', not '" + d + "'");
}

// Positions of the as-of matches of the probes; masked where none matches.
template <class K>
py::object asof_impl(const Sequence &s, const py::handle &probes, const std::string &dir,
                     bool strict, const py::object &tolerance) {
    const std::string what = "asof on " + s.what();
    velseq::sequence<K> keys = s.get<K>();
    velseq::asof_options<K> opt;
    opt.dir = direction_of(dir);
    opt.strict = strict;
    py::array a = as_input(probes, dtype_of<K>(), std::is_same_v<K, datetime>, what);
    const size_t n = static_cast<size_t>(a.size());
    std::vector<K> kept; // probes that are not NaT
    std::vector<size_t> where;
    const K *p = nullptr;
    if constexpr (std::is_same_v<K, datetime>) {
        if (!tolerance.is_none()) {
            const int64_t t = py::isinstance<py::int_>(tolerance)
                                  ? tolerance.cast<int64_t>()
                                  : numpy()
                                        .attr("timedelta64")(tolerance, "ns")
                                        .attr("astype")("int64")
                                        .cast<int64_t>();
            if (t < 0)
                throw error(VEL_E_ILLEGAL_PARAM, what + ": negative tolerance");
            opt.tolerance = std::chrono::nanoseconds(t);
        }
        datetimes d = to_datetimes(a, what);
        if (d.any_nat) {
            for (size_t i = 0; i < n; i++)
                if (!d.nat[i]) {
                    kept.push_back(d.values[i]);
                    where.push_back(i);
                }
        } else {
            kept = std::move(d.values);
        }
        p = kept.data();
    } else {
        if (!tolerance.is_none()) {
            using D = typename velseq::key_distance<K>::type;
            const double t = tolerance.cast<double>();
            if (!(t >= 0))
                throw error(VEL_E_ILLEGAL_PARAM, what + ": the tolerance must be >= 0");
            opt.tolerance = static_cast<D>(t);
        }
        p = static_cast<const K *>(a.data());
    }
    const size_t m = where.empty() ? n : kept.size();
    py::array_t<int64_t> pos(n);
    py::array_t<bool> mask(n);
    {
        py::gil_scoped_release nogil;
        const auto found = velseq::asof(keys, velseq::span<const K>(p, m), opt);
        int64_t *o = pos.mutable_data();
        bool *mk = mask.mutable_data();
        std::fill(mk, mk + n, true);
        std::fill(o, o + n, 0);
        for (size_t i = 0; i < m; i++) {
            const size_t at = where.empty() ? i : where[i];
            if (found[i]) {
                o[at] = static_cast<int64_t>(*found[i]);
                mk[at] = false;
            }
        }
    }
    return numpy().attr("ma").attr("MaskedArray")(pos, py::arg("mask") = mask);
}

// The values at the given positions (masked positions give masked values).
template <class V> py::object gather(const Sequence &s, const py::handle &positions) {
    const std::string what = "gather from " + s.what();
    velseq::sequence<V> col = s.get<V>();
    input in = split_masked(positions, py::none(), what);
    py::array a = as_input(in.values, py::dtype::of<int64_t>(), false, what);
    const size_t n = static_cast<size_t>(a.size());
    const int64_t *p = static_cast<const int64_t *>(a.data());
    const bool *m = in.mask ? static_cast<const bool *>(in.mask->data()) : nullptr;
    output<V> out(n);
    {
        py::gil_scoped_release nogil;
        std::vector<std::optional<uint64_t>> want(n);
        for (size_t i = 0; i < n; i++) {
            if (m && m[i])
                continue;
            if (p[i] < 0) {
                py::gil_scoped_acquire gil;
                throw error(VEL_E_ILLEGAL_PARAM, what + ": negative position");
            }
            want[i] = static_cast<uint64_t>(p[i]);
        }
        const auto got = velseq::gather(col, velseq::span<const std::optional<uint64_t>>(want));
        for (size_t i = 0; i < n; i++)
            out.put_one(i, got[i]);
    }
    return out.result();
}

template <class T> py::dict summary_out(const velseq::summary<T> &s) {
    py::dict d;
    d["rows"] = s.rows;
    d["count"] = s.count;
    if constexpr (std::is_arithmetic_v<T>)
        d["sum"] = s.sum;
    else
        d["sum"] = py::none();
    d["min"] = value_out(s.min);
    d["max"] = value_out(s.max);
    d["mean"] = s.mean() ? py::object(py::float_(*s.mean())) : py::none();
    d["first"] = value_out(s.first);
    d["last"] = value_out(s.last);
    return d;
}

template <class T>
py::dict aggregate_impl(const Sequence &s, uint64_t first, std::optional<uint64_t> last) {
    velseq::sequence<T> seq = s.get<T>();
    velseq::summary<T> r;
    {
        py::gil_scoped_release nogil;
        r = velseq::aggregate(seq, velseq::position_range{first, last ? *last : seq.size()});
    }
    return summary_out(r);
}

const Sequence &datetime_field(const Sequence &s, const char *what) {
    if (s.f->type != elem::dt)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    std::string(what) + ": " + s.what() + " is not a datetime64 field");
    return s;
}

void same_object(const Sequence &a, const Sequence &b, const char *what) {
    if (a.tx != b.tx || a.obj.oid() != b.obj.oid() || a.cls != b.cls)
        throw error(VEL_E_HOST_WRONG_FIELD,
                    std::string(what) + ": the fields belong to different objects");
}

template <class T>
py::dict aggregate_window_impl(const Sequence &s, const Sequence &ts, const py::object &from,
                               const py::object &to) {
    same_object(s, datetime_field(ts, "aggregate"), "aggregate");
    velseq::sequence<T> seq = s.get<T>();
    velseq::sequence<datetime> t = ts.get<datetime>();
    const datetime f = scalar_of<datetime>(from, "aggregate");
    const datetime e = scalar_of<datetime>(to, "aggregate");
    velseq::summary<T> r;
    {
        py::gil_scoped_release nogil;
        r = velseq::aggregate(seq, t, f, e);
    }
    return summary_out(r);
}

// As-of keys and aggregates are numbers and times; a char(N) field has
// neither distances nor sums.
error not_for_chars(const Sequence &s, const char *what) {
    return error(VEL_E_HOST_WRONG_FIELD,
                 std::string(what) + ": " + s.what() + " is a char field (numbers and times only)");
}

template <class K>
py::object asof(const Sequence &s, const py::handle &probes, const std::string &dir, bool strict,
                const py::object &tolerance) {
    if constexpr (is_chars_v<K>)
        throw not_for_chars(s, "asof");
    else
        return asof_impl<K>(s, probes, dir, strict, tolerance);
}

template <class T>
py::dict aggregate(const Sequence &s, uint64_t first, std::optional<uint64_t> last) {
    if constexpr (is_chars_v<T>)
        throw not_for_chars(s, "aggregate");
    else
        return aggregate_impl<T>(s, first, last);
}

template <class T>
py::dict aggregate_window(const Sequence &s, const Sequence &ts, const py::object &from,
                          const py::object &to) {
    if constexpr (is_chars_v<T>)
        throw not_for_chars(s, "aggregate");
    else
        return aggregate_window_impl<T>(s, ts, from, to);
}

// OHLC bars as columns: start, rows, count, sum, first, max, min, last.
template <class V>
py::dict resample(const Sequence &ts, const Sequence &vals, int64_t width_ns,
                  const py::object &from, const py::object &to, const py::object &origin) {
    if constexpr (!std::is_arithmetic_v<V>) {
        throw error(VEL_E_HOST_WRONG_FIELD, "resample: " + vals.what() + " is not numeric");
    } else {
        same_object(vals, datetime_field(ts, "resample"), "resample");
        velseq::sequence<datetime> t = ts.get<datetime>();
        velseq::sequence<V> v = vals.get<V>();
        std::optional<std::pair<datetime, datetime>> window;
        if (!from.is_none() || !to.is_none()) {
            if (from.is_none() || to.is_none())
                throw error(VEL_E_ILLEGAL_PARAM, "resample: give both ends of the window, or none");
            window.emplace(scalar_of<datetime>(from, "resample"),
                           scalar_of<datetime>(to, "resample"));
        }
        const datetime o =
            origin.is_none() ? datetime::from_ns(0) : scalar_of<datetime>(origin, "resample");
        std::vector<velseq::bar<V>> bars;
        {
            py::gil_scoped_release nogil;
            bars = velseq::resample(t, v, std::chrono::nanoseconds(width_ns), window, o);
        }
        const size_t n = bars.size();
        py::array_t<int64_t> start(n);
        py::array_t<uint64_t> rows(n), count(n);
        using S = velseq::sum_t<V>;
        py::array_t<S> sum(n);
        output<V> first(n), max(n), min(n), last(n);
        for (size_t i = 0; i < n; i++) {
            const velseq::bar<V> &b = bars[i];
            start.mutable_data()[i] = b.start.ns();
            rows.mutable_data()[i] = b.rows;
            count.mutable_data()[i] = b.count;
            sum.mutable_data()[i] = b.sum;
            first.put_one(i, b.first);
            max.put_one(i, b.max);
            min.put_one(i, b.min);
            last.put_one(i, b.last);
        }
        py::dict d;
        d["start"] = start.attr("view")("datetime64[ns]");
        d["first"] = first.result();
        d["max"] = max.result();
        d["min"] = min.result();
        d["last"] = last.result();
        d["count"] = count;
        d["sum"] = sum;
        d["rows"] = rows;
        return d;
    }
}

// ---- schema from Python ---------------------------------------------------------

struct field_type {
    elem type;
    size_t width;
};

field_type elem_of(const py::handle &dtype) {
    py::dtype dt = numpy().attr("dtype")(dtype);
    if (dt.kind() == 'M')
        return {elem::dt, 0};
    if (dt.kind() == 'S') {
        const auto w = static_cast<size_t>(dt.itemsize());
        if (w < 1 || w > max_chars)
            throw error(VEL_E_ILLEGAL_TYPE, "a char field is S1..S" + std::to_string(max_chars) +
                                                ", not " + std::string(py::str(py::handle(dt))));
        return {elem::ch, w};
    }
    for (const elem_name &n : elem_names)
        if (dt.equal(py::dtype(n.dtype)))
            return {n.e, 0};
    throw error(VEL_E_ILLEGAL_TYPE, "no field type for dtype " +
                                        std::string(py::str(py::handle(dt))) +
                                        " (int8..uint64, float32, float64, datetime64, S1..S32)");
}

// The element type of a field the host defined (an image of another program).
std::optional<field_type> elem_of_dd(uint8_t dd, uint16_t elem_size, bool &is_seq) {
    static const std::pair<uint8_t, elem> scalars[] = {
        {VEL_DD_INT1, elem::i1},   {VEL_DD_INT2, elem::i2},     {VEL_DD_INT4, elem::i4},
        {VEL_DD_INT8, elem::i8},   {VEL_DD_UINT1, elem::u1},    {VEL_DD_UINT2, elem::u2},
        {VEL_DD_UINT4, elem::u4},  {VEL_DD_UINT8, elem::u8},    {VEL_DD_FLOAT, elem::f4},
        {VEL_DD_DOUBLE, elem::f8}, {VEL_DD_DATETIME, elem::dt}, {VEL_DD_CHAR, elem::ch}};
    is_seq = dd >= VEL_DD_SEQUENCE_UINT1;
    uint8_t scalar = dd;
    if (dd == VEL_DD_SEQUENCE_DATETIME)
        scalar = VEL_DD_DATETIME;
    else if (dd == VEL_DD_SEQUENCE_CHAR)
        scalar = VEL_DD_CHAR;
    else if (is_seq)
        scalar = static_cast<uint8_t>(dd - VEL_DD_SEQUENCE_UINT1 + VEL_DD_UINT1);
    for (const auto &[d, e] : scalars)
        if (d == scalar) {
            if (e == elem::ch && (elem_size < 1 || elem_size > max_chars))
                return std::nullopt;
            return field_type{e, e == elem::ch ? elem_size : size_t{0}};
        }
    return std::nullopt;
}

velseq::order order_of(const std::string &o) {
    if (o == "none")
        return velseq::order::none;
    if (o == "ascending")
        return velseq::order::ascending;
    if (o == "descending")
        return velseq::order::descending;
    throw error(VEL_E_ILLEGAL_PARAM,
                "an order is 'none', 'ascending' or 'descending', not '" + o + "'");
}

const char *order_name(velseq::order o) {
    return o == velseq::order::ascending    ? "ascending"
           : o == velseq::order::descending ? "descending"
                                            : "none";
}

// Declares field `f` in class `c`'s schema.
void declare(class_def &c, field_def f) {
    visit(f.type, f.width, [&](auto t) {
        using T = typename decltype(t)::type;
        if (f.is_seq)
            f.seq = c.schema.seq<T>(f.name, f.order);
        else
            f.value = c.schema.value<T>(f.name);
    });
    c.fields.push_back(std::move(f));
}

// ---- the catalogue ----------------------------------------------------------------
//
// The host keeps a class's field types but not the names Python gave its
// classes and fields, nor the fields' orders.  Those live in the database
// itself, so that an image or a log carries them with the classes: class
// "velseq.catalog" holds one object whose char(32) field of the same name
// holds this text in 32-byte pieces (the last padded with zero bytes):
//
//   class <code>\t<name>\n                                  per class, by code
//   field <name>\t<seq|value>\t<dtype>\t<order>\n           per field, in order
//
// It is rewritten whole by every define(), in a write transaction of its
// own.  Names hold no tab, newline or zero byte.  Classes it does not name
// (defined by another program) open as "class<code>" with fields "f<i>",
// unordered.

constexpr const char *catalog_name = "velseq.catalog";
using catalog_piece = velseq::chars<32>;

struct catalog {
    velseq::schema schema{catalog_name};
    velseq::field<catalog_piece> text;
    bool defined = false;
};

std::optional<velseq::object> catalog_object(velseq::transaction &tx, const velseq::schema &s) {
    vel_cursor_t cur;
    vel_objhandle_t h{};
    vel_trans_h trans = &tx.connection_handle()->trans;
    VEL_RET rc = vel_w_list_cursor(trans, s.code(), &cur);
    if (rc == VEL_S_CURSOR_EMPTY)
        return std::nullopt;
    velseq::detail::check(rc, "listing the catalogue");
    rc = vel_cursor_first(trans, &cur);
    if (rc == VEL_S_CURSOR_END)
        return std::nullopt;
    velseq::detail::check(rc, "listing the catalogue");
    velseq::detail::check(vel_w_obj_from_cursor(trans, &cur, s.code(), &h),
                          "opening the catalogue");
    return tx.open(s, h.oid);
}

std::string catalog_text(const std::map<std::string, std::shared_ptr<class_def>> &classes) {
    std::vector<const class_def *> by_code;
    for (const auto &c : classes)
        by_code.push_back(c.second.get());
    std::sort(by_code.begin(), by_code.end(), [](const class_def *a, const class_def *b) {
        return a->schema.code() < b->schema.code();
    });
    std::string t;
    for (const class_def *c : by_code) {
        t += "class " + std::to_string(c->schema.code()) + "\t" + c->schema.name() + "\n";
        for (const field_def &f : c->fields)
            t += "field " + f.name + "\t" + (f.is_seq ? "seq" : "value") + "\t" +
                 dtype_name(f.type, f.width) + "\t" + order_name(f.order) + "\n";
    }
    return t;
}

struct catalog_class {
    std::string name;
    std::vector<std::tuple<std::string, bool, field_type, velseq::order>> fields;
};

// Parses catalog_text(); lines it cannot read are skipped (their class then
// opens under its placeholder names, as one no catalogue names).
std::map<uint16_t, catalog_class> parse_catalog(const std::string &text) {
    std::map<uint16_t, catalog_class> out;
    catalog_class *cur = nullptr;
    size_t at = 0;
    while (at < text.size()) {
        size_t end = text.find('\n', at);
        if (end == std::string::npos)
            end = text.size();
        const std::string line = text.substr(at, end - at);
        at = end + 1;
        std::vector<std::string> parts;
        for (size_t p = line.find(' ') + 1, q; p != 0 && p <= line.size(); p = q + 1) {
            q = line.find('\t', p);
            if (q == std::string::npos)
                q = line.size();
            parts.push_back(line.substr(p, q - p));
        }
        try {
            if (line.rfind("class ", 0) == 0 && parts.size() == 2) {
                cur = &out[static_cast<uint16_t>(std::stoul(parts[0]))];
                cur->name = parts[1];
            } else if (line.rfind("field ", 0) == 0 && parts.size() == 4 && cur) {
                cur->fields.emplace_back(parts[0], parts[1] == "seq", elem_of(py::str(parts[2])),
                                         order_of(parts[3]));
            }
        } catch (const std::exception &) {
            cur = nullptr;
        }
    }
    return out;
}

struct Database {
    std::shared_ptr<db_state> st = std::make_shared<db_state>();
    std::shared_ptr<catalog> cat = std::make_shared<catalog>();

    explicit Database(uint32_t page_size) {
        velseq::config cfg;
        if (page_size != 0)
            cfg.seq_page_size = page_size;
        st->db = std::make_unique<velseq::database>(cfg);
    }
    // fields: (name, "seq" | "value", dtype, order)
    void define(
        const std::string &name,
        const std::vector<std::tuple<std::string, std::string, py::object, std::string>> &fields) {
        st->require_open();
        if (st->classes.count(name))
            throw error(VEL_E_HOST_BAD_ARG, "class '" + name + "' is already defined");
        if (fields.empty())
            throw error(VEL_E_HOST_BAD_ARG, "class '" + name + "' needs a field");
        auto plain = [](const std::string &n) {
            return !n.empty() && n.find_first_of(std::string("\t\n\0", 3)) == std::string::npos &&
                   n != catalog_name;
        };
        if (!plain(name))
            throw error(VEL_E_HOST_BAD_ARG, "a class name is not empty and holds no tab, newline "
                                            "or zero byte (and is not velseq.catalog)");
        velseq::detail::check_name(name, "class name"); // before the catalogue is defined
        if (opened && opened->read_only)
            throw error(VEL_E_HOST_READ_ONLY, "define: the database was opened read-only");
        auto c = std::make_shared<class_def>(class_def{velseq::schema(name), {}});
        for (const auto &[fname, kind, dtype, ord] : fields) {
            for (const field_def &f : c->fields)
                if (f.name == fname)
                    throw error(VEL_E_HOST_BAD_ARG, "field '" + fname + "' given twice");
            if (!plain(fname))
                throw error(VEL_E_HOST_BAD_ARG,
                            "a field name is not empty and holds no tab, newline or zero byte");
            velseq::detail::check_name(fname, "field " + std::to_string(c->fields.size()) +
                                                  " of class '" + velseq::detail::shortened(name) +
                                                  "': name");
            const field_type ft = elem_of(dtype);
            field_def f{fname, kind == "seq", ft.type, ft.width, order_of(ord), {}, {}};
            if (kind != "seq" && kind != "value")
                throw error(VEL_E_HOST_BAD_ARG, "a field is 'seq' or 'value', not '" + kind + "'");
            if (!f.is_seq && f.order != velseq::order::none)
                throw error(VEL_E_HOST_BAD_ARG, "scalar field '" + fname + "' has no order");
            declare(*c, std::move(f));
        }
        {
            std::lock_guard<std::mutex> g(st->writers_mu);
            if (st->writers.count(std::this_thread::get_id()))
                throw error(VEL_E_HOST_BUSY,
                            "define classes while this thread has no write transaction open "
                            "(the class's description is written in a transaction of its own)");
        }
        if (!cat->defined) {
            cat->text = cat->schema.seq<catalog_piece>(catalog_name);
            st->db->define(cat->schema);
            cat->defined = true;
        }
        st->db->define(c->schema);
        st->classes[name] = c;
        write_catalog();
    }

    void write_catalog() {
        const std::string text = catalog_text(st->classes);
        std::vector<catalog_piece> pieces((text.size() + sizeof(catalog_piece) - 1) /
                                          sizeof(catalog_piece));
        std::memcpy(static_cast<void *>(pieces.data()), text.data(), text.size());
        velseq::connection con(*st->db);
        std::optional<velseq::transaction> tx;
        {
            py::gil_scoped_release nogil; // another thread's writer may hold the database
            tx.emplace(con, velseq::transaction::write);
        }
        std::optional<velseq::object> o = catalog_object(*tx, cat->schema);
        if (!o)
            o = tx->create(cat->schema);
        velseq::sequence<catalog_piece> seq = (*o)[cat->text];
        seq.truncate();
        seq.append(velseq::span<const catalog_piece>(pieces));
        tx->commit();
    }

    // Replaces the (fresh) database by the one of image `path` (none: the
    // empty one) and `log`, with the classes the image and log define.
    // Returns what the open left out of the log ("" : nothing).
    std::string open_file(const std::optional<std::string> &path,
                          const std::optional<std::string> &log, const std::string &sync,
                          uint32_t group_ms, bool read_only, bool recover) {
        velseq::config cfg;
        cfg.open_flags =
            (read_only ? VELH_OPEN_READ_ONLY : 0u) | (recover ? VELH_OPEN_RECOVER : 0u);
        if (log) {
            cfg.log_path = log->c_str();
            cfg.log_sync = sync == "commit"  ? VELH_LOG_SYNC_COMMIT
                           : sync == "group" ? VELH_LOG_SYNC_GROUP
                           : sync == "none"  ? VELH_LOG_SYNC_NONE
                                             : -1;
            if (cfg.log_sync < 0)
                throw error(VEL_E_ILLEGAL_PARAM,
                            "sync is 'commit', 'group' or 'none', not '" + sync + "'");
            if (group_ms != 0)
                cfg.log_group_ms = group_ms;
        } else if (!path) {
            throw error(VEL_E_ILLEGAL_PARAM, "open: give an image, a log or both");
        }
        velseq::open_report report;
        std::unique_ptr<velseq::database> db;
        {
            py::gil_scoped_release nogil;
            db = velseq::open_image(path ? *path : std::string(), cfg, report);
        }
        velh_db_t *h = db->get();
        const velh_open_stats_t &stats = report.stats;

        // The catalogue first, then every other class under its names.
        const auto n_classes = static_cast<uint16_t>(stats.classes);
        uint16_t cat_code = 0;
        for (uint16_t code = 1; code <= n_classes && cat_code == 0; code++) {
            velh_field_info_t fi;
            if (velh_field_by_name(h, code, catalog_name, &fi) == VEL_S_OK && fi.fld_no == 0 &&
                fi.type == VEL_DD_SEQUENCE_CHAR && fi.elem_size == sizeof(catalog_piece))
                cat_code = code;
        }
        auto new_cat = std::make_shared<catalog>();
        std::map<uint16_t, catalog_class> named;
        if (cat_code != 0) {
            new_cat->text = new_cat->schema.seq<catalog_piece>(catalog_name);
            velseq::attach(*db, new_cat->schema, cat_code);
            new_cat->defined = true;
            velseq::connection con(*db);
            velseq::transaction tx(con, velseq::transaction::read);
            std::string text;
            if (std::optional<velseq::object> o = catalog_object(tx, new_cat->schema))
                for (const auto &piece : (*o)[new_cat->text].elements())
                    if (piece)
                        text.append(piece->view());
            named = parse_catalog(text);
        }
        std::map<std::string, std::shared_ptr<class_def>> classes;
        for (uint16_t code = 1; code <= n_classes; code++) {
            if (code == cat_code)
                continue;
            std::vector<velh_field_info_t> info;
            velh_field_info_t fi;
            while (velh_field_info(h, code, static_cast<uint16_t>(info.size()), &fi) == VEL_S_OK)
                info.push_back(fi);
            auto it = named.find(code);
            bool use_names = it != named.end() && it->second.fields.size() == info.size() &&
                             !classes.count(it->second.name);
            std::vector<field_def> defs;
            for (size_t i = 0; i < info.size(); i++) {
                bool is_seq = false;
                const std::optional<field_type> ft =
                    elem_of_dd(info[i].type, info[i].elem_size, is_seq);
                if (!ft)
                    break; // a type Python has no dtype for: the class is left out
                defs.push_back(field_def{"f" + std::to_string(i),
                                         is_seq,
                                         ft->type,
                                         ft->width,
                                         velseq::order::none,
                                         {},
                                         {}});
                if (use_names) {
                    const auto &[fname, fseq, fty, ford] = it->second.fields[i];
                    if (fseq != is_seq || fty.type != ft->type || fty.width != ft->width)
                        use_names = false;
                    else
                        defs.back().name = fname, defs.back().order = ford;
                }
            }
            if (defs.size() != info.size() || defs.empty())
                continue;
            const std::string cname = use_names ? it->second.name : "class" + std::to_string(code);
            auto c = std::make_shared<class_def>(class_def{velseq::schema(cname), {}});
            for (size_t i = 0; i < defs.size(); i++) {
                if (!use_names) {
                    defs[i].name = "f" + std::to_string(i);
                    defs[i].order = velseq::order::none;
                }
                declare(*c, std::move(defs[i]));
            }
            velseq::attach(*db, c->schema, code);
            classes[cname] = c;
        }
        st->db = std::move(db);
        st->classes = std::move(classes);
        cat = std::move(new_cat);
        opened = report;
        return report.losses();
    }
    std::optional<velseq::open_report> opened; // of open_file

    void save(const std::string &path) { write_image(velh_db_save, path, "saving to "); }
    void checkpoint(const std::string &path) {
        write_image(velh_checkpoint, path, "checkpointing to ");
    }
    // An image of the database written to `path` without the GIL.
    void write_image(VEL_RET (*write)(velh_db_t *, const char *), const std::string &path,
                     const char *what) {
        st->require_open();
        VEL_RET rc;
        {
            py::gil_scoped_release nogil;
            rc = write(st->db->get(), path.c_str());
        }
        velseq::detail::check_file(rc, what + path);
    }

    void close() {
        if (!st->db)
            return;
        if (st->open_transactions > 0)
            throw error(VEL_E_HOST_BUSY, "a transaction is still open; commit or roll it back");
        st->db.reset();
    }
};

struct Transaction {
    tx_ptr st;
    Transaction(const Database &db, bool write) : st(std::make_shared<tx_state>(db.st, write)) {}
    Object make(const std::string &cls, const std::function<velseq::object(velseq::schema &)> &f) {
        st->require();
        std::shared_ptr<class_def> c;
        st->db->cls(cls);
        c = st->db->classes[cls];
        return Object{st, c, f(c->schema)};
    }
};

py::object get_value(const Object &o, const std::string &name) {
    o.tx->require();
    const field_def &f = o.cls->field(name);
    if (f.is_seq)
        return py::cast(Sequence{o.tx, o.cls, o.obj, &f});
    return visit(f.type, f.width, [&](auto t) -> py::object {
        using T = typename decltype(t)::type;
        return value_out(std::optional<T>(o.obj.get(std::get<velseq::scalar_field<T>>(f.value))));
    });
}

void set_value(const Object &o, const std::string &name, const py::object &v) {
    o.tx->require();
    const field_def &f = o.cls->field(name);
    if (f.is_seq)
        throw error(VEL_E_HOST_WRONG_FIELD, name + " is a sequence field: use append or insert");
    visit(f.type, f.width, [&](auto t) {
        using T = typename decltype(t)::type;
        o.obj.set(std::get<velseq::scalar_field<T>>(f.value), scalar_of<T>(v, "set " + name));
    });
}

template <class F> decltype(auto) typed(const Sequence &s, F &&f) {
    return visit(s.f->type, s.f->width, std::forward<F>(f));
}

} // namespace

PYBIND11_MODULE(_velseq, m) {
    m.doc() = "velseq: sequences of scalars in database objects, from NumPy and pandas";

    static py::object &error_type = *new py::object( // never released, as numpy() above
        py::reinterpret_borrow<py::object>(
            py::exception<error>(m, "Error", PyExc_Exception).ptr()));
    error_type.attr("__doc__") =
        "A refused call: .code is the module's or host's code, .name its name; the data is as "
        "it was before the call.";
    py::register_exception_translator([](std::exception_ptr p) {
        try {
            if (p)
                std::rethrow_exception(p);
        } catch (const error &e) {
            py::object exc = error_type(e.what());
            exc.attr("code") = e.code();
            exc.attr("name") = e.name();
            PyErr_SetObject(error_type.ptr(), exc.ptr());
        }
    });

    py::class_<Database>(m, "Database")
        .def(py::init<uint32_t>(), py::arg("page_size") = 0)
        .def("define", &Database::define, py::arg("name"), py::arg("fields"))
        .def("_open_file", &Database::open_file, py::arg("path"), py::arg("log"), py::arg("sync"),
             py::arg("group_ms"), py::arg("read_only"), py::arg("recover"))
        .def_property_readonly("open_stats",
                               [](const Database &d) -> py::object {
                                   if (!d.opened)
                                       return py::none();
                                   const velseq::open_report &r = *d.opened;
                                   const velh_open_stats_t &s = r.stats;
                                   const std::string aside = r.set_aside_path();
                                   py::dict out;
                                   out["classes"] = s.classes;
                                   out["objects"] = s.objects;
                                   out["image_pages"] = s.image_pages;
                                   out["log_replayed"] = s.log_replayed;
                                   out["log_cut_records"] = s.log_cut_records;
                                   out["log_cut_bytes"] = s.log_cut_bytes;
                                   out["log_set_aside_records"] = s.log_set_aside_records;
                                   out["log_set_aside_bytes"] = s.log_set_aside_bytes;
                                   out["log_set_aside_path"] =
                                       aside.empty() ? py::object(py::none()) : py::str(aside);
                                   return py::object(std::move(out));
                               })
        .def("save", &Database::save, py::arg("path"))
        .def("checkpoint", &Database::checkpoint, py::arg("path"))
        .def("close", &Database::close)
        .def_property_readonly("closed", [](const Database &d) { return !d.st->db; })
        .def("classes",
             [](const Database &d) {
                 d.st->require_open();
                 std::vector<std::string> out;
                 for (const auto &c : d.st->classes)
                     out.push_back(c.first);
                 return out;
             })
        .def("fields",
             [](const Database &d, const std::string &cls) {
                 std::vector<std::tuple<std::string, std::string, std::string, std::string>> out;
                 for (const field_def &f : d.st->cls(cls).fields) {
                     out.emplace_back(f.name, f.is_seq ? "seq" : "value",
                                      dtype_name(f.type, f.width), order_name(f.order));
                 }
                 return out;
             })
        .def("read", [](const Database &d) { return Transaction(d, false); })
        .def("write", [](const Database &d) { return Transaction(d, true); });

    py::class_<Transaction>(m, "Transaction")
        .def("__enter__", [](Transaction &t) -> Transaction & { return t; })
        .def("__exit__",
             [](Transaction &t, const py::object &type, const py::object &, const py::object &) {
                 if (!t.st->open())
                     return false;
                 t.st->require();
                 t.st->end(type.is_none() && t.st->write);
                 return false;
             })
        .def("commit",
             [](Transaction &t) {
                 t.st->require();
                 t.st->end(true);
             })
        .def("rollback",
             [](Transaction &t) {
                 t.st->require();
                 t.st->end(false);
             })
        .def_property_readonly("is_open", [](const Transaction &t) { return t.st->open(); })
        .def_property_readonly("is_write", [](const Transaction &t) { return t.st->write; })
        .def("create",
             [](Transaction &t, const std::string &cls) {
                 return t.make(cls, [&](velseq::schema &s) { return t.st->tx->create(s); });
             })
        .def("open",
             [](Transaction &t, const std::string &cls, uint64_t oid) {
                 return t.make(cls, [&](velseq::schema &s) { return t.st->tx->open(s, oid); });
             })
        .def("count", [](Transaction &t, const std::string &cls) {
            t.st->require();
            return t.st->tx->count(t.st->db->cls(cls).schema);
        });

    py::class_<Object>(m, "Object")
        .def_property_readonly("oid", [](const Object &o) { return o.obj.oid(); })
        .def_property_readonly("cls", [](const Object &o) { return o.cls->schema.name(); })
        .def("__getitem__", &get_value)
        .def("__setitem__", &set_value)
        .def("delete", [](Object &o) {
            o.tx->require();
            o.obj.remove();
        });

    py::class_<Sequence>(m, "Sequence")
        .def_property_readonly("name", [](const Sequence &s) { return s.f->name; })
        .def_property_readonly("dtype",
                               [](const Sequence &s) {
                                   return numpy().attr("dtype")(dtype_name(s.f->type, s.f->width));
                               })
        .def_property_readonly("order",
                               [](const Sequence &s) {
                                   return s.f->order == velseq::order::ascending    ? "ascending"
                                          : s.f->order == velseq::order::descending ? "descending"
                                                                                    : "none";
                               })
        .def("__len__",
             [](const Sequence &s) {
                 return typed(s,
                              [&](auto t) { return s.get<typename decltype(t)::type>().size(); });
             })
        .def(
            "append",
            [](const Sequence &s, const py::object &values, const py::object &mask) {
                typed(s, [&](auto t) {
                    write<typename decltype(t)::type>(s, std::nullopt, values, mask);
                });
            },
            py::arg("values"), py::arg("mask") = py::none())
        .def(
            "insert",
            [](const Sequence &s, uint64_t pos, const py::object &values, const py::object &mask) {
                typed(s, [&](auto t) { write<typename decltype(t)::type>(s, pos, values, mask); });
            },
            py::arg("pos"), py::arg("values"), py::arg("mask") = py::none())
        .def(
            "delete",
            [](const Sequence &s, uint64_t first, std::optional<uint64_t> last) {
                typed(s, [&](auto t) {
                    auto seq = s.get<typename decltype(t)::type>();
                    seq.erase(first, last ? *last : first + 1);
                });
            },
            py::arg("first"), py::arg("last") = py::none())
        .def("truncate",
             [](const Sequence &s) {
                 typed(s, [&](auto t) { s.get<typename decltype(t)::type>().truncate(); });
             })
        .def(
            "read",
            [](const Sequence &s, uint64_t first, std::optional<uint64_t> last,
               const py::object &out) {
                return typed(s, [&](auto t) {
                    return read<typename decltype(t)::type>(s, first, last, out);
                });
            },
            py::arg("first") = 0, py::arg("last") = py::none(), py::arg("out") = py::none())
        .def(
            "search",
            [](const Sequence &s, const py::object &lo, const py::object &hi,
               const std::string &lo_bound, const std::string &hi_bound) {
                return typed(s, [&](auto t) {
                    return search<typename decltype(t)::type>(s, lo, hi, lo_bound, hi_bound);
                });
            },
            py::arg("lo"), py::arg("hi"), py::arg("lo_bound") = "inclusive",
            py::arg("hi_bound") = "exclusive")
        .def(
            "asof",
            [](const Sequence &s, const py::object &probes, const std::string &direction,
               bool strict, const py::object &tolerance) {
                return typed(s, [&](auto t) {
                    return asof<typename decltype(t)::type>(s, probes, direction, strict,
                                                            tolerance);
                });
            },
            py::arg("probes"), py::arg("direction") = "backward", py::arg("strict") = false,
            py::arg("tolerance") = py::none())
        .def("gather",
             [](const Sequence &s, const py::object &positions) {
                 return typed(
                     s, [&](auto t) { return gather<typename decltype(t)::type>(s, positions); });
             })
        .def(
            "aggregate",
            [](const Sequence &s, uint64_t first, std::optional<uint64_t> last) {
                return typed(s, [&](auto t) {
                    return aggregate<typename decltype(t)::type>(s, first, last);
                });
            },
            py::arg("first") = 0, py::arg("last") = py::none())
        .def("aggregate_window",
             [](const Sequence &s, const Sequence &ts, const py::object &from,
                const py::object &to) {
                 return typed(s, [&](auto t) {
                     return aggregate_window<typename decltype(t)::type>(s, ts, from, to);
                 });
             })
        .def("resample_columns", [](const Sequence &vals, const Sequence &ts, int64_t width_ns,
                                    const py::object &from, const py::object &to,
                                    const py::object &origin) {
            return typed(vals, [&](auto t) {
                return resample<typename decltype(t)::type>(ts, vals, width_ns, from, to, origin);
            });
        });
}
