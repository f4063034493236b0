// Page capacities: the element policies' arithmetic against the worked
// table, and the real trees appends build at those capacities.
#include "test_util.h"

#include "elem/elem_traits.h"

namespace vstest {
namespace {

struct CapRow {
    int32_t page_size;
    size_t width;
    uint64_t leaf;
    int32_t inner_unordered;
    int32_t inner_ordered;
};

// Leaf / inner unordered / inner ordered capacities per page size and width.
const CapRow kScalarTable[] = {
    {1024, 1, 896, 63, 59},      {1024, 2, 474, 63, 56},      {1024, 4, 244, 63, 50},
    {1024, 8, 124, 63, 42},      {4096, 1, 3626, 255, 240},   {4096, 2, 1920, 255, 227},
    {4096, 4, 989, 255, 204},    {4096, 8, 502, 255, 170},    {16384, 1, 14549, 1023, 963},
    {16384, 2, 7702, 1023, 909}, {16384, 4, 3968, 1023, 818}, {16384, 8, 2014, 1023, 682},
};

template <class E> void check_row(const E &e, const CapRow &r) {
    EXPECT_EQ(e.leaf_capacity(r.page_size), r.leaf) << r.page_size << "/" << r.width;
    EXPECT_EQ(e.inner_capacity(r.page_size, VEL_SEQ_NO_ORDER), r.inner_unordered);
    EXPECT_EQ(e.inner_capacity(r.page_size, VEL_SEQ_ASC_ORDER), r.inner_ordered);
    EXPECT_EQ(e.inner_capacity(r.page_size, VEL_SEQ_DESC_ORDER), r.inner_ordered);
}

TEST(Capacity, ScalarPoliciesMatchTheTable) {
    using namespace velseq;
    for (const CapRow &r : kScalarTable) {
        switch (r.width) {
        case 1:
            check_row(ElemInt1{}, r), check_row(ElemUint1{}, r);
            break;
        case 2:
            check_row(ElemInt2{}, r), check_row(ElemUint2{}, r);
            break;
        case 4:
            check_row(ElemInt4{}, r), check_row(ElemUint4{}, r), check_row(ElemFloat{}, r);
            break;
        default:
            check_row(ElemInt8{}, r), check_row(ElemUint8{}, r), check_row(ElemDouble{}, r),
                check_row(ElemDatetime{}, r);
        }
    }
}

TEST(Capacity, CharPoliciesIgnoreKeysInInnerPages) {
    struct Row {
        int32_t page_size;
        size_t width;
        uint64_t leaf;
        int32_t inner;
    };
    const Row rows[] = {{1024, 3, 322, 63},     {1024, 16, 62, 63},      {1024, 32, 31, 63},
                        {4096, 3, 1305, 255},   {4096, 16, 253, 255},    {4096, 32, 127, 255},
                        {16384, 3, 5237, 1023}, {16384, 16, 1015, 1023}, {16384, 32, 509, 1023}};
    for (const Row &r : rows) {
        velseq::CharElem e{r.width};
        EXPECT_EQ(e.leaf_capacity(r.page_size), r.leaf) << r.page_size << "/" << r.width;
        EXPECT_EQ(e.inner_capacity(r.page_size, VEL_SEQ_NO_ORDER), r.inner);
        EXPECT_EQ(e.inner_capacity(r.page_size, VEL_SEQ_ASC_ORDER), r.inner);
        EXPECT_EQ(leaf_capacity(r.page_size, r.width), r.leaf);
    }
}

// For page size 4096 and width 4 the mask is 16 words from byte 3968.
TEST(Capacity, LeafMaskEndsFlushWithThePage) {
    alignas(8) static uint8_t page[4096];
    auto *pg = reinterpret_cast<vel_seq_page_t *>(page);
    auto *mask = velseq::leaf_nulls(pg, 4096, 989);
    EXPECT_EQ(reinterpret_cast<uint8_t *>(mask) - page, 3968);
}

struct TreeParam {
    std::string family;
    bool ordered;
};

class CapacityTree : public ::testing::TestWithParam<TreeParam> {};

// Filling a leaf exactly keeps one page; one more value makes a root with
// counts {capacity, 1}.  Filling the root to its capacity keeps two levels;
// one more value grows a third.  Ordered scalar inner pages hold fewer
// children (a key beside each entry).
TEST_P(CapacityTree, AppendsFillPagesToCapacity) {
    const FamilyOps &fam = family(GetParam().family);
    const bool ordered = GetParam().ordered;
    const vel_seq_order_t order = ordered ? VEL_SEQ_ASC_ORDER : VEL_SEQ_NO_ORDER;
    SeqDb sdb(DbOptions{.seq_page_size = 1024});
    FieldRef f = sdb.field(fam);
    const uint64_t leaf = leaf_capacity(1024, fam.elem_size);
    const uint64_t inner = inner_capacity(1024, fam.elem_size, fam.is_char, ordered);
    ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
    vel_objhandle_t obj = sdb.new_object();

    const uint64_t n = leaf * inner + 1;
    std::mt19937_64 rng(7);
    std::vector<uint8_t> vals = random_values(fam, rng, n);
    if (ordered) // narrow types cannot ascend strictly that far; equal neighbours are in order
        for (uint64_t i = 0; i < n; i++)
            ascending_value(fam, fam.elem_size < 4 ? i / 512 : i, &vals[i * fam.elem_size]);
    auto append = [&](uint64_t from, uint64_t count) {
        ASSERT_EQ(fam.append(&obj, f, vals.data() + from * fam.elem_size, count, order, nullptr),
                  VEL_S_OK);
    };
    append(0, leaf);
    TreeReport r = check_tree(&obj, f, order, ordered);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.depth, 1);
    EXPECT_EQ(r.elements, leaf);

    append(leaf, 1);
    r = check_tree(&obj, f, order, ordered);
    ASSERT_TRUE(r.ok()) << r.error;
    ASSERT_EQ(r.depth, 2);
    vel_seq_page_t *root = r.pages[0];
    ASSERT_EQ(root->hdr.user, 2);
    EXPECT_EQ(velseq::inner_entry(root, 1024, 0)->count, leaf);
    EXPECT_EQ(velseq::inner_entry(root, 1024, 1)->count, 1u);

    append(leaf + 1, n - 1 - (leaf + 1));
    r = check_tree(&obj, f, order, ordered);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.depth, 2);
    EXPECT_EQ(r.pages[0]->hdr.user, inner);
    EXPECT_EQ(r.pages.size(), inner + 1);

    append(n - 1, 1);
    r = check_tree(&obj, f, order, ordered);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.depth, 3);
    SeqModel m(fam.elem_size);
    m.append(vals.data(), n, nullptr);
    EXPECT_EQ(m.diff(r.contents), "");
    ASSERT_EQ(sdb.rollback(), VEL_S_OK);
    EXPECT_EQ(sdb.stats().live, 0u);
}

// Every family unordered; ordered only the scalar ones, since char inner
// pages are sized for entries alone.
std::vector<TreeParam> tree_params() {
    std::vector<TreeParam> out;
    for (const FamilyOps &f : all_families()) {
        out.push_back({f.name, false});
        if (!f.is_char)
            out.push_back({f.name, true});
    }
    return out;
}

INSTANTIATE_TEST_SUITE_P(Families, CapacityTree, ::testing::ValuesIn(tree_params()),
                         [](const auto &info) {
                             return info.param.family + (info.param.ordered ? "_asc" : "");
                         });

} // namespace
} // namespace vstest
