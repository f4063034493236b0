// A velhost database for storage tests: one class whose fields are an id
// (field 0) and one sequence field per element family, in the order of
// all_families() (fields 1..14).  Traps are turned into C++ exceptions.
#pragma once

#include <string>

#include "family_ops.h"

namespace vstest {

// What vel_stop__ reported; thrown by the handler that SeqDb installs.
struct TrapHit {
    int code;
    std::string file;
    int line;
};

struct DbOptions {
    uint32_t seq_page_size = 4096;
    uint16_t object_page_size = 4096;
    uint16_t additional_object_field_size = 0;
    bool compact = false;
    int pm = VELH_PM_INMEM;
    bool concurrent = false;
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

    // The sequence field of a family (by FamilyOps or by its name).
    FieldRef field(const FamilyOps &fam) const;
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

} // namespace vstest
