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

#include "velseq.hpp"
#include "velseq/image.hpp"
#include "velseq/table.hpp"

namespace vpy {

namespace py = pybind11;
namespace table = velseq::table;
using velseq::error;

// The calling thread's token: a serial no other thread gets, alive (for
// weak_ptr) until the thread ends (by the time a join of it returns).
// std::thread::id values are reused once a thread has ended, so they cannot
// bind a transaction to its thread.
const std::shared_ptr<const uint64_t> &this_thread_token();

struct db_state {
    std::unique_ptr<velseq::database> db;
    std::optional<velseq::open_report> opened; // of Database.open
    // Transactions open or waiting to begin, and other calls that use the
    // database without the GIL (saves, checkpoints, defines): close() is
    // refused while either is above 0.  Raised with the GIL held, so a
    // close() (which holds it) never sees a call about to start.
    std::atomic<int> open_transactions{0};
    std::atomic<int> calls{0};
    // Arrow streams and batches alive (arrow.cpp), each holding a read
    // snapshot or a transaction's pages: close() is refused meanwhile.
    std::atomic<int> streams{0};
    // Threads (by token serial) with a write transaction open: a second one
    // on the same thread would wait for the first forever.
    std::mutex writers_mu;
    std::map<uint64_t, int> writers;

    void require_open() const;
    // Holds the database open for a call that releases the GIL.
    struct in_call {
        db_state &s;
        explicit in_call(db_state &d) : s(d) {
            s.require_open();
            s.calls++;
        }
        ~in_call() { s.calls--; }
        in_call(const in_call &) = delete;
        in_call &operator=(const in_call &) = delete;
    };
    velh_db_t *get() const { return db->get(); }
    // The table `name`; VEL_E_HOST_NO_CLASS if there is none.
    table::table_info table_named(const std::string &name) const;
};

struct tx_state {
    std::shared_ptr<db_state> db;
    std::optional<velseq::connection> con;
    std::optional<velseq::transaction> tx;
    uint64_t owner;                            // serial of the thread that began it
    std::weak_ptr<const uint64_t> owner_alive; // expires when that thread ends
    bool write = false;
    // Arrow streams made in this transaction and alive, or batches of them:
    // they point into its pages, so it neither ends nor writes until 0.
    std::atomic<int> streams{0};

    tx_state(std::shared_ptr<db_state> d, bool w);
    ~tx_state();
    bool open() const { return tx.has_value(); }
    // Everything a call needs: an open transaction of this thread.  Ending
    // one (commit excluded) is also allowed once its thread has ended.
    void require(bool ending = false) const;
    // Refused while an Arrow stream of this transaction is alive.
    void require_no_streams(const char *what) const;
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
    // The column, for a call that changes it.
    table::column writable(const char *what) const {
        tx->require();
        tx->require_no_streams(what);
        return column();
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

// The state of a velseq.Database (or a subclass's) instance.
std::shared_ptr<db_state> state_of(const py::handle &database);

// The binding of each part, in the order the module body runs them.
void bind_errors(py::module_ &m);
void bind_database(py::module_ &m);
void bind_transaction(py::module_ &m);
void bind_object(py::module_ &m);
py::class_<Sequence> bind_sequence(py::module_ &m);
void bind_aggregates(py::class_<Sequence> &seq);
void bind_arrow(py::module_ &m);

} // namespace vpy
