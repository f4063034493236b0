// Tree statistics and dump on trees whose shape follows from the append
// rule (pages fill left to right, a new page opens only when the last one is
// full), cross-checked with the host's own tree check and page accounting.
#include <cstring>
#include <vector>

#include "storage/field_root.h"
#include "tools_fixture.h"

namespace vttest {
namespace {

// Appends `n` unordered values of any type: byte patterns, every
// `null_every`-th value null (0: none).
void fill(FieldDb &d, uint64_t n, uint64_t null_every = 0) {
    const size_t w = d.field()->type.elem_size;
    std::vector<uint8_t> v(n * w);
    std::vector<vel_bitmap_word_t> nulls((n + 63) / 64);
    for (uint64_t i = 0; i < n; i++) {
        for (size_t b = 0; b < w; b++)
            v[i * w + b] = static_cast<uint8_t>('a' + (i + b) % 26);
        if (null_every != 0 && i % null_every == 0) {
            std::memset(&v[i * w], 0, w);
            nulls[i / 64] |= vel_bitmap_word_t(1) << (i % 64);
        }
    }
    d.append(v.data(), n, null_every != 0 ? nulls.data() : nullptr);
}

velt_tree_stats_t stats(FieldDb &d) {
    velt_tree_stats_t st;
    velt_error_t err{};
    EXPECT_EQ(velt_tree_stats(d.obj(), d.field(), &st, &err), VELT_OK) << err.message;
    return st;
}

const velt_type_t kFamilies[] = {{VEL_DD_INT1, 1},   {VEL_DD_INT2, 2},     {VEL_DD_INT4, 4},
                                 {VEL_DD_INT8, 8},   {VEL_DD_UINT1, 1},    {VEL_DD_UINT2, 2},
                                 {VEL_DD_UINT4, 4},  {VEL_DD_UINT8, 8},    {VEL_DD_FLOAT, 4},
                                 {VEL_DD_DOUBLE, 8}, {VEL_DD_DATETIME, 8}, {VEL_DD_CHAR, 3},
                                 {VEL_DD_CHAR, 32}};

// An empty field has no pages; a leaf filled to the capacity the statistics
// report stays one page; one more value opens a second leaf under a new root.  If the reported
// capacity were not the module's, one of the two shapes would come out differently.
TEST(TreeStats, FullLeafThenOneMoreEveryFamily) {
    for (velt_type_t t : kFamilies) {
        for (uint32_t ps : {256u, 4096u}) {
            SCOPED_TRACE("type " + std::to_string(t.elem_type) + " size " +
                         std::to_string(t.elem_size) + " page " + std::to_string(ps));
            FieldDb d(t, VEL_SEQ_NO_ORDER, ps);
            velt_tree_stats_t st = stats(d);
            EXPECT_EQ(st.depth + st.pages + st.elements + st.bytes_allocated, 0u);
            EXPECT_EQ(st.page_size, static_cast<int32_t>(ps));
            char name[16];
            velt_type_name(t, name, sizeof name);
            EXPECT_EQ(
                capture([&](FILE *f) { velt_dump_tree(d.obj(), d.field(), f, nullptr, nullptr); }),
                std::string("sequence ") + name + ", unordered, page size " + std::to_string(ps) +
                    ": empty\n");
            const uint64_t cap = st.leaf_capacity;
            ASSERT_GT(cap, 0u);
            fill(d, cap, 5);
            st = stats(d);
            velh_tree_report_t rep = d.host_check();
            EXPECT_EQ(st.depth, 1u);
            EXPECT_EQ(st.pages, 1u);
            EXPECT_EQ(st.leaf_fill_min, cap);
            EXPECT_EQ(st.leaf_fill_max, cap);
            EXPECT_EQ(st.elements, cap);
            EXPECT_EQ(st.nulls, (cap + 4) / 5);
            EXPECT_EQ(st.nulls, rep.nulls);
            EXPECT_EQ(st.bytes_allocated, ps);
            EXPECT_EQ(st.bytes_used, 8 + cap * t.elem_size + 8 * ((cap + 63) / 64));
            EXPECT_LE(st.bytes_used, st.bytes_allocated);

            fill(d, 1);
            st = stats(d);
            rep = d.host_check();
            EXPECT_EQ(st.depth, 2u);
            EXPECT_EQ(st.depth, rep.depth);
            EXPECT_EQ(st.pages, 3u);
            EXPECT_EQ(st.pages, rep.pages);
            EXPECT_EQ(st.pages_at_level[0], 1u);
            EXPECT_EQ(st.pages_at_level[1], 2u);
            EXPECT_EQ(st.inner_pages, 1u);
            EXPECT_EQ(st.leaf_pages, 2u);
            EXPECT_EQ(st.leaf_fill_min, 1u);
            EXPECT_EQ(st.leaf_fill_max, cap);
            EXPECT_DOUBLE_EQ(st.leaf_fill_avg, static_cast<double>(cap + 1) / 2);
            EXPECT_EQ(st.elements, cap + 1);
            EXPECT_EQ(st.elements, rep.elements);
        }
    }
}

// Inner capacity decides where the third level starts: ordered scalar
// fields keep a key per child, so their inner pages fill sooner.
TEST(TreeStats, InnerCapacityOrderedAndUnordered) {
    for (vel_seq_order_t order : {VEL_SEQ_NO_ORDER, VEL_SEQ_ASC_ORDER}) {
        SCOPED_TRACE(order);
        FieldDb d(kInt8, order, 128);
        velt_tree_stats_t st = stats(d);
        const uint64_t leaf = st.leaf_capacity, inner = st.inner_capacity;
        ASSERT_GT(inner, 1u);
        const int64_t full2 = static_cast<int64_t>(leaf * inner);
        fill_int8(d, 0, full2 - 1);
        st = stats(d);
        EXPECT_EQ(st.depth, 2u);
        EXPECT_EQ(st.pages_at_level[1], inner);
        fill_int8(d, full2, full2);
        st = stats(d);
        velh_tree_report_t rep = d.host_check();
        EXPECT_EQ(st.depth, 3u);
        EXPECT_EQ(st.depth, rep.depth);
        EXPECT_EQ(st.pages_at_level[0], 1u);
        EXPECT_EQ(st.pages_at_level[1], 2u);
        EXPECT_EQ(st.pages_at_level[2], inner + 1);
        EXPECT_EQ(st.pages, rep.pages);
        EXPECT_EQ(st.bytes_used,
                  (inner + 1) * (8 + 8 * ((leaf + 63) / 64)) + (full2 + 1) * 8 +    // leaves
                      3 * 8 + (inner + 3) * (order != VEL_SEQ_NO_ORDER ? 24 : 16)); // inner
    }
    FieldDb unordered(kInt8, VEL_SEQ_NO_ORDER, 128), ordered(kInt8, VEL_SEQ_ASC_ORDER, 128);
    EXPECT_GT(stats(unordered).inner_capacity, stats(ordered).inner_capacity);
}

// A larger tree: the level counts add up, and the page count agrees with
// the host's check and with its page accounting (the only field of the db).
TEST(TreeStats, LargeTreeAgreesWithHost) {
    FieldDb d(kInt8, VEL_SEQ_ASC_ORDER, 256);
    fill_int8(d, 0, 20000);
    velt_tree_stats_t st = stats(d);
    velh_tree_report_t rep = d.host_check();
    velh_page_stats_t ps{};
    ASSERT_EQ(velh_page_stats(d.db(), VELH_PM_ALL, &ps), VEL_S_OK);
    EXPECT_EQ(st.depth, rep.depth);
    EXPECT_GE(st.depth, 3u);
    EXPECT_EQ(st.pages, rep.pages);
    EXPECT_EQ(st.pages, ps.live);
    uint64_t sum = 0;
    for (uint32_t l = 0; l < VEL_SEQ_MAX_DEPTH; l++) {
        sum += st.pages_at_level[l];
        EXPECT_EQ(st.pages_at_level[l] != 0, l < st.depth) << "level " << l;
    }
    EXPECT_EQ(sum, st.pages);
    EXPECT_EQ(st.elements, 20001u);
    EXPECT_EQ(st.nulls, 0u);
    EXPECT_EQ(st.shared_pages, 0u);
    // After a commit, one more value copies the right edge; only the
    // copies' other children are counted twice (the pages below them are
    // shared through them).
    d.commit_and_reopen();
    fill_int8(d, 20001, 20001);
    st = stats(d);
    EXPECT_GT(st.shared_pages, 0u);
    EXPECT_LT(st.shared_pages, st.pages / 8);
}

// Damaged pages are reported, not followed.  The damage is undone before
// the database closes.
TEST(TreeStats, BrokenPagesAreReported) {
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER, 256);
    fill_int8(d, 0, 100);
    vel_seq_page_t *root = nullptr;
    const velt_field_t *f = d.field();
    ASSERT_EQ(vel_seq_get_root(d.obj(), f->u_offset, f->c_offset, &root), VEL_S_OK);
    ASSERT_NE(root, nullptr);
    ASSERT_EQ(root->hdr.kind & 15, 2);
    auto *entry0 = reinterpret_cast<vel_seq_node_t *>(reinterpret_cast<char *>(root) + 256 - 16);
    velt_tree_stats_t st;
    velt_error_t err{};

    entry0->count += 1;
    EXPECT_EQ(velt_tree_stats(d.obj(), f, &st, &err), VELT_E_BAD_TREE);
    EXPECT_NE(std::string(err.message).find("entry 0 counts"), std::string::npos) << err.message;
    std::string dump = capture([&](FILE *o) { velt_dump_tree(d.obj(), f, o, nullptr, &err); });
    EXPECT_NE(dump.find("broken tree"), std::string::npos) << dump;
    EXPECT_NE(dump.find("!! page #0"), std::string::npos) << dump;
    entry0->count -= 1;

    vel_seq_page_t *leaf = entry0->page;
    const uint8_t kind = leaf->hdr.kind;
    leaf->hdr.kind = static_cast<uint8_t>((kind & 0xf0) | 5);
    EXPECT_EQ(velt_tree_stats(d.obj(), f, &st, &err), VELT_E_BAD_TREE);
    EXPECT_NE(std::string(err.message).find("page #1 (level 1): page kind 5"), std::string::npos)
        << err.message;
    leaf->hdr.kind = kind;

    const uint16_t user = leaf->hdr.user;
    leaf->hdr.user = 0;
    EXPECT_EQ(velt_tree_stats(d.obj(), f, &st, &err), VELT_E_BAD_TREE);
    EXPECT_NE(std::string(err.message).find("leaf holds 0 values"), std::string::npos);
    leaf->hdr.user = user;

    // The host-owned high bits of the kind byte are not the page kind.
    leaf->hdr.kind = static_cast<uint8_t>(kind | 0xa0);
    EXPECT_EQ(velt_tree_stats(d.obj(), f, &st, &err), VELT_OK) << err.message;
    leaf->hdr.kind = kind;
    EXPECT_EQ(st.elements, 101u);
}

TEST(TreeDump, OrderedTreeShowsKeysCountsAndPreviews) {
    // 64-byte pages of int4: 11 values a leaf, 2 keyed children an inner page.
    FieldDb d(kInt4, VEL_SEQ_ASC_ORDER, 64);
    std::vector<int32_t> v;
    for (int32_t x = 0; x < 130; x += 10)
        v.push_back(x);
    d.append(v.data(), v.size());
    velt_error_t err{};
    const velt_dump_options_t opt{3, 16};
    std::string out =
        capture([&](FILE *f) { EXPECT_EQ(velt_dump_tree(d.obj(), d.field(), f, &opt, &err), 0); });
    EXPECT_EQ(out, "sequence int4, ascending, page size 64: depth 2, 3 pages, 13 elements\n"
                   "#0 inner L0: 2 children, 13 elements\n"
                   "    [0] #1 count 11 key 0\n"
                   "    [1] #2 count 2 key 110\n"
                   "  #1 leaf L1: 11 values, 0 null: 0, 10, 20, ... (+8)\n"
                   "  #2 leaf L1: 2 values, 0 null: 110, 120\n");
}

} // namespace
} // namespace vttest
