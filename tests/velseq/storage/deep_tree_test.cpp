// Late single-value inserts: the raw module path deepens a tree until it
// traps at 14 levels, with every commit before that whole; a compacted tree
// is the tree appends build, and older snapshots keep theirs.  (The limits
// keep-compact holds are checked through the C++ API, which calls it.)
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>

#include "seq_fixture.h"
#include "tree_check.h"

namespace vstest {
namespace {

velh_field_shape_t shape(vel_objhandle_t &obj, const FieldRef &f, vel_seq_order_t order) {
    velh_field_shape_t s{};
    EXPECT_EQ(velh_field_shape(&obj, f.fld_no, order, &s), VEL_S_OK);
    return s;
}

// The tree is sound, holds the model's values, and the host's accounting
// agrees with the pages it has.
void expect_tree(vel_objhandle_t &obj, const FieldRef &f, vel_seq_order_t order,
                 const SeqModel &model, const char *when) {
    TreeReport r = check_tree(&obj, f, order);
    ASSERT_TRUE(r.ok()) << when << ": " << r.error;
    ASSERT_EQ(diff(model, r.contents), "") << when;
    velh_field_shape_t s = shape(obj, f, order);
    EXPECT_EQ(s.pages, r.pages.size()) << when;
    EXPECT_EQ(s.depth, static_cast<uint32_t>(r.depth)) << when;
    EXPECT_EQ(s.elements, model.size()) << when;
}

struct LateInserts : ::testing::Test {
    SeqDb db;
    FieldRef f = db.field("int4");
    const FamilyOps &fam = family("int4");
    SeqModel model = SeqModel::of_width(4);
    uint64_t oid = 0;

    void SetUp() override {
        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        vel_objhandle_t obj = db.new_object();
        oid = obj.oid;
        std::vector<int32_t> v(10000);
        for (size_t i = 0; i < v.size(); ++i)
            v[i] = static_cast<int32_t>(i);
        ASSERT_EQ(fam.append(&obj, f, v.data(), v.size(), VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
        model.insert(0, v.data(), v.size(), nullptr, 0);
        ASSERT_EQ(db.commit(), VEL_S_OK);
    }
    vel_objhandle_t open() {
        vel_objhandle_t obj{};
        EXPECT_EQ(velh_obj_open(db.con(), db.class_code(), oid, &obj), VEL_S_OK);
        return obj;
    }
    // After a commit, with no reader left, the field's tree is every live page.
    void expect_committed(const char *when) {
        ASSERT_EQ(db.begin_read(), VEL_S_OK);
        vel_objhandle_t obj = open();
        expect_tree(obj, f, VEL_SEQ_NO_ORDER, model, when);
        EXPECT_EQ(db.stats().live, shape(obj, f, VEL_SEQ_NO_ORDER).pages) << when;
        ASSERT_EQ(db.rollback(), VEL_S_OK);
    }
    void insert_one(vel_objhandle_t &obj, uint64_t pos, int32_t v) {
        ASSERT_EQ(fam.insert(&obj, f, pos, &v, 1, VEL_SEQ_NO_ORDER, nullptr), VEL_S_OK);
        model.insert(pos, &v, 1, nullptr, 0);
    }
};

TEST_F(LateInserts, RawPathTrapsAtFourteenLevelsAndEveryCommitStaysWhole) {
    int round = 0;
    bool trapped = false;
    while (!trapped && round < 10) {
        ++round;
        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        vel_objhandle_t obj = open();
        SeqModel before = model;
        try {
            for (int k = 0; k < 1000; ++k)
                insert_one(obj, 5000 + static_cast<uint64_t>(k), -round);
        } catch (const TrapHit &hit) {
            EXPECT_EQ(hit.code, VEL_ERR_SEQ);
            // The root may not grow a 15th level: the trap comes first.
            EXPECT_EQ(shape(obj, f, VEL_SEQ_NO_ORDER).depth, unsigned(VEL_SEQ_MAX_DEPTH));
            trapped = true;
        }
        if (trapped) {
            ASSERT_EQ(db.rollback(), VEL_S_OK);
            model = before;
        } else {
            EXPECT_LE(shape(obj, f, VEL_SEQ_NO_ORDER).depth, unsigned(VEL_SEQ_MAX_DEPTH));
            ASSERT_EQ(db.commit(), VEL_S_OK) << "round " << round;
        }
        expect_committed(trapped ? "after the trap" : "after a round");
    }
    EXPECT_TRUE(trapped) << "4000 single inserts at one place build 15 levels";
}

// Bytes of value k of a family, ascending in k (k < 2^20).
std::vector<uint8_t> ordered_value(const FamilyOps &fam, uint64_t k) {
    std::vector<uint8_t> v(fam.elem_size);
    if (fam.is_char) {
        std::string s = std::to_string(k);
        s.insert(0, fam.elem_size - s.size(), '0');
        std::memcpy(v.data(), s.data(), fam.elem_size);
    } else if (fam.is_float && fam.elem_size == 8) {
        double d = static_cast<double>(k) / 4;
        std::memcpy(v.data(), &d, 8);
    } else {
        std::memcpy(v.data(), &k, fam.elem_size);
    }
    return v;
}

// Compares two trees page by page (depth-first): kinds, counts, entry
// counts, keys of ordered inner pages, leaf values and null bits.
void expect_same_pages(const TreeReport &a, const TreeReport &b, const FamilyOps &fam, int32_t ps,
                       bool keyed) {
    ASSERT_EQ(a.pages.size(), b.pages.size());
    const uint64_t cap = fam.ops.leaf_capacity(ps);
    const size_t mask_at = static_cast<size_t>(ps) - 8 * ((cap + 63) / 64);
    for (size_t i = 0; i < a.pages.size(); ++i) {
        auto *p = reinterpret_cast<const uint8_t *>(a.pages[i]);
        auto *q = reinterpret_cast<const uint8_t *>(b.pages[i]);
        const int n = a.pages[i]->hdr.user;
        ASSERT_EQ(a.pages[i]->hdr.kind & 15, b.pages[i]->hdr.kind & 15) << "page " << i;
        ASSERT_EQ(n, b.pages[i]->hdr.user) << "page " << i;
        if ((a.pages[i]->hdr.kind & 15) == 2) {
            for (int e = 0; e < n; ++e)
                ASSERT_EQ(std::memcmp(p + ps - 16 * (e + 1) + 8, q + ps - 16 * (e + 1) + 8, 8), 0)
                    << "count of entry " << e << " on page " << i;
            if (keyed) {
                ASSERT_EQ(std::memcmp(p + 8, q + 8, n * fam.elem_size), 0) << "keys, page " << i;
            }
        } else {
            ASSERT_EQ(std::memcmp(p + 8, q + 8, n * fam.elem_size), 0) << "values, page " << i;
            for (int k = 0; k < n; ++k)
                ASSERT_EQ((p[mask_at + k / 8] >> (k % 8)) & 1, (q[mask_at + k / 8] >> (k % 8)) & 1)
                    << "null bit " << k << " on page " << i;
        }
    }
}

TEST(Compaction, BuildsTheAppendBuiltTreeAndLeavesOlderSnapshotsAlone) {
    // An ordered char inner page stores keys it has no room for: past
    // (page_size - 8) / (16 + N) children they overwrite entries, so the
    // char case stays below that many pages.
    struct Case {
        const char *family;
        vel_seq_order_t order;
        uint64_t n;
    };
    for (Case c : {Case{"int4", VEL_SEQ_NO_ORDER, 6000}, Case{"uint1", VEL_SEQ_NO_ORDER, 6000},
                   Case{"int8", VEL_SEQ_ASC_ORDER, 6000}, Case{"double", VEL_SEQ_DESC_ORDER, 6000},
                   Case{"char16", VEL_SEQ_ASC_ORDER, 300}}) {
        SCOPED_TRACE(c.family);
        SeqDb db;
        const FamilyOps &fam = family(c.family);
        const FieldRef f = db.field(fam);
        const bool ordered = c.order != VEL_SEQ_NO_ORDER;
        std::mt19937_64 rng(11);
        // The even values appended, the odd ones inserted one at a time in
        // random order at their place (random bytes and nulls when
        // unordered).
        const uint64_t n = c.n;
        std::vector<uint64_t> late;
        for (uint64_t k = 1; k < n; k += 2)
            late.push_back(k);
        std::shuffle(late.begin(), late.end(), rng);
        auto value = [&](uint64_t k) {
            uint64_t rank = c.order == VEL_SEQ_DESC_ORDER ? n - k : k;
            if (ordered)
                return ordered_value(fam, rank);
            std::vector<uint8_t> v(fam.elem_size);
            for (auto &b : v)
                b = static_cast<uint8_t>(rng());
            return v;
        };

        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        vel_objhandle_t a = db.new_object();
        SeqModel model = SeqModel::of_width(fam.elem_size);
        std::vector<uint64_t> keys; // k of each stored element, in order
        for (uint64_t k = 0; k < n; k += 2) {
            auto v = value(k);
            ASSERT_EQ(fam.append(&a, f, v.data(), 1, c.order, nullptr), VEL_S_OK);
            model.insert(model.size(), v.data(), 1, nullptr, 0);
            keys.push_back(k);
        }
        for (uint64_t k : late) {
            auto v = value(k);
            uint64_t pos = ordered ? std::lower_bound(keys.begin(), keys.end(), k) - keys.begin()
                                   : rng() % (keys.size() + 1);
            vel_bitmap_word_t null = !ordered && rng() % 5 == 0;
            ASSERT_EQ(fam.insert(&a, f, pos, v.data(), 1, c.order, &null), VEL_S_OK);
            model.insert(pos, v.data(), 1, &null, 0);
            keys.insert(keys.begin() + static_cast<ptrdiff_t>(pos), k);
        }
        ASSERT_EQ(db.commit(), VEL_S_OK);

        // A reader keeps the degraded tree while the writer compacts.
        vel_db_connection_h reader;
        ASSERT_EQ(velh_connect(db.db(), &reader), VEL_S_OK);
        ASSERT_EQ(velh_begin(reader, VELH_READ_ONLY), VEL_S_OK);
        vel_objhandle_t old{};
        ASSERT_EQ(velh_obj_open(reader, db.class_code(), a.oid, &old), VEL_S_OK);
        const velh_field_shape_t degraded = shape(old, f, c.order);
        EXPECT_GT(degraded.pages, 2 * degraded.dense_pages);

        ASSERT_EQ(db.begin_write(), VEL_S_OK);
        ASSERT_EQ(velh_obj_open(db.con(), db.class_code(), a.oid, &a), VEL_S_OK);
        ASSERT_EQ(velh_compact(&a, f.fld_no, c.order), VEL_S_OK);
        vel_objhandle_t b = db.new_object();
        std::vector<vel_bitmap_word_t> nulls((model.size() + 63) / 64);
        for (size_t i = 0; i < model.size(); ++i)
            nulls[i / 64] |= vel_bitmap_word_t(model.nulls[i]) << (i % 64);
        std::vector<uint8_t> bytes(model.at(0), model.at(0) + model.size() * fam.elem_size);
        ASSERT_EQ(fam.append(&b, f, bytes.data(), model.size(), c.order,
                             ordered ? nullptr : nulls.data()),
                  VEL_S_OK);

        TreeReport ra = check_tree(&a, f, c.order, ordered);
        TreeReport rb = check_tree(&b, f, c.order, ordered);
        ASSERT_TRUE(ra.ok()) << ra.error;
        EXPECT_EQ(diff(model, ra.contents), "");
        expect_same_pages(ra, rb, fam, db.options().seq_page_size, ordered);
        EXPECT_EQ(shape(a, f, c.order).pages, shape(a, f, c.order).dense_pages);

        TreeReport ro = check_tree(&old, f, c.order);
        ASSERT_TRUE(ro.ok()) << ro.error;
        EXPECT_EQ(diff(model, ro.contents), "");
        ASSERT_EQ(db.commit(), VEL_S_OK);
        ASSERT_EQ(velh_disconnect(reader), VEL_S_OK);
        // Once the reader is gone only the two dense trees hold pages.
        EXPECT_EQ(db.stats().live, 2 * ra.pages.size());
    }
}

} // namespace
} // namespace vstest
