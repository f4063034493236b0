// Ordered fields: the checks of the caller's buffer against itself, of the
// first value against the stored data, the null refusal with its tail test,
// NaN, signed / unsigned / datetime ordering and char as unsigned bytes.
#include "test_util.h"

#include <cmath>
#include <limits>

namespace vstest {
namespace {

constexpr auto kAsc = VEL_SEQ_ASC_ORDER, kDesc = VEL_SEQ_DESC_ORDER, kNone = VEL_SEQ_NO_ORDER;

class Ordered : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        obj = sdb.new_object();
    }
    void TearDown() override { sdb.rollback(); }

    // Appends / inserts `v` to the field of family `fam`; for char families
    // T is char and `v` holds the elements back to back.
    template <class T>
    VEL_RET app(const char *fam, const std::vector<T> &v, vel_seq_order_t order,
                const vel_bitmap_word_t *nb = nullptr) {
        const FamilyOps &F = family(fam);
        return F.append(&obj, sdb.field(F), v.data(), v.size() * sizeof(T) / F.elem_size, order,
                        nb);
    }
    template <class T>
    VEL_RET ins(const char *fam, vel_seq_no_t pos, const std::vector<T> &v, vel_seq_order_t order,
                const vel_bitmap_word_t *nb = nullptr) {
        const FamilyOps &F = family(fam);
        return F.insert(&obj, sdb.field(F), pos, v.data(), v.size() * sizeof(T) / F.elem_size,
                        order, nb);
    }
    template <class T> std::vector<T> contents(const char *fam, vel_seq_order_t order) {
        return contents_as<T>(&obj, sdb.field(fam), order);
    }

    SeqDb sdb{DbOptions{.seq_page_size = 1024}};
    vel_objhandle_t obj{};
};

using I4 = std::vector<vel_int4>;

TEST_F(Ordered, InputBufferOrderIsCheckedBeforeAnythingIsStored) {
    EXPECT_EQ(app("int4", I4{1, 3, 2}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(app("int4", I4{3, 1, 2}, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(ins("int4", 0, I4{1, 3, 2}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_TRUE(contents<vel_int4>("int4", kAsc).empty());
    // Unordered takes anything; equal neighbours are in order both ways.
    EXPECT_EQ(app("int4", I4{1, 3, 2}, kNone), VEL_S_OK);
    EXPECT_EQ(app("int2", std::vector<vel_int2>{9, 9, 4, -3}, kDesc), VEL_S_OK);
    EXPECT_EQ(app("int8", std::vector<vel_int8>{2, 2, 2}, kAsc), VEL_S_OK);
    EXPECT_EQ(contents<vel_int2>("int2", kDesc), (std::vector<vel_int2>{9, 9, 4, -3}));
}

TEST_F(Ordered, FirstValueIsCheckedAgainstStoredLastValue) {
    ASSERT_EQ(app("int4", I4{1, 5}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("int4", I4{5}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("int4", I4{4}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(contents<vel_int4>("int4", kAsc), (I4{1, 5, 5}));

    // Descending, across a multi-level tree: the check runs on every level.
    std::vector<vel_int8> down(300);
    for (size_t i = 0; i < down.size(); i++)
        down[i] = 1000 - static_cast<vel_int8>(i);
    ASSERT_EQ(app("int8", down, kDesc), VEL_S_OK);
    EXPECT_EQ(app("int8", std::vector<vel_int8>{702}, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(app("int8", std::vector<vel_int8>{701}, kDesc), VEL_S_OK);
    TreeReport r = check_tree(&obj, sdb.field("int8"), kDesc, true);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.elements, 301u);
}

// The tail word is AND-ed with n_vals % 64 itself: for n_vals = 3 only bits
// 0 and 1 are looked at, for n_vals = 4 only bit 2.
TEST_F(Ordered, NullRefusalTestsTheTailWithTheCountItself) {
    const vel_bitmap_word_t bit2 = 4, bit0 = 1, bits01 = 3;
    EXPECT_EQ(app("int4", I4{1, 2, 3}, kAsc, &bit0), VEL_E_SEQ_NULL_VALUE);
    EXPECT_TRUE(contents<vel_int4>("int4", kAsc).empty());
    // Bit 2 is not examined for n_vals = 3: the null goes in, as a null.
    EXPECT_EQ(app("int4", I4{1, 2, 3}, kAsc, &bit2), VEL_S_OK);
    FieldRef f = sdb.field("int4");
    vel_int4 last = 0;
    EXPECT_EQ(vel_w_seq_last_int4(&obj, f.u_offset, f.c_offset, &last), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(last, 3);
    // For n_vals = 4 bits 0 and 1 are not examined, bit 2 is.
    EXPECT_EQ(ins("int4", 3, I4{5, 6, 7, 8}, kAsc, &bit2), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(ins("int4", 3, I4{5, 6, 7, 8}, kAsc, &bits01), VEL_S_OK);
    EXPECT_EQ(contents<vel_int4>("int4", kAsc), (I4{1, 2, 3, 5, 6, 7, 8}));
    // Whole words are tested whole; n_vals = 64 has no tail.
    std::vector<vel_bitmap_word_t> nb{vel_bitmap_word_t{1} << 63, 0};
    EXPECT_EQ(app("int4", I4(70, 9), kAsc, nb.data()), VEL_E_SEQ_NULL_VALUE);
    nb = {0, ~vel_bitmap_word_t{0} ^ 6}; // tail 70 % 64 = 6: bits 1 and 2
    EXPECT_EQ(app("int4", I4(70, 9), kAsc, nb.data()), VEL_S_OK);
    // Zero values pass with any bitmap; unordered fields take nulls anywhere.
    EXPECT_EQ(app("int4", I4{}, kAsc, &bit0), VEL_S_OK);
    EXPECT_EQ(app("uint4", std::vector<vel_uint4>{3, 1}, kNone, &bit0), VEL_S_OK);
    FieldRef g = sdb.field("uint4");
    vel_uint4 first = 0;
    EXPECT_EQ(vel_w_seq_first_uint4(&obj, g.u_offset, g.c_offset, &first), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(first, 3u);
}

TEST_F(Ordered, OrderValueOutsideTheEnumFailsOnceDataIsStored) {
    I4 v(300);
    for (size_t i = 0; i < v.size(); i++)
        v[i] = static_cast<vel_int4>(i);
    // 244 values fill the first leaf unchecked; the second turn is refused.
    EXPECT_EQ(app("int4", v, static_cast<vel_seq_order_t>(3)), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(contents<vel_int4>("int4", kNone).size(), 244u);
}

TEST_F(Ordered, NaNPassesTheBufferCheckButNotTheStoredCheck) {
    const double nan = std::numeric_limits<double>::quiet_NaN();
    using D = std::vector<double>;
    ASSERT_EQ(app("double", D{1.0, nan, 0.5}, kAsc), VEL_S_OK);
    auto got = contents<double>("double", kAsc);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(std::isnan(got[1]));
    // The stored last value 0.5 against a NaN: refused both ways.
    EXPECT_EQ(app("double", D{nan}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(app("double", D{nan}, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    // A stored NaN refuses every later first value, unless unordered.
    ASSERT_EQ(app("double", D{7.0, nan}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("double", D{1e300}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(app("double", D{1e300}, kNone), VEL_S_OK);
    // Signed zeros are equal, hence in order.
    using F = std::vector<float>;
    EXPECT_EQ(app("float", F{0.0f, -0.0f}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("float", F{-0.0f}, kDesc), VEL_S_OK);
    // Insert's leaf check uses the stored-data phrasing too.
    EXPECT_EQ(ins("float", 1, F{std::numeric_limits<float>::quiet_NaN()}, kAsc),
              VEL_E_SEQ_OUT_OF_ORDER);
}

TEST_F(Ordered, SignedUnsignedAndDatetimeCompareInTheirOwnArithmetic) {
    ASSERT_EQ(app("uint4", std::vector<vel_uint4>{1}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("uint4", std::vector<vel_uint4>{4294967295u}, kAsc), VEL_S_OK);
    ASSERT_EQ(app("int4", I4{1}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("int4", I4{-1}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    ASSERT_EQ(app("datetime", std::vector<vel_datetime>{1}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("datetime", std::vector<vel_datetime>{vel_datetime{1} << 63}, kAsc), VEL_S_OK);
    ASSERT_EQ(app("int8", std::vector<vel_int8>{1}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("int8", std::vector<vel_int8>{std::numeric_limits<vel_int8>::min()}, kAsc),
              VEL_E_SEQ_OUT_OF_ORDER);
    // The same byte 0x80 sorts above 0x7f unsigned and below it signed.
    EXPECT_EQ(app("uint1", std::vector<vel_uint1>{0x7f, 0x80}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("int1", std::vector<vel_int1>{0x7f, -128}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
}

TEST_F(Ordered, CharComparesAsUnsignedBytes) {
    ASSERT_EQ(app("char3", std::vector<char>{'a', 'b', 'd', 'a', 'b', 'e'}, kAsc), VEL_S_OK);
    EXPECT_EQ(app("char3", std::vector<char>{'a', 'b', 'c'}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    std::vector<char> two(32, 0);
    two[0] = '\x7f';
    two[16] = '\x80';
    EXPECT_EQ(app("char16", two, kAsc), VEL_S_OK);
    EXPECT_EQ(app("char16", two, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    FieldRef g = sdb.field("char16");
    char out[16];
    ASSERT_EQ(vel_w_seq_last_char(&obj, g.u_offset, g.c_offset, out, 16), VEL_S_OK);
    EXPECT_EQ(static_cast<unsigned char>(out[0]), 0x80u);
}

// Insert compares only the pass's first value with its neighbours in the
// target leaf.
TEST_F(Ordered, InsertChecksOnlyTheFirstValueAgainstItsLeafNeighbours) {
    ASSERT_EQ(app("int4", I4{1, 5, 10}, kAsc), VEL_S_OK);
    EXPECT_EQ(ins("int4", 2, I4{4, 7}, kAsc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(ins("int4", 2, I4{11}, kAsc), VEL_E_SEQ_OUT_OF_ORDER); // above the right one
    EXPECT_EQ(ins("int4", 2, I4{6, 100}, kAsc), VEL_S_OK);
    EXPECT_EQ(contents<vel_int4>("int4", kAsc), (I4{1, 5, 6, 100, 10}));
    // Descending: the same rule mirrored.
    using U2 = std::vector<vel_uint2>;
    ASSERT_EQ(app("uint2", U2{10, 5, 1}, kDesc), VEL_S_OK);
    EXPECT_EQ(ins("uint2", 1, U2{4}, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(ins("uint2", 1, U2{11}, kDesc), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(ins("uint2", 1, U2{7, 0}, kDesc), VEL_S_OK);
    EXPECT_EQ(contents<vel_uint2>("uint2", kDesc), (U2{10, 7, 0, 5, 1}));
}

// Trees built by ascending appends carry keys equal to their subtrees'
// first values, on every family, through three levels.
TEST_F(Ordered, AppendBuiltKeysAreFirstValues) {
    for (const FamilyOps &fam : all_families()) {
        if (fam.is_char && fam.elem_size > 3)
            continue; // wide char keys overrun the entries of a full inner page
        SCOPED_TRACE(fam.name);
        FieldRef f = sdb.field(fam);
        const uint64_t leaf = leaf_capacity(1024, fam.elem_size);
        const uint64_t inner = inner_capacity(1024, fam.elem_size, fam.is_char, true);
        const uint64_t limit = fam.is_char ? 50 * leaf : (inner + 2) * leaf;
        uint64_t done = 0;
        std::mt19937_64 rng(99);
        while (done < limit) {
            size_t n = 1 + rng() % (2 * leaf);
            std::vector<uint8_t> vals(n * fam.elem_size);
            for (size_t i = 0; i < n; i++)
                ascending_value(fam, fam.elem_size < 4 ? (done + i) / 1024 : done + i,
                                &vals[i * fam.elem_size]);
            ASSERT_EQ(fam.append(&obj, f, vals.data(), n, kAsc, nullptr), VEL_S_OK);
            done += n;
        }
        TreeReport r = check_tree(&obj, f, kAsc, true);
        ASSERT_TRUE(r.ok()) << r.error;
        EXPECT_EQ(r.elements, done);
        EXPECT_GE(r.depth, fam.is_char ? 2 : 3);
    }
}

} // namespace
} // namespace vstest
