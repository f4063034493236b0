// The state of an export, shared by the Arrow stream and the Parquet writer
// (which cuts one export into a stream per partition, all reading one
// snapshot).
#pragma once

#include <map>
#include <memory>
#include <set>
#include <string>
#include <vector>

#include "arrow_owner.h"
#include "velseq/table.hpp"

namespace velseq::table::arrow {

// A read transaction of the export's own, whose pages every batch points
// into stay as they are until the last reference goes; or the caller's
// open transaction (`borrowed`), which the caller keeps open.
struct snapshot {
    vel_db_connection_h con = nullptr;
    bool borrowed = false;
    explicit snapshot(velh_db_t *db);
    explicit snapshot(vel_db_connection_h caller) : con(caller), borrowed(true) {}
    snapshot(const snapshot &) = delete;
    snapshot &operator=(const snapshot &) = delete;
    ~snapshot();
};

enum class kind { oid, sequence, scalar };

// A column of the export.
struct out_col {
    std::string name;
    kind k = kind::sequence;
    uint16_t fld = 0;
    column_type type{VEL_DD_SEQUENCE_UINT8, 8}; // the oid column's
    vel_seq_order_t order = VEL_SEQ_NO_ORDER;
    bool text = false; // char(N) as utf8
};

// One object's rows [first, last).
struct part {
    uint64_t oid = 0;
    vel_objhandle_t obj{};
    uint64_t first = 0, last = 0;
    std::vector<array> scalars; // per column: the value of a scalar field
};

struct exporter {
    using owner_t = array_owner<std::shared_ptr<snapshot>>;

    std::shared_ptr<snapshot> snap;
    velh_db_t *db = nullptr;
    table_info table;
    std::vector<out_col> cols;
    std::vector<part> parts;
    size_t lead = 0;                  // the first sequence column
    std::optional<uint16_t> time_fld; // the first ascending datetime field
    uint32_t batch_rows = 0;
    bool naive_time = false;
    size_t max_text = 0; // widest utf8 column
    void (*progress)(uint64_t, uint64_t, void *) = nullptr;
    void *progress_ctx = nullptr;
    uint64_t total = 0, done = 0;
    size_t at_part = 0; // the next batch's first row
    uint64_t at_pos = 0;
    std::string last_error;

    column col(const part &p, uint16_t fld) const { return column_of(p.obj, db, table, fld); }
    // The next batch into `out`; false after the last row.
    bool next(ArrowArray &out);
    void schema(ArrowSchema &out) const;
    // The same export over other rows of its objects, in its snapshot.
    std::unique_ptr<exporter> over(std::vector<part> rows) const;

  private:
    uint64_t slice_end(const part &p, uint64_t a) const;
    void fill(owner_t &o, size_t ci, const part &p, uint64_t a, uint64_t b, ArrowArray &out);
};

// What export_arrow checks and opens before a stream exists: the table, the
// fields, the objects and their rows, in a snapshot of the export's own.
std::unique_ptr<exporter> plan_export(velh_db_t *db, const velt_export_t &opts);
// Hands `e` to the stream `out`.
void open_stream(std::unique_ptr<exporter> e, ArrowArrayStream *out);

} // namespace velseq::table::arrow

namespace velseq::table {
// What a stream's schema may not say about the table it came from (Parquet
// files keep no Arrow field metadata): for a table defined by the import.
struct import_hints {
    std::map<std::string, uint16_t> widths; // of char fields read as utf8
    std::set<std::string> scalars;          // scalar fields
    std::string ascending;                  // the ascending field
};
uint64_t import_arrow(velh_db_t *db, const velt_import_t &opts, ArrowArrayStream *in,
                      const import_hints &hints);
} // namespace velseq::table
