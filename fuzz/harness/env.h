// One embedded database holding one class whose sequence fields are the
// fields under test (plus a uint8 scalar "tag"), and n objects of it: the
// writer's connection with a read-write transaction always open, and
// readers, each a connection of its own with a read-only snapshot.
#pragma once

#include <memory>
#include <vector>

#include "harness/families.h"
#include "velembed.h"

namespace velrel {

struct FieldSpec {
    Family fam;
    vel_seq_order_t order;
};

struct FieldLoc {
    vel_offs32_t u = 0, c = 0;
    uint16_t fld_no = 0;
};

struct EnvConfig {
    int32_t seq_page_size = 512;
    bool compact = false;
    bool alt_pm = false;     // class in the second page manager
    bool concurrent = false; // concurrent_write_transactions
    int n_objects = 1;
};

class Env;

// A connection of its own whose read-only transaction sees the last commit.
class Reader {
  public:
    explicit Reader(Env &env); // connects (call from any thread)
    ~Reader();
    VEL_RET begin(); // read-only transaction and the objects opened in it
    void end();
    bool open() const { return open_; }
    vel_objhandle_h obj(int i = 0) { return &objs_[i]; }
    vel_db_connection_h con() { return con_; }

  private:
    Env &env_;
    vel_db_connection_h con_ = nullptr;
    std::vector<vel_objhandle_t> objs_;
    bool open_ = false;
};

class Env {
  public:
    // Null (with the host's code in *rc) when the database cannot be made.
    static std::unique_ptr<Env> open(const EnvConfig &cfg, const std::vector<FieldSpec> &fields,
                                     VEL_RET *rc);
    ~Env();

    int32_t page_size() const { return page_size_; }
    const FieldLoc &loc(int f) const { return locs_[f]; }
    uint16_t tag_fld() const { return tag_fld_; }
    vel_objhandle_h obj(int i = 0) { return &objs_[i]; }
    vel_db_connection_h con() { return con_; }
    velh_db_t *db() { return db_; }
    uint16_t class_code() const { return class_code_; }
    const std::vector<uint64_t> &oids() const { return oids_; }

    VEL_RET commit_and_begin();   // commit, then open the next write transaction
    VEL_RET rollback_and_begin(); // roll back, then open the next write transaction

    static constexpr int kSnapshots = 2;
    VEL_RET snapshot_open(int slot);
    vel_objhandle_h snapshot_obj(int slot, int i = 0) { return snaps_[slot]->obj(i); }
    void snapshot_close(int slot);
    bool snapshot_is_open(int slot) const { return snaps_[slot] && snaps_[slot]->open(); }

    // Live sequence pages in the whole database.
    uint64_t live_pages();
    // Truncates every field of every object, commits and closes the
    // snapshots; afterwards no version references a sequence page.
    VEL_RET release_all();

  private:
    friend class Reader;
    Env() = default;
    VEL_RET open_objects();
    velh_db_t *db_ = nullptr;
    int32_t page_size_ = 0;
    uint16_t class_code_ = 0, tag_fld_ = 0;
    std::vector<FieldLoc> locs_;
    vel_db_connection_h con_ = nullptr;
    std::vector<uint64_t> oids_;
    std::vector<vel_objhandle_t> objs_;
    std::unique_ptr<Reader> snaps_[kSnapshots];
};

} // namespace velrel
