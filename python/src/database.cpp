// Database, Transaction: the lifecycles, over velseq.hpp's database,
// connection and transaction; tables come from the host's catalogue
// through the table layer.
#include <pybind11/stl.h>

#include <algorithm>
#include <cstring>

#include "convert.h"
#include "handles.h"
#include "velhost.h"

namespace vpy {

// ---- database and transaction state ------------------------------------------

void db_state::require_open() const {
    if (!db)
        throw error(VEL_E_HOST_BAD_ARG, "the database is closed");
}

table::table_info db_state::table_named(const std::string &name) const {
    require_open();
    std::optional<table::table_info> t = table::find_table(get(), name);
    if (!t)
        throw error(VEL_E_HOST_NO_CLASS, "no class '" + velseq::detail::shortened(name) + "'");
    return *t;
}

const std::shared_ptr<const uint64_t> &this_thread_token() {
    // Kept in the Python thread state's dict, which CPython clears before a
    // join of the thread returns; a C++ thread_local lives until the thread
    // itself exits, after the join, so the transaction of a thread just
    // joined could still look alive.  Called with the GIL held.
    using token_t = std::shared_ptr<const uint64_t>;
    static std::atomic<uint64_t> next{1};
    static const char *const kKey = "velseq.thread_token";
    PyObject *d = PyThreadState_GetDict();
    if (d == nullptr)
        throw error(VEL_E_HOST_BUSY, "a call without the interpreter's lock");
    PyObject *cap = PyDict_GetItemString(d, kKey); // borrowed
    if (cap == nullptr) {
        auto *t = new token_t(std::make_shared<const uint64_t>(next++));
        cap = PyCapsule_New(t, kKey, [](PyObject *c) {
            delete static_cast<token_t *>(PyCapsule_GetPointer(c, kKey));
        });
        if (cap == nullptr) {
            delete t;
            throw py::error_already_set();
        }
        const int rc = PyDict_SetItemString(d, kKey, cap);
        Py_DECREF(cap); // the dict holds it
        if (rc != 0)
            throw py::error_already_set();
    }
    return *static_cast<token_t *>(PyCapsule_GetPointer(cap, kKey));
}

tx_state::tx_state(std::shared_ptr<db_state> d, bool w) : db(std::move(d)), write(w) {
    db->require_open();
    const std::shared_ptr<const uint64_t> &me = this_thread_token();
    owner = *me;
    owner_alive = me;
    if (w) {
        std::lock_guard<std::mutex> g(db->writers_mu);
        if (db->writers[owner] > 0)
            throw error(VEL_E_HOST_BUSY, "this thread has a write transaction open already; "
                                         "a second one would wait for it forever");
        db->writers[owner]++;
    }
    db->open_transactions++; // counted while it waits: close() is refused meanwhile
    try {
        con.emplace(*db->db);
        // Another thread's writer may hold the database: wait without the GIL.
        py::gil_scoped_release nogil;
        tx.emplace(*con, w ? velseq::transaction::write : velseq::transaction::read);
    } catch (...) {
        con.reset();
        forget_writer();
        db->open_transactions--;
        throw;
    }
}

tx_state::~tx_state() {
    try {
        end(false);
    } catch (const error &) { // a failed rollback leaves nothing to undo
    }
}

void tx_state::forget_writer() {
    if (!write)
        return;
    std::lock_guard<std::mutex> g(db->writers_mu);
    if (--db->writers[owner] == 0)
        db->writers.erase(owner);
}

void tx_state::require(bool ending) const {
    if (!tx)
        throw error(VEL_E_HOST_TRANS_CLOSED, "the transaction has ended");
    if (*this_thread_token() == owner || (ending && owner_alive.expired()))
        return;
    throw error(VEL_E_HOST_BUSY, owner_alive.expired()
                                     ? "the thread that began the transaction has ended; "
                                       "only rolling it back is left"
                                     : "the transaction belongs to another thread; begin one "
                                       "per thread");
}

void tx_state::require_no_streams(const char *what) const {
    if (streams > 0)
        throw error(VEL_E_HOST_BUSY,
                    std::string(what).append(": an Arrow stream made in this transaction (or a "
                                             "batch of it) is still alive; release it first"));
}

void tx_state::end(bool commit) {
    if (!tx)
        return;
    require_no_streams(commit ? "commit" : "rollback");
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

namespace {

// ---- names of orders --------------------------------------------------------------

vel_seq_order_t order_of(const std::string &o) {
    if (o == "none")
        return VEL_SEQ_NO_ORDER;
    if (o == "ascending")
        return VEL_SEQ_ASC_ORDER;
    if (o == "descending")
        return VEL_SEQ_DESC_ORDER;
    throw error(VEL_E_ILLEGAL_PARAM,
                "an order is 'none', 'ascending' or 'descending', not '" + o + "'");
}

const char *order_name(vel_seq_order_t o) {
    return o == VEL_SEQ_ASC_ORDER ? "ascending" : o == VEL_SEQ_DESC_ORDER ? "descending" : "none";
}

// An image written by the Python package before the host kept names and
// orders: they live in a class of this name, which this package no longer
// reads.
constexpr const char *old_catalogue = "velseq.catalog";

// ---- the database -----------------------------------------------------------------

using field_def = std::tuple<std::string, std::string, py::object, std::string>;
// A column of from_pandas: name, values, mask (None: nulls as the values say).
using column_in = std::tuple<std::string, py::object, py::object>;

struct Database {
    std::shared_ptr<db_state> st = std::make_shared<db_state>();

    explicit Database(uint32_t page_size) {
        velseq::config cfg;
        if (page_size != 0)
            cfg.seq_page_size = page_size;
        st->db = std::make_unique<velseq::database>(cfg);
    }

    // fields: (name, "seq" | "value", dtype, order), defined as one class in
    // the host's catalogue.
    void define(const std::string &name, const std::vector<field_def> &fields) {
        db_state::in_call using_db(*st); // dtypes are NumPy's: Python may run
        std::vector<table::column_def> cols;
        for (const auto &[fname, kind, dtype, ord] : fields) {
            if (kind != "seq" && kind != "value")
                throw error(VEL_E_HOST_BAD_ARG, "a field is 'seq' or 'value', not '" + kind + "'");
            table::column_def c;
            c.name = fname;
            c.scalar = kind == "value";
            c.type = type_of_dtype(dtype, c.scalar);
            c.order = order_of(ord);
            cols.push_back(std::move(c));
        }
        table::define_table(st->get(), name, cols);
    }

    uint64_t store_table(const std::string &cls, const std::vector<column_in> &cols,
                         const std::optional<std::string> &time, bool nan_as_null);

    std::string open_file(const std::optional<std::string> &path,
                          const std::optional<std::string> &log, const std::string &sync,
                          uint32_t group_ms, bool read_only, bool recover);

    // An image of the database written to `path` without the GIL.
    void write_image(VEL_RET (*write)(velh_db_t *, const char *), const std::string &path,
                     const char *what) {
        db_state::in_call using_db(*st);
        VEL_RET rc;
        {
            py::gil_scoped_release nogil;
            rc = write(st->get(), path.c_str());
        }
        velseq::detail::check_file(rc, what + path);
    }

    void close() {
        if (!st->db)
            return;
        if (st->streams > 0)
            throw error(VEL_E_HOST_BUSY, "an Arrow stream of the database (or a batch of it) is "
                                         "still alive; release it first");
        if (st->open_transactions > 0)
            throw error(VEL_E_HOST_BUSY,
                        "a transaction is still open or waiting; commit or roll it back");
        if (st->calls > 0)
            throw error(VEL_E_HOST_BUSY, "a save, checkpoint or define is running");

        st->db.reset();
    }
};

// from_pandas: the columns as one new object of class `cls`, defined here
// when new (`time` its ascending datetime field), in one write transaction.
// The host defines classes outside transactions and never drops one, so
// every column is converted, and a new class's time column checked for
// nulls and order, before the class is defined: a refused table defines
// nothing.
uint64_t Database::store_table(const std::string &cls, const std::vector<column_in> &cols,
                               const std::optional<std::string> &time, bool nan_as_null) {
    st->require_open();
    const std::string what = "from_pandas into '" + velseq::detail::shortened(cls) + "'";
    auto column = [&](const std::string &n) {
        return what + ", column '" + velseq::detail::shortened(n) + "'";
    };
    auto listed = [](const std::vector<std::string> &v) {
        return velseq::detail::shortened(py::str(py::cast(v)).cast<std::string>(), 120);
    };
    std::vector<std::string> names;
    for (const auto &c : cols) {
        const std::string &n = std::get<0>(c);
        if (std::find(names.begin(), names.end(), n) != names.end())
            throw error(VEL_E_HOST_WRONG_FIELD,
                        what + ": two columns are named '" + velseq::detail::shortened(n) + "'");
        names.push_back(n);
    }
    if (time && std::find(names.begin(), names.end(), *time) == names.end())
        throw error(VEL_E_HOST_WRONG_FIELD, what + ": no column '" +
                                                velseq::detail::shortened(*time) +
                                                "' to keep as time");
    const std::optional<table::table_info> known = table::find_table(st->get(), cls);
    std::vector<table::column_def> defs;
    if (known) {
        std::vector<std::string> have, want = names;
        for (const table::column_def &c : known->columns)
            have.push_back(c.name);
        std::sort(have.begin(), have.end());
        std::sort(want.begin(), want.end());
        if (have != want)
            throw error(VEL_E_HOST_WRONG_FIELD, what + ": the class has fields " + listed(have) +
                                                    ", the table " + listed(want));
        for (const std::string &n : names)
            defs.push_back(known->columns[known->field(n)]);
    } else {
        for (const auto &[n, values, mask] : cols) {
            table::column_def d;
            d.name = n;
            const char k = py::array(values).dtype().kind();
            std::vector<bool> nulls; // of text: array_in takes them
            const py::dtype dt = k == 'O' || k == 'U' ? bytes_in(values, &nulls, column(n)).dtype()
                                                      : py::array(values).dtype();
            if (dt.kind() == 'S' && dt.itemsize() > VELH_MAX_SEQ_CHAR_WIDTH)
                throw error(VEL_E_ILLEGAL_PARAM,
                            column(n) + ": its longest value is " + std::to_string(dt.itemsize()) +
                                " bytes long (text counts its UTF-8 bytes); a char field holds " +
                                std::to_string(VELH_MAX_SEQ_CHAR_WIDTH));
            d.type = type_of_dtype(dt, false, column(n));
            if (time && n == *time) {
                if (d.type.code != VEL_DD_SEQUENCE_DATETIME)
                    throw error(VEL_E_HOST_WRONG_FIELD, column(n) + ": the time column holds " +
                                                            dtype_name(d.type) +
                                                            ", not datetime64");
                d.order = VEL_SEQ_ASC_ORDER;
            }
            defs.push_back(std::move(d));
        }
    }
    std::vector<table::array> arrays;
    for (size_t i = 0; i < cols.size(); i++) {
        const auto &[n, values, mask] = cols[i];
        arrays.push_back(array_in(values, mask, defs[i].type, column(n), nan_as_null));
        if (known || defs[i].order != VEL_SEQ_ASC_ORDER)
            continue;
        const table::array &a = arrays.back(); // the new class's time column
        for (uint64_t r = 0; r < a.length; r++) {
            vel_datetime x, prev = 0;
            std::memcpy(&x, a.values.data() + r * 8, 8);
            if (r > 0)
                std::memcpy(&prev, a.values.data() + (r - 1) * 8, 8);
            if (!a.valid(r))
                throw error(VEL_E_SEQ_NULL_VALUE, column(n) + ": row " + std::to_string(r) +
                                                      " is NaT; the time column holds no nulls");
            if (r > 0 && x < prev) // raw datetimes compare as unsigned in time order
                throw error(VEL_E_SEQ_OUT_OF_ORDER,
                            column(n) + ": row " + std::to_string(r) +
                                " is earlier than the row before; the time column ascends");
        }
    }
    // The write transaction first: one this thread cannot begin defines nothing.
    auto tx = std::make_shared<tx_state>(st, true);
    const table::table_info t = known ? *known : table::define_table(st->get(), cls, defs);
    vel_objhandle_t h{};
    velseq::detail::check(velh_obj_create(tx->tx->connection_handle(), t.code, &h),
                          "creating an object");
    for (size_t i = 0; i < cols.size(); i++) {
        const table::column c = table::column_of(h, st->get(), t, t.field(std::get<0>(cols[i])));
        py::gil_scoped_release nogil;
        table::append(c, arrays[i]);
    }
    tx->end(true);
    return h.oid;
}

velseq::config open_config(const std::optional<std::string> &path,
                           const std::optional<std::string> &log, const std::string &sync,
                           uint32_t group_ms, bool read_only, bool recover) {
    velseq::config cfg;
    cfg.open_flags = (read_only ? VELH_OPEN_READ_ONLY : 0u) | (recover ? VELH_OPEN_RECOVER : 0u);
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
    return cfg;
}

// Replaces the (fresh) database by the one of image `path` (none: the empty
// one) and `log`.  Returns what the open left out of the log ("" : nothing).
std::string Database::open_file(const std::optional<std::string> &path,
                                const std::optional<std::string> &log, const std::string &sync,
                                uint32_t group_ms, bool read_only, bool recover) {
    const velseq::config cfg = open_config(path, log, sync, group_ms, read_only, recover);
    velseq::open_report report;
    std::unique_ptr<velseq::database> db;
    {
        py::gil_scoped_release nogil;
        db = velseq::open_image(path ? *path : std::string(), cfg, report);
    }
    if (table::find_table(db->get(), old_catalogue))
        throw error(VEL_E_HOST_BAD_IMAGE,
                    (path ? *path : *log) +
                        " was written by an older velseq Python package (it holds a class "
                        "velseq.catalog); this one reads names and orders from the host's "
                        "catalogue only: save the data again with the package that wrote it, "
                        "through to_pandas / from_pandas into a new database");
    st->db = std::move(db);
    st->opened = report;
    return report.losses();
}

py::object open_stats(const Database &d) {
    if (!d.st->opened)
        return py::none();
    const velseq::open_report &r = *d.st->opened;
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
    out["log_damage_offset"] = s.log_damage_offset;
    out["log_set_aside_path"] = aside.empty() ? py::object(py::none()) : py::str(aside);
    return out;
}

std::vector<std::string> class_names(const Database &d) {
    d.st->require_open();
    std::vector<std::string> out;
    for (const table::table_info &t : table::tables(d.st->get()))
        out.push_back(t.name);
    return out;
}

// (name, "seq" | "value", dtype, order) of each field of a class.
std::vector<std::tuple<std::string, std::string, std::string, std::string>>
field_list(const Database &d, const std::string &cls) {
    std::vector<std::tuple<std::string, std::string, std::string, std::string>> out;
    for (const table::column_def &c : d.st->table_named(cls).columns)
        out.emplace_back(c.name, c.scalar ? "value" : "seq", dtype_name(c.type),
                         order_name(c.order));
    return out;
}

// ---- transactions ------------------------------------------------------------------

struct Transaction {
    tx_ptr st;
    Transaction(const Database &db, bool write) : st(std::make_shared<tx_state>(db.st, write)) {}

    vel_db_connection_h con() const {
        st->require();
        return st->tx->connection_handle();
    }
    Object create(const std::string &cls) {
        auto t = std::make_shared<const table::table_info>(st->db->table_named(cls));
        Object o{st, t, {}};
        velseq::detail::check(velh_obj_create(con(), t->code, &o.h), "creating an object");
        return o;
    }
    Object open(const std::string &cls, uint64_t oid) {
        auto t = std::make_shared<const table::table_info>(st->db->table_named(cls));
        Object o{st, t, {}};
        velseq::detail::check(velh_obj_open(con(), t->code, oid, &o.h),
                              ("opening object " + std::to_string(oid)).c_str());
        return o;
    }
    uint64_t count(const std::string &cls) {
        const uint16_t code = st->db->table_named(cls).code;
        uint64_t n = 0;
        velseq::detail::check(velh_obj_count(con(), code, &n), "counting objects");
        return n;
    }
    // The oids of the class's objects, in the host's list order.
    std::vector<uint64_t> objects(const std::string &cls) {
        const uint16_t code = st->db->table_named(cls).code;
        vel_trans_h trans = &con()->trans;
        vel_cursor_t cur;
        std::vector<uint64_t> out;
        VEL_RET rc = vel_w_list_cursor(trans, code, &cur);
        if (rc == VEL_S_CURSOR_EMPTY)
            return out;
        velseq::detail::check(rc, "listing objects");
        for (rc = vel_cursor_first(trans, &cur); rc == VEL_S_OK;
             rc = vel_cursor_next(trans, &cur)) {
            vel_objhandle_t h{};
            velseq::detail::check(vel_w_obj_from_cursor(trans, &cur, code, &h), "listing objects");
            out.push_back(h.oid);
        }
        if (rc != VEL_S_CURSOR_END)
            velseq::detail::check(rc, "listing objects");
        return out;
    }
};

} // namespace

std::shared_ptr<db_state> state_of(const py::handle &database) {
    return database.cast<const Database &>().st;
}

void bind_database(py::module_ &m) {
    py::class_<Database>(m, "Database")
        .def(py::init<uint32_t>(), py::arg("page_size") = 0)
        .def("define", &Database::define, py::arg("name"), py::arg("fields"))
        .def("_open_file", &Database::open_file, py::arg("path"), py::arg("log"), py::arg("sync"),
             py::arg("group_ms"), py::arg("read_only"), py::arg("recover"))
        .def("_store_table", &Database::store_table, py::arg("cls"), py::arg("columns"),
             py::arg("time"), py::arg("nan_as_null"))
        .def_property_readonly("open_stats", &open_stats)
        .def("save",
             [](Database &d, const std::string &path) {
                 d.write_image(velh_db_save, path, "saving to ");
             })
        .def("checkpoint",
             [](Database &d, const std::string &path) {
                 d.write_image(velh_checkpoint, path, "checkpointing to ");
             })
        .def("close", &Database::close)
        .def_property_readonly("closed", [](const Database &d) { return !d.st->db; })
        .def("classes", &class_names)
        .def("fields", &field_list)
        .def("read", [](const Database &d) { return Transaction(d, false); })
        .def("write", [](const Database &d) { return Transaction(d, true); });
}

void bind_transaction(py::module_ &m) {
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
                 t.st->require(true);
                 t.st->end(false);
             })
        .def_property_readonly("is_open", [](const Transaction &t) { return t.st->open(); })
        .def_property_readonly("is_write", [](const Transaction &t) { return t.st->write; })
        .def("create", &Transaction::create)
        .def("open", &Transaction::open)
        .def("count", &Transaction::count)
        .def("objects", &Transaction::objects)
        .def("_asof_join_by", [](Transaction &tx, const std::string &cls, const std::string &keys,
                                 const py::object &probes, const std::vector<std::string> &columns,
                                 const std::string &by, const py::object &groups,
                                 const std::string &dir, bool strict, const py::object &tol) {
            auto t = std::make_shared<const table::table_info>(tx.st->db->table_named(cls));
            return asof_join_by(tx.st, t, tx.objects(cls), keys, probes, columns, by, groups, dir,
                                strict, tol);
        });
}

} // namespace vpy
