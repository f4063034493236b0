// Helpers shared by the storage tests: value generation per family and
// the "check everything after a step" assertion.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <random>
#include <vector>

#include "seq_fixture.h"
#include "storage/page_format.h"
#include "tree_check.h"

namespace vstest {

// n random elements of the family, packed; for unordered use any bytes.
inline std::vector<uint8_t> random_values(const FamilyOps &fam, std::mt19937_64 &rng, size_t n) {
    std::vector<uint8_t> out(n * fam.elem_size);
    for (auto &b : out)
        b = static_cast<uint8_t>(rng());
    if (fam.is_float) { // keep floats ordinary so byte compares stay meaningful
        for (size_t i = 0; i < n; i++) {
            if (fam.elem_size == 4) {
                float v = static_cast<float>(static_cast<int32_t>(rng() % 200000) - 100000) / 8;
                std::memcpy(&out[i * 4], &v, 4);
            } else {
                double v = static_cast<double>(static_cast<int64_t>(rng() % 2000000) - 1000000) / 8;
                std::memcpy(&out[i * 8], &v, 8);
            }
        }
    }
    return out;
}

// Element i of an ascending run, for every family: integers and datetimes
// count up from `base`, floats likewise, chars as big-endian counters.
inline void ascending_value(const FamilyOps &fam, uint64_t i, uint8_t *out) {
    if (fam.is_char) {
        std::memset(out, 'a', fam.elem_size);
        size_t n = fam.elem_size < 8 ? fam.elem_size : 8;
        for (size_t k = 0; k < n; k++)
            out[fam.elem_size - 1 - k] = static_cast<uint8_t>(i >> (8 * k));
        return;
    }
    if (fam.is_float) {
        if (fam.elem_size == 4) {
            float v = static_cast<float>(i);
            std::memcpy(out, &v, 4);
        } else {
            double v = static_cast<double>(i);
            std::memcpy(out, &v, 8);
        }
        return;
    }
    uint64_t v = i;
    if (fam.elem_size < 8) // stay in range of the narrow types: wrap-around is not ascending
        v = i % (fam.is_signed ? (1ull << (8 * fam.elem_size - 1)) : (1ull << (8 * fam.elem_size)));
    std::memcpy(out, &v, fam.elem_size); // little-endian machine
}

inline std::vector<uint8_t> ascending_values(const FamilyOps &fam, uint64_t start, size_t n) {
    std::vector<uint8_t> out(n * fam.elem_size);
    for (size_t i = 0; i < n; i++)
        ascending_value(fam, start + i, &out[i * fam.elem_size]);
    return out;
}

inline std::vector<vel_bitmap_word_t> random_nulls(std::mt19937_64 &rng, size_t n) {
    std::vector<vel_bitmap_word_t> bm((n + 63) / 64 + 1);
    for (auto &w : bm)
        w = rng() & rng(); // about a quarter of the bits set
    return bm;
}

} // namespace vstest

namespace vstest {

// Checks a field against the model: tree invariants, every element and null
// flag, count, first and last (with their null codes and the slot copy).
inline void expect_matches(const FamilyOps &fam, vel_objhandle_h obj, const FieldRef &f,
                           const SeqModel &m, vel_seq_order_t order, bool check_keys = false) {
    TreeReport r = check_tree(obj, f, order, check_keys);
    ASSERT_TRUE(r.ok()) << r.error;
    ASSERT_EQ(m.diff(r.contents), "");
    vel_seq_no_t count = 12345;
    ASSERT_EQ(vel_w_seq_count(obj, f.u_offset, f.c_offset, &count), VEL_S_OK);
    ASSERT_EQ(count, m.size());

    std::vector<uint8_t> buf(fam.elem_size, 0xAB);
    const std::vector<uint8_t> untouched = buf;
    VEL_RET rc = fam.first(obj, f, buf.data());
    if (m.size() == 0) {
        ASSERT_EQ(rc, VEL_S_NOTFOUND);
        ASSERT_EQ(buf, untouched);
    } else {
        ASSERT_EQ(rc, m.is_null(0) ? VEL_E_SEQ_NULL_VALUE : VEL_S_OK);
        ASSERT_EQ(std::memcmp(buf.data(), m.at(0), fam.elem_size), 0) << "first";
    }
    buf = untouched;
    rc = fam.last(obj, f, buf.data());
    if (m.size() == 0) {
        ASSERT_EQ(rc, VEL_S_NOTFOUND);
        ASSERT_EQ(buf, untouched);
    } else {
        ASSERT_EQ(rc, m.is_null(m.size() - 1) ? VEL_E_SEQ_NULL_VALUE : VEL_S_OK);
        ASSERT_EQ(std::memcmp(buf.data(), m.at(m.size() - 1), fam.elem_size), 0) << "last";
    }
}

// The field's elements as T, read by the tree checker.
template <class T>
std::vector<T> contents_as(vel_objhandle_h obj, const FieldRef &f, vel_seq_order_t order) {
    TreeReport r = check_tree(obj, f, order);
    EXPECT_TRUE(r.ok()) << r.error;
    std::vector<T> out(r.contents.size());
    if (!out.empty())
        std::memcpy(out.data(), r.contents.bytes.data(), r.contents.bytes.size());
    return out;
}

inline std::vector<std::string> family_names() {
    std::vector<std::string> out;
    for (const FamilyOps &f : all_families())
        out.push_back(f.name);
    return out;
}

} // namespace vstest
