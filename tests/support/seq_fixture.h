// A velhost database for storage and iterator tests: one class whose fields
// are an id (field 0) and one sequence field per scalar element family, in
// the harness's order (fields 1..11).  Traps are turned into C++
// exceptions.  A FieldRef calls the family's exported functions on its field;
// check_tree walks a field's tree with the harness's checker.
#pragma once

#include <string>
#include <vector>

#include "harness/families.h"
#include "harness/model.h"
#include "harness/tree_check.h"
#include "velembed.h"

namespace vstest {

using velrel::SeqModel;

// What vel_stop__ reported; thrown by the handler that SeqDb installs.
struct TrapHit {
    int code;
    std::string file;
    int line;
};

struct FieldRef {
    uint16_t fld_no = 0;
    vel_offs32_t u_offset = 0;
    vel_offs32_t c_offset = 0;
    const velrel::Family *fam = nullptr;

    VEL_RET append(vel_objhandle_h obj, const void *vals, vel_size_t n, vel_seq_order_t order,
                   const vel_bitmap_word_t *nulls) const {
        return fam->append(obj, u_offset, c_offset, fld_no, vals, n, order, nulls, fam->width);
    }
    VEL_RET insert(vel_objhandle_h obj, vel_seq_no_t pos, const void *vals, vel_size_t n,
                   vel_seq_order_t order, const vel_bitmap_word_t *nulls) const {
        return fam->insert(obj, u_offset, c_offset, fld_no, pos, vals, n, order, nulls, fam->width);
    }
};

struct DbOptions {
    uint32_t seq_page_size = 4096;
    uint16_t object_page_size = 4096;
    uint16_t additional_object_field_size = 0;
};

class SeqDb {
  public:
    explicit SeqDb(const DbOptions &opt = {});
    ~SeqDb();
    SeqDb(const SeqDb &) = delete;
    SeqDb &operator=(const SeqDb &) = delete;

    velh_db_t *db() const { return db_; }
    vel_db_connection_h con() const { return con_; }
    uint16_t class_code() const { return class_code_; }
    const DbOptions &options() const { return opt_; }
    // The sequence field of a family by its name ("int4", "double", ...).
    FieldRef field(const std::string &family_name) const;

    // Transactions on the fixture's own connection.
    VEL_RET begin_write() { return velh_begin(con_, VELH_READ_WRITE); }
    VEL_RET begin_read() { return velh_begin(con_, VELH_READ_ONLY); }
    VEL_RET commit() { return velh_commit(con_); }
    VEL_RET rollback() { return velh_rollback(con_); }

    // A new object in the running write transaction; throws on failure.
    vel_objhandle_t new_object();
    // Sequence page accounting over both page managers.
    velh_page_stats_t stats() const;

  private:
    DbOptions opt_;
    velh_db_t *db_ = nullptr;
    vel_db_connection_h con_ = nullptr;
    uint16_t class_code_ = 0;
};

struct TreeReport {
    std::string error;                   // empty when every invariant holds
    int depth = 0;                       // levels; 0 for an empty field
    std::vector<vel_seq_page_t *> pages; // every page, root first, depth-first
    SeqModel contents;
    bool ok() const { return error.empty(); }
};

// With `check_keys`, key i of an ordered inner page must equal the first value
// of child i's subtree (true for trees built by appends only); otherwise it
// must not lie beyond it.
TreeReport check_tree(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order,
                      bool check_keys = false);

// Empty when `got` holds exactly the model's elements (all bytes and flags);
// otherwise the first difference.
std::string diff(const SeqModel &model, const SeqModel &got);

} // namespace vstest
