// Shared by the durability tests: databases opened and closed with one
// connection, a random workload of transactions over several classes and
// element families (char(N), nulls, an ordered field, deleted objects, both
// page managers) applied alike to any number of databases, and a dump of a
// database's whole visible state read from its pages, so that two databases
// compare equal exactly when their dumps do.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <memory>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "harness/families.h"
#include "harness/tree_check.h"
#include "velembed.h"

namespace durtest {

struct ClassSpec {
    const char *name;
    uint32_t flags;
    int pm;
    std::vector<velh_field_def_t> fields;
};

// Classes 1 and 2 exist from the start; class 3 is defined after some
// commits, so that logs carry a class record between commits.
inline const std::vector<ClassSpec> &classes() {
    // clang-format off
    static const std::vector<ClassSpec> c = {
        {"quote", 0, VELH_PM_INMEM,
         {{"id", VEL_DD_INT4, 0, 0}, {"name", VEL_DD_CHAR, 12, 0}, {"ticks", VEL_DD_SEQUENCE_INT8, 0, 0},
          {"prices", VEL_DD_SEQUENCE_DOUBLE, 0, 0}, {"tags", VEL_DD_SEQUENCE_CHAR, 5, 0}}},
        {"series", VEL_CLASS_COMPACT, VELH_PM_ALT,
         {{"u", VEL_DD_UINT2, 0, 0}, {"vals", VEL_DD_SEQUENCE_INT4, 0, VEL_SEQ_ASC_ORDER}, {"f", VEL_DD_FLOAT, 0, 0},
          {"small", VEL_DD_SEQUENCE_UINT1, 0, 0}, {"when", VEL_DD_SEQUENCE_DATETIME, 0, 0}}},
        {"late", 0, VELH_PM_INMEM,
         {{"x", VEL_DD_INT8, 0, 0}, {"s", VEL_DD_SEQUENCE_FLOAT, 0, 0}, {"c", VEL_DD_SEQUENCE_CHAR, 32, 0}}}};
    // clang-format on
    return c;
}

inline velh_config_t config(uint32_t seq_page_size = 4096, const char *log = nullptr,
                            int log_sync = VELH_LOG_SYNC_COMMIT, uint16_t object_header = 0,
                            vel_bool concurrent = 0) {
    velh_config_t cfg;
    velh_config_init(&cfg);
    cfg.seq_page_size = seq_page_size;
    cfg.log_path = log;
    cfg.log_sync = log_sync;
    cfg.log_group_ms = 2;
    cfg.additional_object_field_size = object_header;
    cfg.concurrent_write_transactions = concurrent;
    return cfg;
}

// An open database with one connection; both closed at the end.
struct Db {
    velh_db_t *db;
    vel_db_connection_h con = nullptr;
    bool flush_may_fail = false; // an injected I/O failure may meet the final flush
    explicit Db(velh_db_t *d) : db(d) { EXPECT_EQ(velh_connect(db, &con), VEL_S_OK); }
    ~Db() {
        EXPECT_EQ(velh_disconnect(con), VEL_S_OK);
        const VEL_RET r = velh_db_close(db);
        EXPECT_TRUE(r == VEL_S_OK || (flush_may_fail && r == VEL_E_HOST_IO)) << r;
    }
};

// A new database, or with `image` the one that image and the log of cfg
// hold; null when the open fails.
inline std::unique_ptr<Db> open_db(const velh_config_t &cfg, const char *image = nullptr,
                                   velh_open_stats_t *st = nullptr) {
    velh_db_t *db = nullptr;
    EXPECT_EQ(image ? velh_db_open_file(&cfg, image, &db, st) : velh_db_open(&cfg, &db), VEL_S_OK)
        << velh_error_message();
    return db ? std::make_unique<Db>(db) : nullptr;
}

// The catalogue as text: every class's code, name, flags and page manager,
// and its fields' names, types, element sizes and declared orders.
inline std::string catalogue(velh_db_t *db) {
    std::string out;
    const uint16_t n = velh_class_count(db);
    for (uint16_t code = 1; code <= n; ++code) {
        velh_class_info_t ci;
        EXPECT_EQ(velh_class_info(db, code, &ci), VEL_S_OK);
        out += std::to_string(ci.code) + " " + ci.name + " " + std::to_string(ci.flags) + " " +
               std::to_string(ci.pm) + ":";
        for (uint16_t k = 0; k < ci.n_fields; ++k) {
            velh_field_info_t fi;
            EXPECT_EQ(velh_field_info(db, code, k, &fi), VEL_S_OK);
            out += std::string(" ") + fi.name + "/" + std::to_string(fi.type) + "/" +
                   std::to_string(fi.elem_size) + "/" + std::to_string(fi.order);
        }
        out += "\n";
    }
    return out;
}

// The whole state a transaction on `d` sees (its own writes included), as
// text: the catalogue, then per class its objects in oid order with their
// scalar bytes and each sequence's values ("-" for a null).  A tree the
// checker rejects fails.
inline std::string dump(const Db &d) {
    const bool own = !velh_in_transaction(d.con);
    EXPECT_TRUE(!own || velh_begin(d.con, VELH_READ_ONLY) == VEL_S_OK);
    std::string out = catalogue(d.db);
    auto hex = [](const void *p, size_t n) {
        std::string h;
        for (const uint8_t *b = static_cast<const uint8_t *>(p); n-- > 0; ++b)
            h += {"0123456789abcdef"[*b >> 4], "0123456789abcdef"[*b & 15]};
        return h;
    };
    auto *tr = &d.con->trans;
    velh_field_info_t fi;
    for (uint16_t code = 1;
         code <= classes().size() && velh_field_info(d.db, code, 0, &fi) == VEL_S_OK; ++code) {
        const ClassSpec &cs = classes()[code - 1];
        out += "class " + std::to_string(code) + "\n";
        vel_cursor_t cur;
        if (vel_w_list_cursor(tr, code, &cur) == VEL_S_CURSOR_EMPTY)
            continue;
        for (VEL_RET r = vel_cursor_first(tr, &cur); r == VEL_S_OK; r = vel_cursor_next(tr, &cur)) {
            vel_objhandle_t obj;
            if (vel_w_obj_from_cursor(tr, &cur, code, &obj) != VEL_S_OK) { // not its pages
                ADD_FAILURE() << "class " << code << ": a listed object does not open";
                continue;
            }
            out += " oid " + std::to_string(obj.oid) + "\n";
            for (uint16_t k = 0; k < cs.fields.size(); ++k) {
                const velh_field_def_t &f = cs.fields[k];
                EXPECT_EQ(velh_field_info(d.db, code, k, &fi), VEL_S_OK);
                if (f.type < VEL_DD_SEQUENCE_UINT1) {
                    std::vector<uint8_t> v(fi.size);
                    EXPECT_EQ(velh_get(&obj, k, v.data(), v.size()), VEL_S_OK);
                    out += "  " + hex(v.data(), v.size()) + "\n";
                    continue;
                }
                VEL_WRK w;
                EXPECT_EQ(vel_reading(&obj, &w), 0);
                vel_seq_page_t *root;
                std::memcpy(&root, vel_obj_pos(w.pobj, d.con, w.pm, obj.mo + fi.offset, 0),
                            sizeof root);
                velrel::TreeInfo ti;
                const velrel::Family fam = velrel::family_of(f.type, f.width);
                EXPECT_EQ(velrel::check_tree(fam, vel_seq_order_t(f.order), root,
                                             obj.pm->large_page_size(d.con), false, &ti),
                          "")
                    << "class " << code << " oid " << obj.oid << " field " << k;
                out += "  ";
                for (size_t i = 0; i < ti.content.size(); ++i)
                    out += (ti.content.nulls[i] ? "-" : hex(ti.content.at(i), fam.width)) + ",";
                out += "\n";
            }
        }
    }
    EXPECT_TRUE(!own || velh_rollback(d.con) == VEL_S_OK);
    return out;
}

// Opens files (an image, the log of cfg, or both) and returns the code.  A
// refusal leaves no database and says why; an opened database's dump goes
// to `state` before it is closed.
inline VEL_RET load(const velh_config_t &cfg, const char *image, std::string *state = nullptr,
                    velh_open_stats_t *st = nullptr) {
    velh_db_t *db = nullptr;
    const VEL_RET r = velh_db_open_file(&cfg, image, &db, st);
    const std::unique_ptr<Db> d(r == VEL_S_OK ? new Db(db) : nullptr);
    EXPECT_TRUE(d || (db == nullptr && *velh_error_message() != '\0')) << velh_error_message();
    if (d && state != nullptr)
        *state = dump(*d);
    return r;
}

// Defines class s (under `name` if given).
inline VEL_RET define(velh_db_t *db, const ClassSpec &s, const char *name = nullptr) {
    uint16_t code = 0;
    return velh_class_define(db, name ? name : s.name, s.fields.data(), uint16_t(s.fields.size()),
                             s.flags, s.pm, &code);
}

// Commits n values v appended to "ticks" of the class 1 object *oid (0: a new
// one, whose oid is stored there); returns the commit's code.
inline VEL_RET append_ticks(Db &d, uint64_t *oid, size_t n, int64_t v) {
    velh_field_info_t fi;
    vel_objhandle_t o;
    const std::vector<int64_t> vals(n, v);
    EXPECT_EQ(velh_field_info(d.db, 1, 2, &fi), VEL_S_OK);
    EXPECT_EQ(velh_begin(d.con, VELH_READ_WRITE), VEL_S_OK);
    EXPECT_EQ(*oid ? velh_obj_open(d.con, 1, *oid, &o) : velh_obj_create(d.con, 1, &o), VEL_S_OK);
    *oid = o.oid;
    EXPECT_EQ(vel_w_seq_append_int8(&o, fi.u_offset, fi.c_offset, 2, vals.data(), n,
                                    VEL_SEQ_NO_ORDER, nullptr),
              VEL_S_OK);
    return velh_commit(d.con);
}

inline bool says(const std::string &what) {
    return std::strstr(velh_error_message(), what.c_str()) != nullptr;
}

// Random transactions, the same on every target: each target must return
// the same codes.  Tracks the live objects itself so that every operation
// it draws is one the module accepts.
class Workload {
  public:
    explicit Workload(uint64_t seed) : rng_(seed) {}

    // `late`: class 3 comes after the sixth commit, else now.
    void setup(const std::vector<Db *> &ts, bool late = true) { define(ts, late ? 2 : 3); }

    // One transaction of 1..4 operations, committed (or, one time in eight,
    // rolled back).  `before_commit` runs on each target inside the
    // transaction, after its operations.  Returns true when committed.
    bool txn(const std::vector<Db *> &ts, const std::function<void(Db *)> &before_commit = {}) {
        if (n_classes_ == 2 && commits_ >= 6)
            define(ts, 3);
        const uint64_t n_ops = 1 + rng_() % 4, seed = rng_(); // operation i: seed + i
        const bool commit = rng_() % 8 != 0;
        State s;
        for (Db *t : ts) {
            s = state_;
            EXPECT_EQ(velh_begin(t->con, VELH_READ_WRITE), VEL_S_OK);
            for (uint64_t i = 0; i < n_ops; ++i)
                apply(t, seed + i, s);
            if (commit && before_commit)
                before_commit(t);
            EXPECT_EQ(commit ? velh_commit(t->con) : velh_rollback(t->con), VEL_S_OK);
        }
        if (commit) {
            state_ = s;
            ++commits_;
        }
        return commit;
    }

    void txns(const std::vector<Db *> &ts, int n) {
        while (n-- > 0)
            txn(ts);
    }

    uint64_t commits() const { return commits_; }

  private:
    // Defines the classes from n_classes_ up to `to` on every target.
    void define(const std::vector<Db *> &ts, size_t to) {
        for (Db *t : ts)
            for (size_t c = n_classes_; c < to; ++c)
                EXPECT_EQ(durtest::define(t->db, classes()[c]), VEL_S_OK);
        n_classes_ = to;
    }

    // Drawn in 13ths: 2 create, 1 delete an object, 1 set a scalar, 4 append,
    // 2 insert, 2 delete a range, 1 compact.  Any kind on a scalar field sets
    // it; kSetScalar on a sequence appends.
    enum Kind { kCreate, kDeleteObject, kSetScalar, kAppend, kInsert, kDeleteRange, kCompact };

    // The live objects of each class, and the last value given to the
    // ordered field.
    struct State {
        std::vector<uint64_t> live[3];
        uint64_t last = 0;
    };

    void apply(Db *t, uint64_t seed, State &s) {
        std::mt19937_64 r(seed);
        auto bytes = [&](size_t n) {
            std::vector<uint8_t> v(n);
            for (uint8_t &x : v)
                x = uint8_t(r());
            return v;
        };
        const size_t cls = r() % n_classes_;
        const ClassSpec &cs = classes()[cls];
        const uint16_t code = uint16_t(cls + 1), fld = uint16_t(r() % cs.fields.size());
        const Kind kind = Kind("0012333344556"[r() % 13] - '0');
        const uint64_t pick = r(), a = r(), b = r();
        std::vector<uint64_t> &objs = s.live[cls];
        vel_objhandle_t obj;
        if (kind == kCreate || objs.empty()) {
            EXPECT_EQ(velh_obj_create(t->con, code, &obj), VEL_S_OK);
            objs.push_back(obj.oid);
            return;
        }
        const size_t at = pick % objs.size();
        ASSERT_EQ(velh_obj_open(t->con, code, objs[at], &obj), VEL_S_OK);
        if (kind == kDeleteObject) {
            EXPECT_EQ(velh_obj_delete(&obj), VEL_S_OK);
            objs.erase(objs.begin() + long(at));
            return;
        }
        const velh_field_def_t &f = cs.fields[fld];
        velh_field_info_t fi;
        ASSERT_EQ(velh_field_info(t->db, code, fld, &fi), VEL_S_OK);
        if (f.type < VEL_DD_SEQUENCE_UINT1) {
            const std::vector<uint8_t> v = bytes(fi.size);
            EXPECT_EQ(velh_set(&obj, fld, v.data(), v.size()), VEL_S_OK);
            return;
        }
        const velrel::Family fam = velrel::family_of(f.type, f.width);
        const vel_seq_order_t order = vel_seq_order_t(f.order);
        vel_seq_no_t len = 0;
        ASSERT_EQ(vel_w_seq_count(&obj, fi.u_offset, fi.c_offset, &len), VEL_S_OK);
        if (kind == kCompact) { // the host rebuilds the tree
            EXPECT_EQ(velh_compact(&obj, fld, order), VEL_S_OK);
            return;
        }
        if (kind == kDeleteRange && len > 0) {
            const uint64_t from = a % len, till = from + b % std::min<uint64_t>(len - from, 200);
            EXPECT_EQ(fam.del(&obj, fi.u_offset, fi.c_offset, fld, from, till, order, fam.width),
                      VEL_S_OK);
            return;
        }
        // Otherwise an append, or an insert into an unordered field.
        const uint64_t n = 1 + b % (a % 5 == 0 ? 400 : 40);
        std::vector<uint8_t> vals = bytes(n * fam.width);
        std::vector<vel_bitmap_word_t> nulls((n + 63) / 64, 0);
        for (uint64_t i = 0; i < n; ++i) {
            if (order != VEL_SEQ_NO_ORDER) {
                // Ascending int4 values from the workload's own counter, the
                // same on every target.
                const int32_t v = int32_t(++s.last);
                std::memcpy(&vals[i * 4], &v, 4);
            } else if (r() % 5 == 0) {
                nulls[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        }
        const vel_bitmap_word_t *nb = order != VEL_SEQ_NO_ORDER ? nullptr : nulls.data();
        const uint32_t u = fi.u_offset, c = fi.c_offset;
        EXPECT_EQ(
            kind == kInsert && order == VEL_SEQ_NO_ORDER
                ? fam.insert(&obj, u, c, fld, a % (len + 1), vals.data(), n, order, nb, fam.width)
                : fam.append(&obj, u, c, fld, vals.data(), n, order, nb, fam.width),
            VEL_S_OK);
    }

    std::mt19937_64 rng_;
    size_t n_classes_ = 0;
    uint64_t commits_ = 0;
    State state_;
};

// A fresh folder for a test's files, removed with its content at the end,
// with the names the tests give a database's image, log and saved copy.
struct TempDir {
    // In memory (`shm`, where there is /dev/shm) when its flushes need not
    // reach a device.
    explicit TempDir(bool shm = false) : path(make(shm)) {}
    ~TempDir() { std::filesystem::remove_all(path); }
    std::string file(const std::string &name) const { return path + "/" + name; }
    const std::string path, img = file("db.img"), log = file("db.log"), snap = file("snap.img");

  private:
    static std::string make(bool shm) {
        char p[40];
        std::snprintf(p, sizeof p, "%s/velh-durable-XXXXXX",
                      shm && ::access("/dev/shm", W_OK) == 0 ? "/dev/shm" : "/tmp");
        EXPECT_NE(mkdtemp(p), nullptr);
        return p;
    }
};

inline std::string read_file(const std::string &path) {
    std::ifstream in(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(in), {}};
}

// A new file, not a truncated one: ext4 flushes a file truncated and
// rewritten when it is closed, which would make each case wait on disk.
inline void write_file(const std::string &path, const std::string &bytes) {
    ::unlink(path.c_str());
    std::ofstream(path, std::ios::binary) << bytes;
}

} // namespace durtest
