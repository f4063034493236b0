// Helpers shared by the reliability tests.
#pragma once

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "harness/env.h"
#include "harness/model.h"
#include "harness/tree_check.h"
#include "storage/field_root.h"

namespace velrel {

// The k-th value of a family in ascending order (k in 0..120).
inline std::vector<uint8_t> kth(const Family &f, int k) {
    std::vector<uint8_t> v(f.width);
    if (f.is_char) {
        char buf[32];
        std::snprintf(buf, sizeof buf, "%0*d", static_cast<int>(f.width), k);
        std::memcpy(v.data(), buf, f.width);
    } else if (f.elem_type == VEL_DD_FLOAT) {
        float x = static_cast<float>(k);
        std::memcpy(v.data(), &x, 4);
    } else if (f.elem_type == VEL_DD_DOUBLE) {
        double x = k;
        std::memcpy(v.data(), &x, 8);
    } else {
        uint64_t x = static_cast<uint64_t>(k);
        std::memcpy(v.data(), &x, f.width);
    }
    return v;
}

// Values k0, k1, ... packed.
inline std::vector<uint8_t> pack(const Family &f, std::initializer_list<int> ks) {
    std::vector<uint8_t> out;
    for (int k : ks) {
        auto v = kth(f, k);
        out.insert(out.end(), v.begin(), v.end());
    }
    return out;
}

// The stored content of a field, read from its pages after a tree check.
inline std::string read_content(vel_objhandle_h obj, const FieldLoc &l, const FieldSpec &fs,
                                int32_t page_size, bool keys_exact, SeqModel *out) {
    vel_seq_page_t *root = nullptr;
    VEL_RET rc = vel_seq_get_root(obj, l.u, l.c, &root);
    if (rc != VEL_S_OK)
        return "root fetch failed with " + std::to_string(rc);
    TreeInfo ti;
    std::string e = check_tree(fs.fam, fs.order, root, page_size, keys_exact, &ti);
    *out = ti.content;
    return e;
}

// Every field's content after a tree check of each; a failed check is a
// test failure naming the field.
inline std::vector<SeqModel> read_all(Env &env, const std::vector<FieldSpec> &fields,
                                      bool keys_exact) {
    std::vector<SeqModel> out(fields.size());
    for (size_t i = 0; i < fields.size(); ++i)
        EXPECT_EQ(
            read_content(env.obj(), env.loc(i), fields[i], env.page_size(), keys_exact, &out[i]),
            "")
            << "field " << i;
    return out;
}

inline uint64_t env_u64(const char *name, uint64_t dflt) {
    const char *s = std::getenv(name);
    return s && *s ? std::strtoull(s, nullptr, 10) : dflt;
}

} // namespace velrel
