// velseq/transaction.hpp -- transactions and the objects they create and
// open; an object's fields are read and written through sequence<T>
// (velseq/sequence.hpp) and scalar values.
#ifndef VELSEQ_TRANSACTION_HPP
#define VELSEQ_TRANSACTION_HPP

#include <map>
#include <optional>
#include <utility>
#include <vector>

#include "velseq/schema.hpp"

namespace velseq {

// ---- transaction and objects ---------------------------------------------------

class object {
  public:
    uint64_t oid() const noexcept { return h_.oid; }
    uint16_t class_code() const noexcept { return h_.class_code; }
    const vel_objhandle_t *handle() const noexcept { return &h_; }
    transaction &trans() const noexcept { return *tx_; }

    template <class T> T get(const scalar_field<T> &f) const {
        const velh_field_info_t &fi = owned(f.info(), f.class_code());
        T v{};
        detail::check(velh_get(&h_, fi.fld_no, &v, fi.size), "reading a scalar field");
        return v;
    }
    template <class T> void set(const scalar_field<T> &f, const T &v) const {
        const velh_field_info_t &fi = owned(f.info(), f.class_code());
        detail::check(velh_set(&h_, fi.fld_no, &v, fi.size), "writing a scalar field");
    }
    template <class T> sequence<T> operator[](const field<T> &f) const {
        return sequence<T>(*this, f);
    }
    // Deletes the object with its sequences.
    void remove() { detail::check(velh_obj_delete(&h_), "deleting an object"); }

  private:
    friend class transaction;
    template <class T> friend class sequence;
    object(transaction &tx, const vel_objhandle_t &h) : tx_(&tx), h_(h) {}
    const velh_field_info_t &owned(const velh_field_info_t &fi, uint16_t cls) const {
        if (cls != h_.class_code)
            throw error(VEL_E_HOST_WRONG_FIELD, "the field belongs to another class");
        return fi;
    }
    transaction *tx_;
    vel_objhandle_t h_;
};

// A read or write transaction on a connection.  Destroyed while still open
// (also while an exception unwinds) it rolls back.  It keeps the compaction
// state of every (object, field) it inserted into or deleted from.
class transaction {
  public:
    enum mode { read = VELH_READ_ONLY, write = VELH_READ_WRITE };
    transaction(connection &con, mode m) : con_(con.get()), write_(m == write) {
        detail::check(velh_begin(con_, m), "beginning a transaction");
        open_ = true;
    }
    ~transaction() {
        for (buffered *b : buffered_)
            b->detach();
        if (open_)
            velh_rollback(con_);
    }
    transaction(const transaction &) = delete;
    transaction &operator=(const transaction &) = delete;

    // Appenders of this transaction flush first; if one of them fails, or
    // one lost a batch when it was destroyed, nothing is committed and the
    // transaction stays open (roll it back).  A commit the host refuses
    // (rolled back) throws with the host's sentence when it left one: the
    // log that could not be written, and why.
    void commit() {
        require_open();
        for (buffered *b : buffered_)
            b->flush();
        if (lost_)
            throw *lost_;
        open_ = false;
        detail::check_logged(velh_commit(con_), "committing"); // velh_commit clears the sentence
    }
    void rollback() {
        require_open();
        open_ = false;
        detail::check(velh_rollback(con_), "rolling back");
    }
    bool is_open() const noexcept { return open_; }
    bool is_write() const noexcept { return write_; }
    vel_db_connection_h connection_handle() const noexcept { return con_; }

    object create(const schema &cls) {
        require_open();
        vel_objhandle_t h{};
        detail::check(velh_obj_create(con_, cls.code(), &h), "creating an object");
        return object(*this, h);
    }
    object open(const schema &cls, uint64_t oid) {
        require_open();
        vel_objhandle_t h{};
        detail::check(velh_obj_open(con_, cls.code(), oid, &h),
                      ("opening object " + std::to_string(oid)).c_str());
        return object(*this, h);
    }
    uint64_t count(const schema &cls) {
        require_open();
        uint64_t n = 0;
        detail::check(velh_obj_count(con_, cls.code(), &n), "counting objects");
        return n;
    }
    // State of the host's compaction policy for one field of one object.
    velh_compact_state_t &compact_state(uint64_t oid, uint16_t fld_no) {
        return compact_[{oid, fld_no}]; // value-initialised: zeroed on first use
    }
    bool compact_kept(uint64_t oid, uint16_t fld_no) const {
        return compact_.count({oid, fld_no}) != 0;
    }

  private:
    template <class> friend class appender;
    // What an appender shows its transaction.
    struct buffered {
        virtual void flush() = 0;
        virtual void detach() noexcept = 0;

      protected:
        ~buffered() = default;
    };
    void require_open() const {
        if (!open_)
            throw error(VEL_E_HOST_TRANS_CLOSED, "the transaction has ended");
    }
    vel_db_connection_h con_;
    bool write_;
    bool open_ = false;
    std::map<std::pair<uint64_t, uint16_t>, velh_compact_state_t> compact_;
    std::vector<buffered *> buffered_;
    std::optional<error> lost_;
};

} // namespace velseq

#endif // VELSEQ_TRANSACTION_HPP
