// One embedded database holding one class whose sequence fields are the
// fields under test (plus a uint8 scalar "tag"), and n objects of it: the
// writer's connection with a read-write transaction always open, and
// readers, each a connection of its own with a read-only snapshot.
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "harness/families.h"
#include "harness/tree_check.h"
#include "seq_root.h"
#include "velembed.h"

namespace velrel {

struct FieldSpec {
    Family fam;
    vel_seq_order_t order;
    bool ordered() const { return order != VEL_SEQ_NO_ORDER; }
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
    uint16_t object_page_size = 4096;
    uint16_t additional_object_field_size = 0;
};

// One field of one object with its family's calls bound to it; `o` < 0 means
// the declared order.
struct Field {
    vel_objhandle_h obj;
    const FieldSpec &s;
    const FieldLoc &l;
    int32_t page_size;
    size_t w() const { return s.fam.width; }
    vel_seq_order_t ord(int o) const { return o < 0 ? s.order : static_cast<vel_seq_order_t>(o); }
    VEL_RET append(const void *v, size_t n, const vel_bitmap_word_t *nb = nullptr,
                   int o = -1) const {
        return s.fam.append(obj, l.u, l.c, l.fld_no, v, n, ord(o), nb, w());
    }
    VEL_RET append(const std::vector<uint8_t> &v, const vel_bitmap_word_t *nb = nullptr,
                   int o = -1) const {
        return append(v.data(), v.size() / w(), nb, o);
    }
    VEL_RET insert(uint64_t pos, const void *v, size_t n, const vel_bitmap_word_t *nb = nullptr,
                   int o = -1) const {
        return s.fam.insert(obj, l.u, l.c, l.fld_no, pos, v, n, ord(o), nb, w());
    }
    VEL_RET insert(uint64_t pos, const std::vector<uint8_t> &v,
                   const vel_bitmap_word_t *nb = nullptr, int o = -1) const {
        return insert(pos, v.data(), v.size() / w(), nb, o);
    }
    VEL_RET del(uint64_t from, uint64_t till) const {
        return s.fam.del(obj, l.u, l.c, l.fld_no, from, till, s.order, w());
    }
    VEL_RET subseq(vel_seq_iterator_t *it, uint64_t from, uint64_t till) const {
        return s.fam.subseq(obj, l.u, l.c, it, from, till, w());
    }
    VEL_RET search(vel_seq_iterator_t *it, const void *lo, vel_seq_boundary_kind_t lk,
                   const void *hi, vel_seq_boundary_kind_t hk) const {
        return s.fam.search(obj, l.u, l.c, it, lo, lk, hi, hk, s.order, w());
    }
    VEL_RET project(vel_seq_iterator_t *dst, vel_seq_iterator_t *src) const {
        return s.fam.project(obj, l.u, l.c, dst, src, w());
    }
    VEL_RET store(vel_seq_iterator_t *src) const {
        return s.fam.store(obj, l.u, l.c, l.fld_no, src, s.order, w());
    }
    VEL_RET map(vel_seq_iterator_t *it, vel_seq_iterator_t *pos) const {
        return s.fam.map(obj, l.u, l.c, it, pos, w());
    }
    VEL_RET join(vel_seq_iterator_t *it, vel_seq_iterator_t *with) const {
        return s.fam.join(obj, l.u, l.c, it, with, s.order);
    }
    VEL_RET root(vel_seq_page_t **r) const { return vel_seq_get_root(obj, l.u, l.c, r); }
    // The tree checker on the field's pages: "" or what is wrong.
    std::string check(bool keys_exact, TreeInfo *ti, int o = -1) const;
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

    // Field f of `o` (the writer's first object when null).
    Field field(int f, vel_objhandle_h o = nullptr) {
        return {o ? o : obj(), fields_[f], locs_[f], page_size_};
    }
    const std::vector<FieldSpec> &fields() const { return fields_; }

    int32_t page_size() const { return page_size_; }
    const FieldLoc &loc(int f) const { return locs_[f]; }
    uint16_t tag_fld() const { return tag_fld_; }
    vel_objhandle_h obj(int i = 0) { return &objs_[i]; }
    vel_db_connection_h con() { return con_; }
    velh_db_t *db() { return db_; }
    uint16_t class_code() const { return class_code_; }

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
    // Opens every object in con's transaction.
    VEL_RET open_objects(vel_db_connection_h con, std::vector<vel_objhandle_t> &objs);
    VEL_RET begin_after(VEL_RET ended);
    velh_db_t *db_ = nullptr;
    int32_t page_size_ = 0;
    std::vector<FieldSpec> fields_;
    uint16_t class_code_ = 0, tag_fld_ = 0;
    std::vector<FieldLoc> locs_;
    vel_db_connection_h con_ = nullptr;
    std::vector<uint64_t> oids_;
    std::vector<vel_objhandle_t> objs_;
    std::unique_ptr<Reader> snaps_[kSnapshots];
};

} // namespace velrel
