// Helpers shared by the reliability tests.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "harness/env.h"
#include "harness/model.h"
#include "harness/tree_check.h"
#include "seq_root.h"

namespace velrel {

// The k-th value of a family in ascending order (k >= 0; below 128 for int1);
// k < 0 gives NaN in float families.
inline std::vector<uint8_t> kth(const Family &f, int k) {
    std::vector<uint8_t> v(f.width);
    if (f.is_char) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%0*d", static_cast<int>(f.width), k);
        std::memcpy(v.data(), buf, f.width);
    } else if (f.elem_type == VEL_DD_FLOAT) {
        float x = k < 0 ? std::nanf("") : static_cast<float>(k);
        std::memcpy(v.data(), &x, 4);
    } else if (f.elem_type == VEL_DD_DOUBLE) {
        double x = k < 0 ? std::nan("") : k;
        std::memcpy(v.data(), &x, 8);
    } else {
        uint64_t x = static_cast<uint64_t>(k);
        std::memcpy(v.data(), &x, f.width);
    }
    return v;
}

// Values k0, k1, ... packed.
inline std::vector<uint8_t> pack(const Family &f, const std::vector<int> &ks) {
    std::vector<uint8_t> out;
    for (int k : ks) {
        auto v = kth(f, k);
        out.insert(out.end(), v.begin(), v.end());
    }
    return out;
}

// One field of an object with the family's calls bound to it; `o` < 0 means
// the declared order.
struct Field {
    vel_objhandle_h obj;
    const FieldSpec &s;
    const FieldLoc &l;
    size_t w() const { return s.fam.width; }
    vel_seq_order_t ord(int o) const { return o < 0 ? s.order : static_cast<vel_seq_order_t>(o); }
    VEL_RET append(const std::vector<uint8_t> &v, const vel_bitmap_word_t *nb = nullptr,
                   int o = -1) const {
        return s.fam.append(obj, l.u, l.c, l.fld_no, v.data(), v.size() / w(), ord(o), nb, w());
    }
    VEL_RET insert(uint64_t pos, const std::vector<uint8_t> &v,
                   const vel_bitmap_word_t *nb = nullptr, int o = -1) const {
        return s.fam.insert(obj, l.u, l.c, l.fld_no, pos, v.data(), v.size() / w(), ord(o), nb,
                            w());
    }
    VEL_RET del(uint64_t from, uint64_t till) const {
        return s.fam.del(obj, l.u, l.c, l.fld_no, from, till, s.order, w());
    }
    VEL_RET subseq(vel_seq_iterator_t *it, uint64_t from, uint64_t till) const {
        return s.fam.subseq(obj, l.u, l.c, it, from, till, w());
    }
    VEL_RET search(vel_seq_iterator_t *it, const std::vector<uint8_t> &lo,
                   vel_seq_boundary_kind_t lk, const std::vector<uint8_t> &hi,
                   vel_seq_boundary_kind_t hk) const {
        return s.fam.search(obj, l.u, l.c, it, lo.data(), lk, hi.data(), hk, s.order, w());
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
};

// Every field's content, read from its pages after a tree check of each; a
// failed check is a test failure naming the field.  `obj`: the writer's
// object when null, else another connection's view of it.
inline std::vector<SeqModel> read_all(Env &env, const std::vector<FieldSpec> &fields,
                                      bool keys_exact, vel_objhandle_h obj = nullptr) {
    std::vector<SeqModel> out(fields.size());
    for (size_t i = 0; i < fields.size(); ++i) {
        vel_seq_page_t *root = nullptr;
        EXPECT_EQ(vel_seq_get_root(obj ? obj : env.obj(), env.loc(i).u, env.loc(i).c, &root),
                  VEL_S_OK);
        TreeInfo ti;
        EXPECT_EQ(
            check_tree(fields[i].fam, fields[i].order, root, env.page_size(), keys_exact, &ti), "")
            << "field " << i;
        out[i] = ti.content;
    }
    return out;
}

inline uint64_t env_u64(const char *name, uint64_t dflt) {
    const char *s = std::getenv(name);
    return s && *s ? std::strtoull(s, nullptr, 10) : dflt;
}

} // namespace velrel
