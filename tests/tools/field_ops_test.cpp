// Appends that the module refuses, located to their CSV line; searches
// against a filter over the same values; range clipping of scans.
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "tools_fixture.h"

namespace vttest {
namespace {

velt_column_t read_csv(const std::string &text, velt_type_t t) {
    velt_column_t col;
    velt_error_t err{};
    const velt_csv_options_t opt{0, 1};
    EXPECT_EQ(velt_csv_read_buffer(text.data(), text.size(), t, &opt, &col, &err), VELT_OK)
        << err.message;
    return col;
}

TEST(Append, OutOfOrderValueIsLocatedToItsLine) {
    for (vel_seq_order_t order : {VEL_SEQ_ASC_ORDER, VEL_SEQ_DESC_ORDER}) {
        SCOPED_TRACE(order);
        FieldDb d(kInt8, order);
        const bool asc = order == VEL_SEQ_ASC_ORDER;
        velt_column_t col = read_csv(asc ? "h\n1\n2\n2\n1\n5\n" : "h\n5\n4\n4\n5\n1\n", kInt8);
        velt_error_t err{};
        EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VEL_E_SEQ_OUT_OF_ORDER);
        EXPECT_EQ(err.code, VEL_E_SEQ_OUT_OF_ORDER);
        EXPECT_EQ(err.index, 3u);
        EXPECT_EQ(err.line, 5u); // the header is line 1
        EXPECT_NE(std::string(err.message).find("line 5: "), std::string::npos) << err.message;
        EXPECT_NE(std::string(err.message).find("700 VEL_E_SEQ_OUT_OF_ORDER"), std::string::npos);
        velt_column_free(&col);
    }
}

// The value that breaks the order sits in the second chunk of an append,
// right at its start, so it is judged against the stored last value.
TEST(Append, OutOfOrderAtChunkBoundary) {
    FieldDb d(kInt8, VEL_SEQ_ASC_ORDER);
    velt_column_t col;
    velt_column_init(&col, kInt8);
    for (int64_t i = 0; i < 4096; i++)
        push_int8(&col, i);
    push_int8(&col, 100);
    push_int8(&col, 5000);
    velt_error_t err{};
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(err.index, 4096u);
    EXPECT_NE(std::string(err.message).find("100 after 4095"), std::string::npos) << err.message;
    velt_column_free(&col);
}

TEST(Append, OntoStoredValuesChecksTheFirstValue) {
    FieldDb d(kInt8, VEL_SEQ_ASC_ORDER);
    velt_column_t col = read_csv("h\n10\n20\n", kInt8);
    velt_error_t err{};
    ASSERT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_OK);
    velt_column_free(&col);
    col = read_csv("h\n20\n30\n", kInt8);
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_OK);
    velt_column_free(&col);
    col = read_csv("h\n29\n", kInt8);
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VEL_E_SEQ_OUT_OF_ORDER);
    EXPECT_EQ(err.line, 2u);
    EXPECT_NE(std::string(err.message).find("29 after 30"), std::string::npos) << err.message;
    velt_column_free(&col);
}

TEST(Append, NullInOrderedFieldIsRefusedWithItsLine) {
    FieldDb d(kInt8, VEL_SEQ_ASC_ORDER);
    velt_column_t col = read_csv("h\n1\n2\n\n3\n", kInt8);
    velt_error_t err{};
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VEL_E_SEQ_NULL_VALUE);
    EXPECT_EQ(err.line, 4u);
    vel_seq_no_t n = 1;
    EXPECT_EQ(vel_w_seq_count(d.obj(), d.field()->u_offset, d.field()->c_offset, &n), VEL_S_OK);
    EXPECT_EQ(n, 0u); // nothing of the column was stored
    velt_column_free(&col);
}

TEST(Append, ColumnOfAnotherTypeIsRefused) {
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER);
    velt_column_t col;
    velt_column_init(&col, kInt4);
    velt_error_t err{};
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_E_ARG);
}

// Every search result must be exactly the filtered values, at the positions
// they hold.  Values repeat, so the edges of runs are exercised.
TEST(Search, MatchesAFilterAscendingAndDescending) {
    for (vel_seq_order_t order : {VEL_SEQ_ASC_ORDER, VEL_SEQ_DESC_ORDER}) {
        SCOPED_TRACE(order);
        FieldDb d(kInt8, order, 256);
        std::vector<int64_t> vals;
        for (int64_t i = 0; i < 3000; i++)
            vals.push_back(order == VEL_SEQ_ASC_ORDER ? i / 3 : (2999 - i) / 3);
        velt_column_t col;
        velt_column_init(&col, kInt8);
        for (int64_t v : vals)
            push_int8(&col, v);
        velt_error_t err{};
        ASSERT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_OK) << err.message;
        velt_column_free(&col);
        const int64_t ranges[][2] = {{0, 0},      {5, 17},    {998, 999},   {-10, 3},
                                     {990, 5000}, {400, 399}, {2000, 3000}, {-5, -1}};
        for (const auto &r : ranges) {
            SCOPED_TRACE(std::to_string(r[0]) + ".." + std::to_string(r[1]));
            std::vector<uint64_t> want;
            for (uint64_t i = 0; i < vals.size(); i++)
                if (vals[i] >= r[0] && vals[i] <= r[1])
                    want.push_back(i);
            velt_column_t got;
            velt_column_init(&got, kInt8);
            uint64_t first = 0;
            int rc = velt_search(d.obj(), d.field(), &r[0], &r[1], &first, &got);
            if (want.empty()) {
                EXPECT_EQ(rc, VEL_S_NOTFOUND);
                EXPECT_EQ(got.n, 0u);
            } else {
                ASSERT_EQ(rc, VELT_OK);
                EXPECT_EQ(first, want.front());
                ASSERT_EQ(got.n, want.size());
                for (uint64_t k = 0; k < got.n; k++)
                    EXPECT_EQ(int8_at(got, k), vals[want[k]]);
            }
            velt_column_free(&got);
        }
    }
}

TEST(Search, UnorderedFieldIsRefused) {
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER);
    velt_column_t got;
    velt_column_init(&got, kInt8);
    int64_t lo = 0, hi = 1;
    uint64_t first;
    EXPECT_EQ(velt_search(d.obj(), d.field(), &lo, &hi, &first, &got), VELT_E_ARG);
}

TEST(Scan, RangesAreClipped) {
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER, 128);
    velt_column_t col;
    velt_column_init(&col, kInt8);
    for (int64_t i = 0; i < 500; i++)
        push_int8(&col, i * 3);
    velt_error_t err{};
    ASSERT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_OK);
    velt_column_free(&col);
    struct {
        uint64_t from, till, n;
    } cases[] = {{0, 0, 1},     {10, 19, 10}, {490, 1000, 10}, {499, UINT64_MAX, 1},
                 {500, 600, 0}, {127, 129, 3}};
    for (auto c : cases) {
        SCOPED_TRACE(std::to_string(c.from) + ".." + std::to_string(c.till));
        velt_column_t got;
        velt_column_init(&got, kInt8);
        ASSERT_EQ(velt_read_range(d.obj(), d.field(), c.from, c.till, &got), VELT_OK);
        ASSERT_EQ(got.n, c.n);
        for (uint64_t k = 0; k < got.n; k++)
            EXPECT_EQ(int8_at(got, k), static_cast<int64_t>((c.from + k) * 3));
        velt_column_free(&got);
    }
}

} // namespace
} // namespace vttest
