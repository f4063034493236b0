// Ordered fields: the checks of the caller's buffer against itself, of the
// first value against the stored data, the null refusal with its tail test,
// NaN, signed / unsigned / datetime ordering and char as unsigned bytes.
#include "test_util.h"

#include <cmath>
#include <limits>

namespace vstest {
namespace {

class Ordered : public ::testing::Test {
  protected:
    void SetUp() override {
        ASSERT_EQ(sdb.begin_write(), VEL_S_OK);
        obj = sdb.new_object();
    }
    void TearDown() override { sdb.rollback(); }

    template <class T> std::vector<T> contents(const std::string &fam, vel_seq_order_t order) {
        TreeReport r = check_tree(&obj, sdb.field(fam), order);
        EXPECT_TRUE(r.ok()) << r.error;
        std::vector<T> out(r.contents.size());
        if (!out.empty())
            std::memcpy(out.data(), r.contents.bytes.data(), r.contents.bytes.size());
        return out;
    }

    SeqDb sdb{DbOptions{.seq_page_size = 1024}};
    vel_objhandle_t obj{};
};

TEST_F(Ordered, InputBufferOrderIsCheckedBeforeAnythingIsStored) {
    FieldRef f = sdb.field("int4");
    const vel_int4 bad_asc[] = {1, 3, 2};
    const vel_int4 bad_desc[] = {3, 1, 2};
    const vel_int4 equal[] = {2, 2, 2};
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, bad_asc, 3,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, bad_desc, 3,
                                    VEL_SEQ_DESC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 0, bad_asc, 3,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_TRUE(contents<vel_int4>("int4", VEL_SEQ_ASC_ORDER).empty());
    // The same buffers are fine for the other order or none.
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, bad_asc, 3,
                                    VEL_SEQ_NO_ORDER, nullptr),
              VEL_S_OK);
    FieldRef g = sdb.field("int2");
    const vel_int2 desc[] = {9, 9, 4, -3};
    EXPECT_EQ(vel_w_seq_append_int2(&obj, g.u_offset, g.c_offset, g.fld_no, desc, 4,
                                    VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    FieldRef h = sdb.field("int8");
    const vel_int8 eq[] = {2, 2, 2};
    EXPECT_EQ(vel_w_seq_append_int8(&obj, h.u_offset, h.c_offset, h.fld_no, eq, 3,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    (void)equal;
    EXPECT_EQ(contents<vel_int2>("int2", VEL_SEQ_DESC_ORDER), (std::vector<vel_int2>{9, 9, 4, -3}));
}

TEST_F(Ordered, FirstValueIsCheckedAgainstStoredLastValue) {
    FieldRef f = sdb.field("int4");
    const vel_int4 a[] = {1, 5};
    const vel_int4 five = 5, four = 4;
    ASSERT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, a, 2, VEL_SEQ_ASC_ORDER,
                                    nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, &five, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, &four, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(contents<vel_int4>("int4", VEL_SEQ_ASC_ORDER), (std::vector<vel_int4>{1, 5, 5}));

    // Descending, across a multi-level tree: the check runs on every level.
    FieldRef g = sdb.field("int8");
    std::vector<vel_int8> down(300);
    for (size_t i = 0; i < down.size(); i++)
        down[i] = 1000 - static_cast<vel_int8>(i);
    ASSERT_EQ(vel_w_seq_append_int8(&obj, g.u_offset, g.c_offset, g.fld_no, down.data(),
                                    down.size(), VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    const vel_int8 up = 702, ok = 701;
    EXPECT_EQ(vel_w_seq_append_int8(&obj, g.u_offset, g.c_offset, g.fld_no, &up, 1,
                                    VEL_SEQ_DESC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_append_int8(&obj, g.u_offset, g.c_offset, g.fld_no, &ok, 1,
                                    VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    TreeReport r = check_tree(&obj, g, VEL_SEQ_DESC_ORDER, true);
    ASSERT_TRUE(r.ok()) << r.error;
    EXPECT_EQ(r.elements, 301u);
}

// The tail word is AND-ed with n_vals % 64 itself: for n_vals = 3 only bits
// 0 and 1 are looked at, for n_vals = 4 only bit 2.
TEST_F(Ordered, NullRefusalTestsTheTailWithTheCountItself) {
    FieldRef f = sdb.field("int4");
    const vel_int4 v[] = {1, 2, 3, 4};
    const vel_bitmap_word_t bit2 = 4, bit0 = 1, bits01 = 3;
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v, 3, VEL_SEQ_ASC_ORDER,
                                    &bit0),
              VEL_E_SEQ_NULL_VALUE);
    EXPECT_TRUE(contents<vel_int4>("int4", VEL_SEQ_ASC_ORDER).empty());
    // Bit 2 is not examined for n_vals = 3: the null goes in, as a null.
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v, 3, VEL_SEQ_ASC_ORDER,
                                    &bit2),
              VEL_S_OK);
    vel_int4 last = 0;
    EXPECT_EQ(vel_w_seq_last_int4(&obj, f.u_offset, f.c_offset, &last), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(last, 3);
    // For n_vals = 4 bits 0 and 1 are not examined, bit 2 is.
    const vel_int4 w[] = {5, 6, 7, 8};
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 3, w, 4,
                                    VEL_SEQ_ASC_ORDER, &bit2),
              VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 3, w, 4,
                                    VEL_SEQ_ASC_ORDER, &bits01),
              VEL_S_OK);
    EXPECT_EQ(contents<vel_int4>("int4", VEL_SEQ_ASC_ORDER),
              (std::vector<vel_int4>{1, 2, 3, 5, 6, 7, 8}));
    // Whole words are tested whole; n_vals = 64 has no tail.
    std::vector<vel_int4> many(70, 9);
    std::vector<vel_bitmap_word_t> nb{vel_bitmap_word_t{1} << 63, 0};
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, many.data(), 70,
                                    VEL_SEQ_ASC_ORDER, nb.data()),
              VEL_E_SEQ_NULL_VALUE);
    nb = {0, ~vel_bitmap_word_t{0} ^ 6}; // tail 70 % 64 = 6: bits 1 and 2
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, many.data(), 70,
                                    VEL_SEQ_ASC_ORDER, nb.data()),
              VEL_S_OK);
    // Unordered fields take nulls anywhere; zero values pass with any bitmap.
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v, 0, VEL_SEQ_ASC_ORDER,
                                    &bit0),
              VEL_S_OK);
    FieldRef g = sdb.field("uint4");
    const vel_uint4 u[] = {3, 1};
    EXPECT_EQ(vel_w_seq_append_uint4(&obj, g.u_offset, g.c_offset, g.fld_no, u, 2, VEL_SEQ_NO_ORDER,
                                     &bit0),
              VEL_S_OK);
    vel_uint4 first = 0;
    EXPECT_EQ(vel_w_seq_first_uint4(&obj, g.u_offset, g.c_offset, &first), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(first, 3u);
}

TEST_F(Ordered, OrderValueOutsideTheEnumFailsOnceDataIsStored) {
    FieldRef f = sdb.field("int4");
    std::vector<vel_int4> v(300);
    for (size_t i = 0; i < v.size(); i++)
        v[i] = static_cast<vel_int4>(i);
    // 244 values fill the first leaf unchecked; the second turn is refused.
    EXPECT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, v.data(), v.size(),
                                    static_cast<vel_seq_order_t>(3), nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(contents<vel_int4>("int4", VEL_SEQ_NO_ORDER).size(), 244u);
}

TEST_F(Ordered, NaNPassesTheBufferCheckButNotTheStoredCheck) {
    FieldRef f = sdb.field("double");
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double mixed[] = {1.0, nan, 0.5};
    ASSERT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, mixed, 3,
                                      VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    auto got = contents<double>("double", VEL_SEQ_ASC_ORDER);
    ASSERT_EQ(got.size(), 3u);
    EXPECT_TRUE(std::isnan(got[1]));
    // The stored last value 0.5 against a NaN: refused both ways.
    EXPECT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, &nan, 1,
                                      VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, &nan, 1,
                                      VEL_SEQ_DESC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    // A stored NaN refuses every later first value.
    const double tail[] = {7.0, nan};
    ASSERT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, tail, 2,
                                      VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    const double big = 1e300;
    EXPECT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, &big, 1,
                                      VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    // Unordered: stored unchecked.
    EXPECT_EQ(vel_w_seq_append_double(&obj, f.u_offset, f.c_offset, f.fld_no, &big, 1,
                                      VEL_SEQ_NO_ORDER, nullptr),
              VEL_S_OK);
    // Signed zeros are equal, hence in order.
    FieldRef g = sdb.field("float");
    const float zeros[] = {0.0f, -0.0f};
    EXPECT_EQ(vel_w_seq_append_float(&obj, g.u_offset, g.c_offset, g.fld_no, zeros, 2,
                                     VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    const float nz = -0.0f;
    EXPECT_EQ(vel_w_seq_append_float(&obj, g.u_offset, g.c_offset, g.fld_no, &nz, 1,
                                     VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    // Insert's leaf check uses the stored-data phrasing too.
    const float fnan = std::numeric_limits<float>::quiet_NaN();
    EXPECT_EQ(vel_w_seq_insert_float(&obj, g.u_offset, g.c_offset, g.fld_no, 1, &fnan, 1,
                                     VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
}

TEST_F(Ordered, SignedUnsignedAndDatetimeCompareInTheirOwnArithmetic) {
    FieldRef u4 = sdb.field("uint4"), i4 = sdb.field("int4"), dt = sdb.field("datetime"),
             i8 = sdb.field("int8"), u1 = sdb.field("uint1"), i1 = sdb.field("int1");
    const vel_uint4 one_u = 1, max_u = 4294967295u;
    ASSERT_EQ(vel_w_seq_append_uint4(&obj, u4.u_offset, u4.c_offset, u4.fld_no, &one_u, 1,
                                     VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_uint4(&obj, u4.u_offset, u4.c_offset, u4.fld_no, &max_u, 1,
                                     VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    const vel_int4 one_s = 1, minus = -1;
    ASSERT_EQ(vel_w_seq_append_int4(&obj, i4.u_offset, i4.c_offset, i4.fld_no, &one_s, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_int4(&obj, i4.u_offset, i4.c_offset, i4.fld_no, &minus, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    const vel_datetime small = 1, top = vel_datetime{1} << 63;
    ASSERT_EQ(vel_w_seq_append_datetime(&obj, dt.u_offset, dt.c_offset, dt.fld_no, &small, 1,
                                        VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_datetime(&obj, dt.u_offset, dt.c_offset, dt.fld_no, &top, 1,
                                        VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    const vel_int8 one8 = 1, top8 = std::numeric_limits<vel_int8>::min();
    ASSERT_EQ(vel_w_seq_append_int8(&obj, i8.u_offset, i8.c_offset, i8.fld_no, &one8, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_int8(&obj, i8.u_offset, i8.c_offset, i8.fld_no, &top8, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    // The same byte 0x80 sorts above 0x7f unsigned and below it signed.
    const vel_uint1 ub[] = {0x7f, 0x80};
    const vel_int1 sb[] = {0x7f, static_cast<vel_int1>(-128)};
    EXPECT_EQ(vel_w_seq_append_uint1(&obj, u1.u_offset, u1.c_offset, u1.fld_no, ub, 2,
                                     VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_int1(&obj, i1.u_offset, i1.c_offset, i1.fld_no, sb, 2,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
}

TEST_F(Ordered, CharComparesAsUnsignedBytes) {
    // char(3) field with four-byte thinking trimmed to the width.
    FieldRef f = sdb.field("char3");
    const char ab[] = {'a', 'b', 'd', 'a', 'b', 'e'};
    ASSERT_EQ(vel_w_seq_append_char(&obj, f.u_offset, f.c_offset, f.fld_no, ab, 2,
                                    VEL_SEQ_ASC_ORDER, 3, nullptr),
              VEL_S_OK);
    const char abc[] = {'a', 'b', 'c'};
    EXPECT_EQ(vel_w_seq_append_char(&obj, f.u_offset, f.c_offset, f.fld_no, abc, 1,
                                    VEL_SEQ_ASC_ORDER, 3, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    const char hi[] = {'\x7f', 0, 0, '\x80', 0, 0};
    FieldRef g = sdb.field("char16");
    std::vector<char> two(32, 0);
    two[0] = '\x7f';
    two[16] = '\x80';
    EXPECT_EQ(vel_w_seq_append_char(&obj, g.u_offset, g.c_offset, g.fld_no, two.data(), 2,
                                    VEL_SEQ_ASC_ORDER, 16, nullptr),
              VEL_S_OK);
    EXPECT_EQ(vel_w_seq_append_char(&obj, g.u_offset, g.c_offset, g.fld_no, two.data(), 2,
                                    VEL_SEQ_DESC_ORDER, 16, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    (void)hi;
    char out[16];
    ASSERT_EQ(vel_w_seq_last_char(&obj, g.u_offset, g.c_offset, out, 16), VEL_S_OK);
    EXPECT_EQ(static_cast<unsigned char>(out[0]), 0x80u);
}

// Insert compares only the pass's first value with its neighbours in the
// target leaf.
TEST_F(Ordered, InsertChecksOnlyTheFirstValueAgainstItsLeafNeighbours) {
    FieldRef f = sdb.field("int4");
    const vel_int4 base[] = {1, 5, 10};
    ASSERT_EQ(vel_w_seq_append_int4(&obj, f.u_offset, f.c_offset, f.fld_no, base, 3,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    const vel_int4 bad[] = {4, 7};
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 2, bad, 2,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    const vel_int4 above_right = 11; // left neighbour 5 fine, right neighbour 10 not
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 2, &above_right, 1,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    const vel_int4 loose[] = {6, 100};
    EXPECT_EQ(vel_w_seq_insert_int4(&obj, f.u_offset, f.c_offset, f.fld_no, 2, loose, 2,
                                    VEL_SEQ_ASC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(contents<vel_int4>("int4", VEL_SEQ_ASC_ORDER),
              (std::vector<vel_int4>{1, 5, 6, 100, 10}));
    // Descending: the same rule mirrored.
    FieldRef g = sdb.field("uint2");
    const vel_uint2 down[] = {10, 5, 1};
    ASSERT_EQ(vel_w_seq_append_uint2(&obj, g.u_offset, g.c_offset, g.fld_no, down, 3,
                                     VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    const vel_uint2 dbad = 11, dok[] = {7, 0}, below_right = 4;
    EXPECT_EQ(vel_w_seq_insert_uint2(&obj, g.u_offset, g.c_offset, g.fld_no, 1, &below_right, 1,
                                     VEL_SEQ_DESC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_insert_uint2(&obj, g.u_offset, g.c_offset, g.fld_no, 1, &dbad, 1,
                                     VEL_SEQ_DESC_ORDER, nullptr),
              VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(vel_w_seq_insert_uint2(&obj, g.u_offset, g.c_offset, g.fld_no, 1, dok, 2,
                                     VEL_SEQ_DESC_ORDER, nullptr),
              VEL_S_OK);
    EXPECT_EQ(contents<vel_uint2>("uint2", VEL_SEQ_DESC_ORDER),
              (std::vector<vel_uint2>{10, 7, 0, 5, 1}));
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
            ASSERT_EQ(fam.append(&obj, f, vals.data(), n, VEL_SEQ_ASC_ORDER, nullptr), VEL_S_OK);
            done += n;
        }
        TreeReport r = check_tree(&obj, f, VEL_SEQ_ASC_ORDER, true);
        ASSERT_TRUE(r.ok()) << r.error;
        EXPECT_EQ(r.elements, done);
        EXPECT_GE(r.depth, fam.is_char ? 2 : 3);
    }
}

} // namespace
} // namespace vstest
