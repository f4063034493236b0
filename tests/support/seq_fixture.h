// Shared by the module's tests: the differential harness's database (Env,
// Field, the tree checker, the model), values of any family by rank, every
// field read through the tree checker, and a trap handler that throws.
#pragma once

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "harness/env.h"
#include "harness/model.h"
#include "harness/tree_check.h"
#include "seq_root.h"

namespace velrel {

// What the host's trap reported; thrown by throwing_trap.
struct TrapHit {
    int code;
    std::string file;
    int line;
};
inline void throwing_trap(int code, const char *file, int line, void *) {
    throw TrapHit{code, file != nullptr ? file : "", line};
}

// An environment, or an exception (a test failure) naming the host's code.
inline std::unique_ptr<Env> must_open(const EnvConfig &cfg, const std::vector<FieldSpec> &fields) {
    VEL_RET rc;
    auto env = Env::open(cfg, fields, &rc);
    if (!env)
        throw std::runtime_error("database could not be made: " + std::to_string(rc));
    return env;
}

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

// A field's tree, checked: a failed check is a test failure.
inline TreeInfo checked(const Field &f, bool keys_exact, int order = -1) {
    TreeInfo ti;
    EXPECT_EQ(f.check(keys_exact, &ti, order), "") << "field " << f.l.fld_no;
    return ti;
}

// Every field's content, read from its pages after a tree check of each.
// `obj`: the writer's object when null, else another connection's view of it.
inline std::vector<SeqModel> read_all(Env &env, bool keys_exact, vel_objhandle_h obj = nullptr) {
    std::vector<SeqModel> out;
    for (size_t i = 0; i < env.fields().size(); ++i)
        out.push_back(checked(env.field(static_cast<int>(i), obj), keys_exact).content);
    return out;
}

inline uint64_t env_u64(const char *name, uint64_t dflt) {
    const char *s = std::getenv(name);
    return s && *s ? std::strtoull(s, nullptr, 10) : dflt;
}

} // namespace velrel
