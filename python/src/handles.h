// The state behind the Python objects, shared by the binding's files.
//
// Ownership: a Sequence or Object keeps its transaction's state alive, which
// keeps the database's state alive; the velseq::database itself is closed by
// Database.close() (refused while a transaction is open) or by the last
// reference.  Every call first checks that the database is open, that the
// transaction is open and that it is called from the thread that began it,
// so a stale handle raises instead of reaching freed memory.
//
// Tables, their columns, types and orders are the host's catalogue, read
// through the table layer (velseq/table.hpp); an Object keeps the
// description of its table as it was when the object was opened.
#pragma once

#include <pybind11/pybind11.h>

#include <atomic>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

#include "velseq.hpp"
#include "velseq/image.hpp"
#include "velseq/table.hpp"

namespace vpy {

namespace py = pybind11;
namespace table = velseq::table;
using velseq::error;

struct db_state {
    std::unique_ptr<velseq::database> db;
    std::optional<velseq::open_report> opened; // of Database.open
    std::atomic<int> open_transactions{0};
    // Threads with a write transaction open: a second one on the same thread
    // would wait for the first forever.
    std::mutex writers_mu;
    std::map<std::thread::id, int> writers;

    void require_open() const;
    velh_db_t *get() const { return db->get(); }
    // The table `name`; VEL_E_HOST_NO_CLASS if there is none.
    table::table_info table_named(const std::string &name) const;
};

struct tx_state {
    std::shared_ptr<db_state> db;
    std::optional<velseq::connection> con;
    std::optional<velseq::transaction> tx;
    std::thread::id owner;
    bool write = false;

    tx_state(std::shared_ptr<db_state> d, bool w);
    ~tx_state();
    bool open() const { return tx.has_value(); }
    // Everything a call needs: an open transaction of this thread.
    void require() const;
    // Commits or rolls back, then gives the connection back.
    void end(bool commit);

  private:
    void forget_writer();
};

using tx_ptr = std::shared_ptr<tx_state>;
using table_ptr = std::shared_ptr<const table::table_info>;

struct Object {
    tx_ptr tx;
    table_ptr t;
    vel_objhandle_t h;
};

struct Sequence {
    tx_ptr tx;
    table_ptr t;
    vel_objhandle_t h;
    uint16_t fld;

    // The column, after the checks every call makes.
    table::column column() const {
        tx->require();
        return table::column_of(h, tx->db->get(), *t, fld);
    }
    velh_compact_state_t &compact_state() const { return tx->tx->compact_state(h.oid, fld); }
    const table::column_def &def() const { return t->columns[fld]; }
    std::string what() const { return t->name + "." + def().name; }
};

// The as-of join within groups of Transaction.asof_join: one object of
// class t a group (`oids`, known by their scalar `by`), probe i joined in
// the group whose `by` is groups[i]: {column: values}.
py::dict asof_join_by(const tx_ptr &tx, const table_ptr &t, const std::vector<uint64_t> &oids,
                      const std::string &keys, const py::object &probes,
                      const std::vector<std::string> &columns, const std::string &by,
                      const py::object &groups, const std::string &dir, bool strict,
                      const py::object &tolerance);

// The binding of each part, in the order the module body runs them.
void bind_errors(py::module_ &m);
void bind_database(py::module_ &m);
void bind_transaction(py::module_ &m);
void bind_object(py::module_ &m);
py::class_<Sequence> bind_sequence(py::module_ &m);
void bind_aggregates(py::class_<Sequence> &seq);

} // namespace vpy
