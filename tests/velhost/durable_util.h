// Shared by the durability tests: a random workload of transactions over
// several classes and element families (char(N), nulls, an ordered field,
// deleted objects, both page managers), applied alike to any number of
// databases, and a dump of a database's whole visible state read straight
// from its pages (the tree checker of the harness), so that two databases
// compare equal exactly when their dumps do.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <unistd.h>
#include <vector>

#include "harness/families.h"
#include "harness/tree_check.h"
#include "velembed.h"

namespace durtest {

struct FieldSpec {
    const char *name;
    uint8_t type;
    uint16_t width;
    vel_seq_order_t order = VEL_SEQ_NO_ORDER;
};

struct ClassSpec {
    const char *name;
    uint32_t flags;
    int pm;
    std::vector<FieldSpec> fields;
};

// Classes 1 and 2 exist from the start; class 3 is defined by the workload
// after some commits, so that logs carry a class record between commits.
inline const std::vector<ClassSpec> &classes() {
    static const std::vector<ClassSpec> c = {
        {"quote",
         0,
         VELH_PM_INMEM,
         {{"id", VEL_DD_INT4, 0},
          {"name", VEL_DD_CHAR, 12},
          {"ticks", VEL_DD_SEQUENCE_INT8, 0},
          {"prices", VEL_DD_SEQUENCE_DOUBLE, 0},
          {"tags", VEL_DD_SEQUENCE_CHAR, 5}}},
        {"series",
         VEL_CLASS_COMPACT,
         VELH_PM_ALT,
         {{"u", VEL_DD_UINT2, 0},
          {"vals", VEL_DD_SEQUENCE_INT4, 0, VEL_SEQ_ASC_ORDER},
          {"f", VEL_DD_FLOAT, 0},
          {"small", VEL_DD_SEQUENCE_UINT1, 0},
          {"when", VEL_DD_SEQUENCE_DATETIME, 0}}},
        {"late",
         0,
         VELH_PM_INMEM,
         {{"x", VEL_DD_INT8, 0}, {"s", VEL_DD_SEQUENCE_FLOAT, 0}, {"c", VEL_DD_SEQUENCE_CHAR, 32}}},
    };
    return c;
}

inline bool is_seq(uint8_t t) {
    return t >= VEL_DD_SEQUENCE_UINT1 && t <= VEL_DD_SEQUENCE_DATETIME;
}

inline velrel::Family family_of(const FieldSpec &f) { return velrel::family_of(f.type, f.width); }

inline uint16_t define_class(velh_db_t *db, const ClassSpec &c) {
    std::vector<velh_field_def_t> defs;
    for (const FieldSpec &f : c.fields)
        defs.push_back(
            {f.name, f.type,
             f.type == VEL_DD_SEQUENCE_CHAR || f.type == VEL_DD_CHAR ? f.width : uint16_t(0)});
    uint16_t code = 0;
    EXPECT_EQ(
        velh_class_define(db, c.name, defs.data(), uint16_t(defs.size()), c.flags, c.pm, &code),
        VEL_S_OK);
    return code;
}

// The whole state a transaction on `con` sees (its own writes included),
// as text: classes, then objects in oid order with scalar bytes and every
// sequence field's values and null flags.  A tree that fails the checker
// fails the test.
inline std::string dump(velh_db_t *db, vel_db_connection_h con) {
    const bool own = !velh_in_transaction(con);
    if (own) {
        EXPECT_EQ(velh_begin(con, VELH_READ_ONLY), VEL_S_OK);
    }
    std::string out;
    auto hex = [&](const void *p, size_t n) {
        static const char *d = "0123456789abcdef";
        for (size_t i = 0; i < n; ++i) {
            uint8_t b = static_cast<const uint8_t *>(p)[i];
            out += d[b >> 4];
            out += d[b & 15];
        }
    };
    for (uint16_t code = 1; code <= classes().size(); ++code) {
        velh_field_info_t fi;
        if (velh_field_info(db, code, 0, &fi) != VEL_S_OK)
            break;
        const ClassSpec &cs = classes()[code - 1];
        out += "class " + std::to_string(code) + "\n";
        vel_cursor_t cur;
        VEL_RET r = vel_w_list_cursor(&con->trans, code, &cur);
        if (r == VEL_S_CURSOR_EMPTY)
            continue;
        for (r = vel_cursor_first(&con->trans, &cur); r == VEL_S_OK;
             r = vel_cursor_next(&con->trans, &cur)) {
            vel_objhandle_t obj;
            EXPECT_EQ(vel_w_obj_from_cursor(&con->trans, &cur, code, &obj), VEL_S_OK);
            out += " oid " + std::to_string(obj.oid) + "\n";
            for (uint16_t k = 0; k < cs.fields.size(); ++k) {
                const FieldSpec &f = cs.fields[k];
                EXPECT_EQ(velh_field_info(db, code, k, &fi), VEL_S_OK);
                out += "  ";
                if (!is_seq(f.type)) {
                    std::vector<uint8_t> v(fi.size);
                    EXPECT_EQ(velh_get(&obj, k, v.data(), v.size()), VEL_S_OK);
                    hex(v.data(), v.size());
                    out += "\n";
                    continue;
                }
                VEL_WRK w;
                EXPECT_EQ(vel_reading(&obj, &w), 0);
                vel_seq_page_t *root;
                std::memcpy(&root, vel_obj_pos(w.pobj, con, w.pm, obj.mo + fi.offset, 0),
                            sizeof root);
                velrel::TreeInfo ti;
                const velrel::Family fam = family_of(f);
                std::string e = velrel::check_tree(fam, f.order, root, obj.pm->large_page_size(con),
                                                   false, &ti);
                EXPECT_EQ(e, "") << "class " << code << " oid " << obj.oid << " field " << k;
                for (size_t i = 0; i < ti.content.size(); ++i) {
                    if (ti.content.nulls[i])
                        out += "-";
                    else
                        hex(ti.content.at(i), fam.width);
                    out += ",";
                }
                out += "\n";
            }
        }
    }
    if (own) {
        EXPECT_EQ(velh_rollback(con), VEL_S_OK);
    }
    return out;
}

// One database the workload writes to.
struct Target {
    velh_db_t *db = nullptr;
    vel_db_connection_h con = nullptr;
};

// Random transactions, the same on every target: each target must return
// the same codes.  Tracks the live objects itself so that every operation
// it draws is one the module accepts.
class Workload {
  public:
    explicit Workload(uint64_t seed) : rng_(seed) {}

    // Defines the first two classes on every target.
    void setup(const std::vector<Target *> &ts) {
        for (Target *t : ts)
            for (size_t c = 0; c < 2; ++c)
                define_class(t->db, classes()[c]);
        n_classes_ = 2;
    }

    // Defines the third class now rather than after the sixth commit.
    void define_late(const std::vector<Target *> &ts) {
        for (Target *t : ts)
            define_class(t->db, classes()[2]);
        n_classes_ = 3;
    }

    // One transaction of 1..4 operations, committed (or, one time in eight,
    // rolled back).  `before_commit` runs on each target inside the
    // transaction, after its operations.  Returns true when committed.
    bool txn(const std::vector<Target *> &ts,
             const std::function<void(Target *)> &before_commit = nullptr) {
        if (n_classes_ == 2 && commits_ >= 6) {
            for (Target *t : ts)
                define_class(t->db, classes()[2]);
            n_classes_ = 3;
        }
        std::vector<Op> ops;
        const int n = 1 + int(rng_() % 4);
        for (int i = 0; i < n; ++i)
            ops.push_back(draw());
        const bool commit = rng_() % 8 != 0;
        uint64_t next_last = last_;
        std::vector<std::vector<uint64_t>> live = live_;
        for (Target *t : ts) {
            EXPECT_EQ(velh_begin(t->con, VELH_READ_WRITE), VEL_S_OK);
            live = live_;
            next_last = last_;
            for (const Op &op : ops)
                apply(t, op, live, next_last);
            if (commit && before_commit)
                before_commit(t);
            EXPECT_EQ(commit ? velh_commit(t->con) : velh_rollback(t->con), VEL_S_OK);
        }
        if (commit) {
            live_ = live;
            last_ = next_last;
            ++commits_;
        }
        return commit;
    }

    uint64_t commits() const { return commits_; }

  private:
    struct Op {
        int kind;      // 0 create, 1 delete object, 2 set scalar, 3 append, 4 insert,
                       // 5 delete range, 6 compact (the host rebuilds the tree)
        size_t cls;    // class index
        size_t pick;   // which live object (modulo)
        uint16_t fld;  // field
        uint64_t a, b; // positions or counts, taken modulo the field's length
        uint64_t seed; // values and nulls
    };

    Op draw() {
        Op op{};
        op.cls = rng_() % n_classes_;
        op.kind = int(rng_() % 13);
        op.kind = op.kind < 2    ? 0
                  : op.kind < 3  ? 1
                  : op.kind < 4  ? 2
                  : op.kind < 8  ? 3
                  : op.kind < 10 ? 4
                  : op.kind < 12 ? 5
                                 : 6;
        op.pick = rng_();
        op.fld = uint16_t(rng_() % classes()[op.cls].fields.size());
        op.a = rng_();
        op.b = rng_();
        op.seed = rng_();
        return op;
    }

    void apply(Target *t, const Op &op, std::vector<std::vector<uint64_t>> &live, uint64_t &last) {
        live.resize(3);
        std::vector<uint64_t> &objs = live[op.cls];
        const uint16_t code = uint16_t(op.cls + 1);
        const ClassSpec &cs = classes()[op.cls];
        if (op.kind == 0 || objs.empty()) {
            vel_objhandle_t obj;
            EXPECT_EQ(velh_obj_create(t->con, code, &obj), VEL_S_OK);
            objs.push_back(obj.oid);
            return;
        }
        const size_t at = op.pick % objs.size();
        vel_objhandle_t obj;
        ASSERT_EQ(velh_obj_open(t->con, code, objs[at], &obj), VEL_S_OK);
        if (op.kind == 1) {
            EXPECT_EQ(velh_obj_delete(&obj), VEL_S_OK);
            objs.erase(objs.begin() + long(at));
            return;
        }
        const FieldSpec &f = cs.fields[op.fld];
        velh_field_info_t fi;
        ASSERT_EQ(velh_field_info(t->db, code, op.fld, &fi), VEL_S_OK);
        std::mt19937_64 r(op.seed);
        if (!is_seq(f.type)) {
            std::vector<uint8_t> v(fi.size);
            for (auto &b : v)
                b = uint8_t(r());
            EXPECT_EQ(velh_set(&obj, op.fld, v.data(), v.size()), VEL_S_OK);
            return;
        }
        const velrel::Family fam = family_of(f);
        vel_seq_no_t len = 0;
        ASSERT_EQ(vel_w_seq_count(&obj, fi.u_offset, fi.c_offset, &len), VEL_S_OK);
        const bool ordered = f.order != VEL_SEQ_NO_ORDER;
        if (op.kind == 6) {
            EXPECT_EQ(velh_compact(&obj, op.fld, f.order), VEL_S_OK);
            return;
        }
        int kind = op.kind == 2 ? 3 : op.kind;
        if (ordered && kind == 4)
            kind = 3;
        if (kind == 5 && len == 0)
            kind = 3;
        if (kind == 5) {
            uint64_t from = op.a % len, till = from + op.b % std::min<uint64_t>(len - from, 200);
            EXPECT_EQ(
                fam.del(&obj, fi.u_offset, fi.c_offset, op.fld, from, till, f.order, fam.width),
                VEL_S_OK);
            return;
        }
        const uint64_t n = 1 + op.b % (op.a % 5 == 0 ? 400 : 40);
        std::vector<uint8_t> vals(n * fam.width);
        std::vector<vel_bitmap_word_t> nulls((n + 63) / 64, 0);
        for (uint64_t i = 0; i < n; ++i) {
            if (ordered) {
                // Ascending int4 values that continue the field's last one
                // (the workload's own counter, the same on every target).
                int32_t v = int32_t(++last);
                std::memcpy(&vals[i * 4], &v, 4);
            } else {
                for (size_t k = 0; k < fam.width; ++k)
                    vals[i * fam.width + k] = uint8_t(r());
                if (r() % 5 == 0)
                    nulls[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            }
        }
        const vel_bitmap_word_t *nb = ordered ? nullptr : nulls.data();
        if (kind == 4)
            EXPECT_EQ(fam.insert(&obj, fi.u_offset, fi.c_offset, op.fld, op.a % (len + 1),
                                 vals.data(), n, f.order, nb, fam.width),
                      VEL_S_OK);
        else
            EXPECT_EQ(fam.append(&obj, fi.u_offset, fi.c_offset, op.fld, vals.data(), n, f.order,
                                 nb, fam.width),
                      VEL_S_OK);
    }

    std::mt19937_64 rng_;
    size_t n_classes_ = 0;
    uint64_t commits_ = 0;
    uint64_t last_ = 0; // last value given to the ordered field
    std::vector<std::vector<uint64_t>> live_ = std::vector<std::vector<uint64_t>>(3);
};

// A fresh folder for a test's files, removed with its content at the end.
class TempDir {
  public:
    TempDir() {
        char tmpl[] = "/tmp/velh-durable-XXXXXX";
        path_ = mkdtemp(tmpl);
    }
    ~TempDir() { std::system(("rm -rf '" + path_ + "'").c_str()); }
    std::string file(const std::string &name) const { return path_ + "/" + name; }

  private:
    std::string path_;
};

inline std::string read_file(const std::string &path) {
    std::string s;
    if (FILE *f = std::fopen(path.c_str(), "rb")) {
        char buf[65536];
        size_t k;
        while ((k = std::fread(buf, 1, sizeof buf, f)) > 0)
            s.append(buf, k);
        std::fclose(f);
    }
    return s;
}

inline void write_file(const std::string &path, const std::string &bytes) {
    // A new file, not a truncated one: ext4 flushes a file truncated and
    // rewritten when it is closed, which would make each case wait on disk.
    ::unlink(path.c_str());
    FILE *f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    std::fwrite(bytes.data(), 1, bytes.size(), f);
    std::fclose(f);
}

} // namespace durtest
