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

// Refused appends name the offending value's CSV line (the header is line
// 1); stored values are judged against the column's first value.
TEST(Append, RefusalsAreLocatedToTheirLine) {
    const struct {
        vel_seq_order_t order;
        const char *stored, *csv;
        int rc;
        uint32_t line;
        const char *message;
    } cases[] = {
        {VEL_SEQ_ASC_ORDER, "", "h\n1\n2\n2\n1\n5\n", VEL_E_SEQ_OUT_OF_ORDER, 5,
         "line 5: 1 after 2"},
        {VEL_SEQ_DESC_ORDER, "", "h\n5\n4\n4\n5\n1\n", VEL_E_SEQ_OUT_OF_ORDER, 5,
         "line 5: 5 after 4"},
        {VEL_SEQ_ASC_ORDER, "h\n10\n20\n", "h\n20\n30\n", VELT_OK, 0, ""},
        {VEL_SEQ_ASC_ORDER, "h\n10\n30\n", "h\n29\n", VEL_E_SEQ_OUT_OF_ORDER, 2, "29 after 30"},
        {VEL_SEQ_ASC_ORDER, "h\n10\n30\n", "h\n30\n31\n5\n", VEL_E_SEQ_OUT_OF_ORDER, 4,
         "line 4: 5 after 31"},
        {VEL_SEQ_ASC_ORDER, "", "h\n1\n2\n\n3\n", VEL_E_SEQ_NULL_VALUE, 4, "line 4: "},
        {VEL_SEQ_DESC_ORDER, "", "h\n\n2\n", VEL_E_SEQ_NULL_VALUE, 2, "line 2: "},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(std::string(c.stored) + "|" + c.csv);
        FieldDb d(kInt8, c.order);
        if (*c.stored) {
            velt_column_t col = read_csv(c.stored, kInt8);
            d.append(col);
            velt_column_free(&col);
        }
        velt_column_t col = read_csv(c.csv, kInt8);
        velt_error_t err{};
        EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), c.rc);
        velt_column_free(&col);
        if (c.rc == VELT_OK)
            continue;
        EXPECT_EQ(err.code, c.rc);
        EXPECT_EQ(err.line, c.line);
        EXPECT_EQ(err.index, c.line - 2u); // header and 1-based lines
        const std::string msg = err.message;
        EXPECT_NE(msg.find(c.message), std::string::npos) << msg;
        EXPECT_EQ(msg.find(velt_code_name(c.rc)) != std::string::npos,
                  c.rc == VEL_E_SEQ_OUT_OF_ORDER)
            << "the module's refusals carry its code: " << msg;
        if (!*c.stored) { // nothing of a refused column was stored
            vel_seq_no_t n = 1;
            EXPECT_EQ(vel_w_seq_count(d.obj(), d.field()->u_offset, d.field()->c_offset, &n),
                      VEL_S_OK);
            EXPECT_EQ(n, 0u);
        }
    }
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER);
    velt_column_t col;
    velt_column_init(&col, kInt4);
    velt_error_t err{};
    EXPECT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_E_ARG)
        << "a column of another type";
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
        d.append(col);
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
    FieldDb d(kInt8, VEL_SEQ_NO_ORDER);
    velt_column_t got;
    velt_column_init(&got, kInt8);
    const int64_t lo = 0, hi = 1;
    uint64_t first;
    EXPECT_EQ(velt_search(d.obj(), d.field(), &lo, &hi, &first, &got), VELT_E_ARG)
        << "an unordered field";
}

} // namespace
} // namespace vttest
