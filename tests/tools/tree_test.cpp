// Tree statistics and dump on trees whose shape follows from the append
// rule (pages fill left to right, a new page opens only when the last one is
// full), cross-checked with the host's own tree check and page accounting;
// and the depth limit that every walk of a tree shares.
#include <gtest/gtest.h>

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <vector>

#include "harness/env.h"
#include "harness/families.h"
#include "harness/tree_check.h"
#include "seq_root.h"
#include "veltools.h"

namespace {

// A database with one object whose first field is a sequence of the type
// under test (the harness's environment), in an open read-write transaction.
struct FieldDb {
    VEL_RET rc = VEL_S_OK;
    std::unique_ptr<velrel::Env> env;
    vel_objhandle_t &obj;
    velt_field_t field;

    FieldDb(const velrel::Family &fam, vel_seq_order_t order, int32_t page_size)
        : env(velrel::Env::open({page_size}, {{fam, order}}, &rc)), obj(*env->obj()) {
        const velrel::FieldLoc &l = env->loc(0);
        field = {l.u, l.c, l.fld_no, {fam.elem_type, uint16_t(fam.width)}, order};
    }

    // Appends n values of the field's type (nulls: a bitmap or nullptr).
    void append(const void *vals, uint64_t n, const vel_bitmap_word_t *nulls = nullptr) {
        ASSERT_EQ(env->field(0).append(vals, n, nulls), VEL_S_OK);
    }
    // Appends from, from + step, ... up to before `to`, of the field's type T.
    template <class T> void append_range(T from, T to, T step = 1) {
        std::vector<T> v;
        for (T x = from; x < to; x += step)
            v.push_back(x);
        append(v.data(), v.size());
    }
    // The statistics, which must agree with the host's own check of the tree.
    velt_tree_stats_t stats() {
        velt_tree_stats_t st;
        velt_error_t err{};
        EXPECT_EQ(velt_tree_stats(&obj, &field, &st, &err), VELT_OK) << err.message;
        if (st.pages != 0) {
            velh_tree_report_t rep{};
            EXPECT_EQ(velh_check_tree(&obj, field.fld_no, field.order, 1, &rep), VEL_S_OK);
            EXPECT_TRUE(rep.ok) << rep.message;
            EXPECT_EQ(std::vector<uint64_t>({st.depth, st.pages, st.elements, st.nulls}),
                      std::vector<uint64_t>({rep.depth, rep.pages, rep.elements, rep.nulls}));
        }
        return st;
    }
    std::string dump(const velt_dump_options_t *opt, velt_error_t *err) {
        char *buf = nullptr;
        size_t len = 0;
        FILE *m = open_memstream(&buf, &len);
        velt_dump_tree(&obj, &field, m, opt, err);
        std::fclose(m);
        std::string s(buf, len);
        std::free(buf);
        return s;
    }
};

// depth, pages, leaf pages, inner pages, leaf fill min and max, elements,
// nulls, bytes allocated and used.
std::vector<uint64_t> shape(const velt_tree_stats_t &s) {
    return {s.depth,         s.pages,    s.leaf_pages, s.inner_pages,     s.leaf_fill_min,
            s.leaf_fill_max, s.elements, s.nulls,      s.bytes_allocated, s.bytes_used};
}

// An empty field has no pages; a leaf filled to the capacity the statistics
// report stays one page; one more value opens a second leaf under a new
// root.  Were the reported capacity not the module's, a shape would differ.
// Every fifth value is null, so the null bits span several bitmap words.
TEST(TreeStats, FullLeafThenOneMoreEveryFamily) {
    for (const velrel::Family &f : velrel::all_families()) {
        for (uint32_t ps : {256u, 4096u}) {
            SCOPED_TRACE(std::string(f.name) + " page " + std::to_string(ps));
            FieldDb d(f, VEL_SEQ_NO_ORDER, ps);
            velt_tree_stats_t st = d.stats();
            EXPECT_EQ(st.depth + st.pages + st.elements + st.bytes_allocated, 0u);
            EXPECT_EQ(st.page_size, static_cast<int32_t>(ps));
            const uint64_t cap = st.leaf_capacity, w = f.width, mask = 8 * ((cap + 63) / 64);
            ASSERT_GT(cap, 0u);
            const std::vector<uint8_t> v(cap * w, 'a');
            std::vector<vel_bitmap_word_t> nulls((cap + 63) / 64);
            for (uint64_t i = 0; i < cap; i += 5)
                nulls[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
            d.append(v.data(), cap, nulls.data());
            EXPECT_EQ(shape(d.stats()),
                      std::vector<uint64_t>(
                          {1, 1, 1, 0, cap, cap, cap, (cap + 4) / 5, ps, 8 + cap * w + mask}));
            d.append(v.data() + w, 1); // not null
            st = d.stats();
            EXPECT_EQ(shape(st),
                      std::vector<uint64_t>({2, 3, 2, 1, 1, cap, cap + 1, (cap + 4) / 5, 3 * ps,
                                             16 + (cap + 1) * w + 2 * mask + 8 + 2 * 16}));
            EXPECT_EQ(std::vector<uint64_t>(st.pages_at_level, st.pages_at_level + 3),
                      std::vector<uint64_t>({1, 2, 0}));
            EXPECT_DOUBLE_EQ(st.leaf_fill_avg, static_cast<double>(cap + 1) / 2);
        }
    }
}

// Inner capacity decides where the third level starts: ordered scalar
// fields keep a key per child, so their inner pages fill sooner.  The page
// count agrees with the host's page accounting (the only field of the db);
// after a commit, one more value copies the right edge, whose copies share
// their other child (the pages below it are shared through it).
TEST(TreeStats, InnerCapacitySharingAndHostPages) {
    for (vel_seq_order_t order : {VEL_SEQ_NO_ORDER, VEL_SEQ_ASC_ORDER}) {
        SCOPED_TRACE(order);
        FieldDb d(velrel::family_of(VEL_DD_INT8), order, 128);
        velt_tree_stats_t st = d.stats();
        const uint64_t leaf = st.leaf_capacity, inner = st.inner_capacity;
        ASSERT_GT(inner, 1u);
        const int64_t full2 = static_cast<int64_t>(leaf * inner);
        d.append_range<int64_t>(0, full2);
        st = d.stats();
        EXPECT_EQ(st.depth, 2u);
        EXPECT_EQ(st.pages_at_level[1], inner);
        d.append_range<int64_t>(full2, full2 + 1);
        st = d.stats();
        EXPECT_EQ(std::vector<uint64_t>(st.pages_at_level, st.pages_at_level + 4),
                  std::vector<uint64_t>({1, 2, inner + 1, 0}));
        EXPECT_EQ(st.bytes_used,
                  (inner + 1) * (8 + 8 * ((leaf + 63) / 64)) + (full2 + 1) * 8 +    // leaves
                      3 * 8 + (inner + 3) * (order != VEL_SEQ_NO_ORDER ? 24 : 16)); // inner
        velh_page_stats_t ps{};
        ASSERT_EQ(velh_page_stats(d.env->db(), VELH_PM_ALL, &ps), VEL_S_OK);
        EXPECT_EQ(st.pages, ps.live);
        EXPECT_EQ(st.shared_pages, 0u);
        ASSERT_EQ(d.env->commit_and_begin(), VEL_S_OK);
        d.append_range<int64_t>(full2 + 1, full2 + 2);
        EXPECT_EQ(d.stats().shared_pages, 1u);
    }
}

// The dump of an ordered tree shows keys, counts and previews; damaged pages
// (a miscounting entry, a page of no kind, a leaf empty or over capacity)
// are reported, not followed (the damage is undone before the database
// closes).  The host's checker walks trees the same way.
TEST(TreeDump, KeysCountsPreviewsAndDamage) {
    // 64-byte pages of int4: 11 values a leaf, 2 keyed children an inner page.
    FieldDb d(velrel::family_of(VEL_DD_INT4), VEL_SEQ_ASC_ORDER, 64);
    d.append_range<int32_t>(0, 130, 10);
    const velt_dump_options_t opt{3, 16};
    EXPECT_EQ(d.dump(&opt, nullptr),
              "sequence int4, ascending, page size 64: depth 2, 3 pages, 13 elements\n"
              "#0 inner L0: 2 children, 13 elements\n"
              "    [0] #1 count 11 key 0\n"
              "    [1] #2 count 2 key 110\n"
              "  #1 leaf L1: 11 values, 0 null: 0, 10, 20, ... (+8)\n"
              "  #2 leaf L1: 2 values, 0 null: 110, 120\n");

    vel_seq_page_t *root = nullptr;
    ASSERT_EQ(vel_seq_get_root(&d.obj, d.field.u_offset, d.field.c_offset, &root), VEL_S_OK);
    auto *entry0 = reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<char *>(root) + 64 - 16);
    // With `at` set to `bad`, the statistics refuse the tree saying `says`,
    // and the dump shows the same message where its walk stopped.
    const auto refused = [&](auto &at, auto bad, const char *says) {
        const auto keep = at;
        at = bad;
        velt_tree_stats_t st;
        velt_error_t err{};
        EXPECT_EQ(velt_tree_stats(&d.obj, &d.field, &st, &err), VELT_E_BAD_TREE);
        const std::string message = err.message;
        EXPECT_NE(message.find(says), std::string::npos) << message;
        const std::string dump = d.dump(nullptr, &err);
        EXPECT_NE(dump.find("broken tree"), std::string::npos) << dump;
        EXPECT_NE(dump.find("!! " + message), std::string::npos) << dump;
        at = keep;
    };
    refused(entry0->count, entry0->count + 1, "page #0 (level 0): entry 0 counts");
    vel_seq_page_t *leaf = entry0->page;
    refused(leaf->hdr.kind, uint8_t((leaf->hdr.kind & 0xf0) | 5), "page #1 (level 1): page kind 5");
    refused(leaf->hdr.user, uint16_t(0), "leaf holds 0 values");
    refused(leaf->hdr.user, uint16_t(12), "page #1 (level 1): leaf holds 12 values, capacity 11");
}

// The depth limit of the one tree walk, as every user of it reports it: a
// chain of single-child inner pages over a leaf is sound at 14 levels and
// refused at 15 by the host's checker, compaction and commit (which rolls
// back whole), the tools' statistics and the harness's checker alike.  A
// commit keeps every linked page however deep and frees the page no tree
// links.
TEST(TreeWalk, EveryWalkRefusesALevelBelowTheDeepest) {
    constexpr int32_t kPage = 256;
    for (int levels : {VEL_SEQ_MAX_DEPTH, VEL_SEQ_MAX_DEPTH + 1}) {
        SCOPED_TRACE(levels);
        const bool sound = levels <= VEL_SEQ_MAX_DEPTH;
        FieldDb d(velrel::family_of(VEL_DD_INT4), VEL_SEQ_NO_ORDER, kPage);
        vel_seq_page_t *root = nullptr;
        for (int l = 0; l < levels; ++l) {
            vel_seq_page_t *pg = nullptr, *slot = nullptr;
            ASSERT_EQ(vel_seq_create_page(d.env->con(), d.obj.pm, &pg, &slot, l == 0 ? 3 : 2),
                      VEL_S_OK);
            pg->hdr.user = l == 0 ? 3 : 1;
            if (l > 0)
                *reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<char *>(pg) + kPage -
                                                    16) = {root, 3};
            root = pg;
        }
        vel_seq_page_t *unlinked = nullptr, *slot = nullptr;
        ASSERT_EQ(vel_seq_create_page(d.env->con(), d.obj.pm, &unlinked, &slot, 3), VEL_S_OK);
        VEL_WRK w; // the root slot, at the field's offset in the class's (uncompact) layout
        ASSERT_EQ(vel_writing(&d.obj, &w, 0, d.field.fld_no), 0);
        *static_cast<vel_seq_page_t **>(
            vel_obj_pos(w.pobj, d.env->con(), w.pm, d.obj.mo + d.field.u_offset, 1)) = root;
        vel_end_writing(&d.obj, &w);

        velh_tree_report_t rep;
        ASSERT_EQ(velh_check_tree(&d.obj, d.field.fld_no, VEL_SEQ_NO_ORDER, 0, &rep), VEL_S_OK);
        EXPECT_EQ(rep.ok != 0, sound) << rep.message;
        EXPECT_EQ(rep.depth, sound ? uint32_t(levels) : 0u);
        velt_tree_stats_t st;
        velt_error_t err{};
        EXPECT_EQ(velt_tree_stats(&d.obj, &d.field, &st, &err), sound ? VELT_OK : VELT_E_BAD_TREE);
        EXPECT_EQ(err.index, sound ? 0u : uint64_t(VEL_SEQ_MAX_DEPTH)) << err.message;
        velrel::TreeInfo info;
        const std::string bad = d.env->field(0).check(true, &info);
        EXPECT_EQ(bad.empty(), sound) << bad;
        EXPECT_EQ(d.env->live_pages(), uint64_t(levels) + 1);
        const auto compact = [&] { return velh_compact(&d.obj, d.field.fld_no, VEL_SEQ_NO_ORDER); };
        if (!sound) { // before the commit, which drops the tree
            EXPECT_EQ(compact(), VEL_E_HOST_TREE_DEPTH);
        }
        EXPECT_EQ(d.env->commit_and_begin(), sound ? VEL_S_OK : VEL_E_HOST_TREE_DEPTH);
        EXPECT_EQ(d.env->live_pages(), sound ? uint64_t(levels) : 0u);
        if (sound) {
            EXPECT_EQ(compact(), VEL_S_OK);
        }
    }
}

} // namespace
