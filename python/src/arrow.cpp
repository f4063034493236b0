// Arrow C streams out of and into the table layer (velseq/arrow.h), as
// PyCapsules of the Arrow PyCapsule protocol, and Parquet through DuckDB.
//
// Lifetime: every stream handed out holds a lease, and so does every array
// of every batch it gives (each node of a batch tree gets its own release
// wrapper, as a consumer may move a child out and release it after its
// parent).  A lease counts itself in the database's state and, for a stream
// made in a transaction (its `con`), in the transaction's state, whose
// commit, rollback and writes are refused while the count is above 0: a
// batch may point into that transaction's pages.  The lease holds both
// states, so nothing it needs goes away under it whatever Python drops
// first; it is given up after the library's own release has run, from any
// thread and without the GIL.
#include <pybind11/stl.h>

#include <cstdlib>
#include <limits>

#include "convert.h"
#include "handles.h"
#include "velseq/arrow.h"
#include "velseq/datetime.h"

namespace vpy {

namespace {

constexpr const char *stream_capsule = "arrow_array_stream";

struct lease {
    std::shared_ptr<db_state> db;
    tx_ptr tx; // null: the export's own read transaction
    lease(std::shared_ptr<db_state> d, tx_ptr t) : db(std::move(d)), tx(std::move(t)) {
        db->streams++;
        if (tx)
            tx->streams++;
    }
    ~lease() {
        if (tx)
            tx->streams--;
        db->streams--;
    }
    lease(const lease &) = delete;
    lease &operator=(const lease &) = delete;
};
using lease_ptr = std::shared_ptr<lease>;

// private_data of a wrapped array node: the library's release and data,
// restored onto the node before its release runs.
struct node_wrap {
    void (*release)(ArrowArray *);
    void *private_data;
    lease_ptr held;
};

void release_node(ArrowArray *a) {
    if (a == nullptr || a->release == nullptr)
        return;
    auto *w = static_cast<node_wrap *>(a->private_data);
    a->release = w->release;
    a->private_data = w->private_data;
    a->release(a); // the library's: children it still holds come back here
    delete w;      // the lease goes after the pages it covers
}

void wrap_tree(ArrowArray &a, const lease_ptr &l) {
    for (int64_t i = 0; i < a.n_children; i++)
        if (a.children[i]->release != nullptr)
            wrap_tree(*a.children[i], l);
    a.private_data = new node_wrap{a.release, a.private_data, l};
    a.release = &release_node;
}

// The stream handed out: the library's, with a lease, and for a Sequence
// the single column moved out of each struct batch.
struct wrapped_stream {
    ArrowArrayStream inner{};
    lease_ptr held;
    bool single = false;
    std::string error;
};

wrapped_stream *of(ArrowArrayStream *s) { return static_cast<wrapped_stream *>(s->private_data); }

// Moves child 0 of `root` (a struct node) into its place: the C data
// interface lets a consumer take a child and release the parent.
template <class T> int take_single(T *root, wrapped_stream &w) {
    if (root->n_children != 1) {
        w.error = std::string("velseq: a single-column export gave ")
                      .append(std::to_string(root->n_children))
                      .append(" columns");
        root->release(root);
        root->release = nullptr;
        return EINVAL;
    }
    T child = *root->children[0];
    root->children[0]->release = nullptr;
    root->release(root);
    *root = child;
    return 0;
}

int stream_schema(ArrowArrayStream *s, ArrowSchema *out) {
    wrapped_stream &w = *of(s);
    const int rc = w.inner.get_schema(&w.inner, out);
    return rc != 0 || !w.single ? rc : take_single(out, w);
}

int stream_next(ArrowArrayStream *s, ArrowArray *out) {
    wrapped_stream &w = *of(s);
    int rc = w.inner.get_next(&w.inner, out);
    if (rc != 0 || out->release == nullptr)
        return rc;
    if (w.single && (rc = take_single(out, w)) != 0)
        return rc;
    wrap_tree(*out, w.held);
    return 0;
}

const char *stream_error(ArrowArrayStream *s) {
    wrapped_stream &w = *of(s);
    return w.error.empty() ? w.inner.get_last_error(&w.inner) : w.error.c_str();
}

void stream_release(ArrowArrayStream *s) {
    if (s == nullptr || s->release == nullptr)
        return;
    wrapped_stream *w = of(s);
    w->inner.release(&w->inner);
    delete w;
    s->release = nullptr;
}

// The capsule's destructor: a stream the consumer did not take is released.
void capsule_release(PyObject *capsule) {
    auto *s = static_cast<ArrowArrayStream *>(PyCapsule_GetPointer(capsule, stream_capsule));
    if (s == nullptr) { // renamed by a consumer: not ours to judge
        PyErr_Clear();
        return;
    }
    if (s->release != nullptr)
        s->release(s);
    delete s;
}

// What an export reads: the options of velt_export_t that Python sets.
struct export_request {
    std::string table;
    std::vector<std::string> columns; // empty: every field
    bool all_columns = true;
    std::vector<uint64_t> oids;
    bool all_oids = true;
    bool by_time = false;
    int64_t from = std::numeric_limits<int64_t>::min(), to = std::numeric_limits<int64_t>::max();
    bool text = true;
    bool with_oid = true;
    bool single = false;

    velt_export_t options(std::vector<const char *> &names) const {
        velt_export_t o;
        velt_export_init(&o);
        o.table = table.c_str();
        names.clear();
        for (const std::string &c : columns)
            names.push_back(c.c_str());
        if (!all_columns) {
            o.columns = names.data();
            o.n_columns = names.size();
        }
        if (!all_oids) {
            o.oids = oids.data();
            o.n_oids = oids.size();
        }
        o.oid_column = with_oid ? nullptr : "";
        o.by_time = by_time;
        o.from = from;
        o.to = to;
        o.char_as_binary = !text;
        return o;
    }
};

void refuse_requested(const py::object &requested_schema) {
    if (!requested_schema.is_none())
        throw error(VEL_E_ILLEGAL_PARAM,
                    "__arrow_c_stream__: velseq exports its own schema (requested_schema must be "
                    "None); cast in the consumer");
}

// A capsule of a new stream of `req`, in tx's transaction when given.
py::object open_capsule(const std::shared_ptr<db_state> &db, const tx_ptr &tx,
                        const export_request &req) {
    db->require_open();
    std::vector<const char *> names;
    velt_export_t o = req.options(names);
    if (tx) {
        tx->require();
        o.con = tx->tx->connection_handle();
    }
    auto w = std::make_unique<wrapped_stream>();
    w->single = req.single;
    w->held = std::make_shared<lease>(db, tx);
    table::export_arrow(db->get(), o, &w->inner);
    auto *s = new ArrowArrayStream{&stream_schema, &stream_next, &stream_error, &stream_release,
                                   w.release()};
    PyObject *cap = PyCapsule_New(s, stream_capsule, &capsule_release);
    if (cap == nullptr) {
        stream_release(s);
        delete s;
        throw py::error_already_set();
    }
    return py::reinterpret_steal<py::object>(cap);
}

// The nanoseconds of a point in time, as the package takes them elsewhere.
int64_t ns_of(const py::handle &t, const std::string &what) {
    const table::array a = value_in(t, {VEL_DD_SEQUENCE_DATETIME, 8}, what);
    vel_datetime raw;
    std::memcpy(&raw, a.values.data(), 8);
    return vel_dt_to_ns(raw);
}

// Database.arrow's answer: each __arrow_c_stream__ opens a new export, in a
// read transaction of its own.
struct ArrowTable {
    std::shared_ptr<db_state> db;
    export_request req;
};

using names_arg = std::optional<std::vector<std::string>>;
using oids_arg = std::optional<std::vector<uint64_t>>;

export_request request_of(const std::shared_ptr<db_state> &db, const std::string &cls,
                          const names_arg &columns, const oids_arg &oids, const py::object &start,
                          const py::object &end, bool text, const std::string &what) {
    export_request s;
    s.table = cls;
    const table::table_info t = db->table_named(cls);
    if (columns) {
        for (const std::string &c : *columns)
            t.field(c); // an unknown name raises now, not at the consumer
        s.columns = *columns;
        s.all_columns = false;
    }
    if (oids) {
        s.oids = *oids;
        s.all_oids = false;
    }
    s.by_time = !start.is_none() || !end.is_none();
    if (!start.is_none())
        s.from = ns_of(start, what + " start");
    if (!end.is_none())
        s.to = ns_of(end, what + " end");
    s.text = text;
    return s;
}

// The library's error on a missing DuckDB has a code no name table knows.
[[noreturn]] void raise(const error &e) {
    if (e.code() != VELT_E_UNAVAILABLE)
        throw e;
    const std::string text = e.what();
    const size_t at = text.find("): ");
    py::object type = py::module_::import("velseq._velseq").attr("Error");
    py::object exc = type(std::string("VELT_E_UNAVAILABLE (930): ")
                              .append(at == std::string::npos ? text : text.substr(at + 3)));
    exc.attr("code") = VELT_E_UNAVAILABLE;
    exc.attr("name") = "VELT_E_UNAVAILABLE";
    PyErr_SetObject(type.ptr(), exc.ptr());
    throw py::error_already_set();
}

// An import runs a write transaction of its own: one this thread holds
// already would make it wait forever.
void require_no_writer(db_state &db, const char *what) {
    std::lock_guard<std::mutex> g(db.writers_mu);
    if (db.writers.count(*this_thread_token()) != 0)
        throw error(VEL_E_HOST_BUSY,
                    std::string(what).append(": this thread has a write transaction open; the "
                                             "import runs one of its own, after it ends"));
}

velt_import_t import_options(const std::string &cls, const std::optional<std::string> &time,
                             uint16_t char_width) {
    velt_import_t o;
    velt_import_init(&o);
    o.table = cls.c_str();
    o.time = time ? time->c_str() : nullptr;
    o.char_width = char_width;
    return o;
}

} // namespace

void bind_arrow(py::module_ &m) {
    py::class_<ArrowTable>(m, "ArrowTable",
                           "Rows of a table for Arrow consumers (Database.arrow): each "
                           "__arrow_c_stream__ call reads the last commit afresh.")
        .def(
            "__arrow_c_stream__",
            [](const ArrowTable &a, const py::object &requested_schema) {
                refuse_requested(requested_schema);
                return open_capsule(a.db, nullptr, a.req);
            },
            py::arg("requested_schema") = py::none());

    auto method = [](const py::object &cls, const char *name, auto &&f, auto... extra) {
        cls.attr(name) = py::cpp_function(std::forward<decltype(f)>(f), py::name(name),
                                          py::is_method(cls), extra...);
    };
    const py::object object = m.attr("Object"), sequence = m.attr("Sequence"),
                     database = m.attr("Database");
    method(
        object, "__arrow_c_stream__",
        [](const Object &o, const py::object &requested_schema) {
            refuse_requested(requested_schema);
            export_request s;
            s.table = o.t->name;
            s.oids = {o.h.oid};
            s.all_oids = false;
            s.with_oid = false;
            return open_capsule(o.tx->db, o.tx, s);
        },
        py::arg("requested_schema") = py::none());
    method(
        sequence, "__arrow_c_stream__",
        [](const Sequence &q, const py::object &requested_schema) {
            refuse_requested(requested_schema);
            export_request s;
            s.table = q.t->name;
            s.columns = {q.def().name};
            s.all_columns = false;
            s.oids = {q.h.oid};
            s.all_oids = false;
            s.with_oid = false;
            s.single = true;
            return open_capsule(q.tx->db, q.tx, s);
        },
        py::arg("requested_schema") = py::none());
    method(database, "_arrow",
           [](const py::object &self, const std::string &cls, const names_arg &columns,
              const oids_arg &oids, const py::object &start, const py::object &end, bool text) {
               std::shared_ptr<db_state> db = state_of(self);
               return ArrowTable{db, request_of(db, cls, columns, oids, start, end, text, "arrow")};
           });
    method(database, "_to_parquet",
           [](const py::object &self, const std::string &cls, const std::string &path,
              const names_arg &columns, const oids_arg &oids, const py::object &start,
              const py::object &end, unsigned partition) {
               std::shared_ptr<db_state> db = state_of(self);
               const export_request s =
                   request_of(db, cls, columns, oids, start, end, true, "to_parquet");
               std::vector<const char *> names;
               const velt_export_t o = s.options(names);
               db_state::in_call using_db(*db);
               try {
                   py::gil_scoped_release nogil;
                   table::to_parquet(db->get(), o, path, partition);
               } catch (const error &e) {
                   raise(e);
               }
           });
    method(database, "_from_parquet",
           [](const py::object &self, const std::string &path, const std::string &cls,
              const std::optional<std::string> &time, uint16_t char_width) {
               std::shared_ptr<db_state> db = state_of(self);
               db_state::in_call using_db(*db);
               require_no_writer(*db, "from_parquet");
               const velt_import_t o = import_options(cls, time, char_width);
               try {
                   py::gil_scoped_release nogil;
                   return table::from_parquet(db->get(), o, path);
               } catch (const error &e) {
                   raise(e);
               }
           });
    method(database, "_from_arrow",
           [](const py::object &self, const py::object &source, const std::string &cls,
              const std::optional<std::string> &time, uint16_t char_width) {
               std::shared_ptr<db_state> db = state_of(self);
               db_state::in_call using_db(*db);
               require_no_writer(*db, "from_arrow");
               if (!py::hasattr(source, "__arrow_c_stream__"))
                   throw error(VEL_E_ILLEGAL_TYPE,
                               std::string("from_arrow: ")
                                   .append(std::string(py::str(py::type::of(source))))
                                   .append(" has no __arrow_c_stream__"));
               const py::object cap = source.attr("__arrow_c_stream__")();
               auto *p = static_cast<ArrowArrayStream *>(
                   PyCapsule_IsValid(cap.ptr(), stream_capsule)
                       ? PyCapsule_GetPointer(cap.ptr(), stream_capsule)
                       : nullptr);
               if (p == nullptr || p->release == nullptr)
                   throw error(VEL_E_ILLEGAL_TYPE,
                               "from_arrow: __arrow_c_stream__ gave no live arrow_array_stream "
                               "capsule");
               ArrowArrayStream in = *p; // moved out: the import releases it
               p->release = nullptr;
               const velt_import_t o = import_options(cls, time, char_width);
               py::gil_scoped_release nogil;
               return table::import_arrow(db->get(), o, &in);
           });
}

} // namespace vpy
