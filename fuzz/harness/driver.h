// Differential driver: decodes a byte string into operations over several
// sequence fields of one object, runs each through the module on the
// embedded host and through the plain model, and compares every code, every
// value, every null flag and every iterator range.  The tree checker runs
// after every update.  Used by the libFuzzer target and by the replay tests.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "harness/env.h"
#include "harness/model.h"

namespace velrel {

struct DriverStats {
    uint64_t ops = 0;           // operations executed
    uint64_t updates = 0;       // append/insert/delete/truncate/store calls
    uint64_t refusals = 0;      // updates refused with the expected code
    uint64_t codes_checked = 0; // return codes compared with the model
    uint64_t tree_checks = 0;   // tree checker runs
    uint64_t elements_compared = 0;
    uint64_t commits = 0;
    uint64_t rollbacks = 0;
    uint64_t snapshot_checks = 0;
    void add(const DriverStats &o);
    std::string str() const; // "ops N, updates N, ..."
};

// The fields the driver works on: several families, all three orders.
std::vector<FieldSpec> driver_fields();

// Database set-up chosen by an input's first byte: page size, layout,
// page manager, concurrent writers.
EnvConfig config_from_byte(uint8_t b);

// A caller-made iterator that delivers a vector of elements in tiles of
// chosen sizes (its own next and reset), used as positions for map and as
// the values of a join.
struct VecIter {
    vel_seq_iterator_t it;
    std::vector<uint8_t> data;    // elements, elem_size bytes each
    std::vector<uint16_t> chunks; // tile sizes, cycled
    size_t pos = 0, chunk_no = 0;
    void setup(uint8_t elem_type, uint16_t elem_size);
    size_t count() const { return it.elem_size ? data.size() / it.elem_size : 0; }
};

class Driver {
  public:
    explicit Driver(Env &env); // over the environment's fields
    // Runs the operations encoded in data; returns "" or a description of
    // the first mismatch (the operation number and what differed).
    std::string run(const uint8_t *data, size_t size);
    const DriverStats &stats() const { return st_; }

    struct Src;
    // The model positions of the tile at element k of n, and next's code.
    using Expect = std::function<VEL_RET(size_t k, size_t n, std::vector<uint64_t> &pos)>;

  private:
    struct Pick;
    Env &env_;
    std::vector<FieldSpec> f_;
    std::vector<SeqModel> cur_, committed_;
    std::vector<SeqModel> snap_[Env::kSnapshots];
    DriverStats st_;
    std::string err_;
    uint64_t op_no_ = 0;

    bool fail(const std::string &what);
    bool expect_rc(const char *op, int field, VEL_RET got, VEL_RET want);
    bool updated(const char *op, int field, VEL_RET got, VEL_RET want);
    bool check_field(int fi, vel_objhandle_h obj, const SeqModel &m);
    bool check_all(vel_objhandle_h obj, const std::vector<SeqModel> &ms);
    bool check_snapshot(int slot, bool close);
    bool drain(const char *op, int fi, vel_seq_iterator_t &it, size_t n, const VecIter *src,
               const SeqModel *vm, const Expect &expect);
    bool drain_range(const char *op, int fi, vel_seq_iterator_t &it, const SeqModel &m,
                     uint64_t from, uint64_t till);

    Pick pick(Src &s, bool ordered);
    size_t room_for(int fi, size_t n) const;

    bool op_append(Src &s);
    bool op_insert(Src &s);
    bool op_late_inserts(Src &s);
    bool op_delete(Src &s);
    bool op_truncate(Src &s);
    bool op_ends(Src &s);
    bool op_scan(Src &s);
    bool op_search(Src &s);
    bool op_map(Src &s);
    bool op_join(Src &s);
    bool op_store(Src &s);
    bool op_commit(Src &s);
    bool op_rollback(Src &s);
    bool op_snapshot(Src &s);
};

} // namespace velrel
