// CSV reading and writing: round trips of every family (extremes, nulls,
// char padding and quoting), through memory and through a field, and the
// errors of malformed input with their line numbers.
#include <cmath>
#include <cstring>
#include <limits>
#include <vector>

#include "tools_fixture.h"

namespace vttest {
namespace {

template <class T> std::vector<T> extremes() {
    using L = std::numeric_limits<T>;
    std::vector<T> v = {L::lowest(), L::max(), T(0), T(1), T(L::max() / 3)};
    if constexpr (L::is_signed)
        v.push_back(T(-1));
    if constexpr (!L::is_integer) {
        v.push_back(L::min());
        v.push_back(L::denorm_min());
        v.push_back(T(0.1));
        v.push_back(T(-2.5e-7));
        v.push_back(L::infinity());
        v.push_back(-L::infinity());
    }
    return v;
}

// Values with a null after every second one.
template <class T> velt_column_t make_column(velt_type_t t) {
    velt_column_t col;
    velt_column_init(&col, t);
    int k = 0;
    for (T v : extremes<T>()) {
        EXPECT_EQ(velt_column_push(&col, &v), VELT_OK);
        if (++k % 2 == 0) {
            EXPECT_EQ(velt_column_push(&col, nullptr), VELT_OK);
        }
    }
    return col;
}

void expect_same(const velt_column_t &a, const velt_column_t &b) {
    ASSERT_EQ(a.n, b.n);
    for (uint64_t i = 0; i < a.n; i++) {
        ASSERT_EQ(velt_column_is_null(&a, i), velt_column_is_null(&b, i)) << "value " << i;
        if (!velt_column_is_null(&a, i)) {
            EXPECT_EQ(std::memcmp(a.values + i * a.type.elem_size, b.values + i * b.type.elem_size,
                                  a.type.elem_size),
                      0)
                << "value " << i;
        }
    }
}

std::string to_csv(const velt_column_t &col) {
    return capture([&](FILE *f) { EXPECT_EQ(velt_csv_write(f, &col, nullptr), VELT_OK); });
}

int read(const std::string &text, velt_type_t t, velt_column_t *col, velt_error_t *err,
         velt_csv_options_t opt = {0, 0}) {
    return velt_csv_read_buffer(text.data(), text.size(), t, &opt, col, err);
}

// Memory -> CSV -> memory, then memory -> field -> CSV export -> memory,
// and the field's contents read back by a scan.
void round_trip(const velt_column_t &col) {
    const std::string text = to_csv(col);
    velt_column_t back;
    velt_error_t err{};
    ASSERT_EQ(read(text, col.type, &back, &err), VELT_OK) << err.message << "\n" << text;
    expect_same(col, back);
    velt_column_free(&back);

    FieldDb d(col.type, VEL_SEQ_NO_ORDER);
    ASSERT_EQ(velt_append_column(d.obj(), d.field(), &col, &err), VELT_OK) << err.message;
    const std::string exported = capture(
        [&](FILE *f) { EXPECT_EQ(velt_export_csv(d.obj(), d.field(), f, nullptr), VELT_OK); });
    EXPECT_EQ(exported, text);
    velt_column_t scanned;
    velt_column_init(&scanned, col.type);
    ASSERT_EQ(velt_read_range(d.obj(), d.field(), 0, UINT64_MAX, &scanned), VELT_OK);
    expect_same(col, scanned);
    velt_column_free(&scanned);
}

template <class T> void round_trip_type(velt_type_t t) {
    SCOPED_TRACE(std::to_string(t.elem_type));
    velt_column_t col = make_column<T>(t);
    round_trip(col);
    velt_column_free(&col);
}

TEST(Csv, RoundTripEveryScalarFamily) {
    round_trip_type<vel_int1>({VEL_DD_INT1, 1});
    round_trip_type<vel_int2>({VEL_DD_INT2, 2});
    round_trip_type<vel_int4>({VEL_DD_INT4, 4});
    round_trip_type<vel_int8>({VEL_DD_INT8, 8});
    round_trip_type<vel_uint1>({VEL_DD_UINT1, 1});
    round_trip_type<vel_uint2>({VEL_DD_UINT2, 2});
    round_trip_type<vel_uint4>({VEL_DD_UINT4, 4});
    round_trip_type<vel_uint8>({VEL_DD_UINT8, 8});
    round_trip_type<vel_float>({VEL_DD_FLOAT, 4});
    round_trip_type<vel_double>({VEL_DD_DOUBLE, 8});
    round_trip_type<vel_datetime>({VEL_DD_DATETIME, 8});
}

// Longer than a tile and, exported, than the 64 KiB write buffer.
TEST(Csv, RoundTripLongColumnAcrossTiles) {
    velt_column_t col;
    velt_column_init(&col, kInt8);
    for (int64_t i = 0; i < 12000; i++) {
        const int64_t v = i * 1000003 - 7;
        ASSERT_EQ(velt_column_push(&col, i % 7 == 3 ? nullptr : &v), VELT_OK);
    }
    round_trip(col);
    velt_column_free(&col);
}

TEST(Csv, CharPaddingQuotingAndEmptyStrings) {
    const velt_type_t t{VEL_DD_CHAR, 6};
    velt_column_t col;
    velt_column_init(&col, t);
    const char *vals[] = {"ab", "abcdef", "a,b", "q\"t", "two\nln", "", " sp ", "\r"};
    for (const char *v : vals) {
        char buf[6] = {};
        std::memcpy(buf, v, std::strlen(v));
        ASSERT_EQ(velt_column_push(&col, buf), VELT_OK);
    }
    ASSERT_EQ(velt_column_push(&col, nullptr), VELT_OK);
    const std::string text = to_csv(col);
    EXPECT_EQ(text, "ab\nabcdef\n\"a,b\"\n\"q\"\"t\"\n\"two\nln\"\n\"\"\n sp \n\"\r\"\n\n");
    round_trip(col);

    // Short cells are padded with NUL bytes.
    velt_column_t back;
    velt_error_t err{};
    ASSERT_EQ(read("ab\n", t, &back, &err), VELT_OK);
    ASSERT_EQ(back.n, 1u);
    EXPECT_EQ(std::memcmp(back.values, "ab\0\0\0\0", 6), 0);
    velt_column_free(&back);
    velt_column_free(&col);
}

TEST(Csv, NullsBlanksRecordEndsAndColumns) {
    velt_column_t col;
    velt_error_t err{};
    // Blank numeric cells are nulls; a final newline ends the last record
    // without opening another; CRLF is one line end.
    ASSERT_EQ(read(" 7 \r\n\r\n  \n8", kInt8, &col, &err), VELT_OK) << err.message;
    ASSERT_EQ(col.n, 4u);
    EXPECT_EQ(int8_at(col, 0), 7);
    EXPECT_TRUE(velt_column_is_null(&col, 1));
    EXPECT_TRUE(velt_column_is_null(&col, 2));
    EXPECT_EQ(int8_at(col, 3), 8);
    EXPECT_EQ(col.lines[3], 4u);
    velt_column_free(&col);
    for (auto [text, n] : {std::pair{"1\n\n", 2u}, {"", 0u}}) {
        ASSERT_EQ(read(text, kInt8, &col, &err), VELT_OK);
        EXPECT_EQ(col.n, n) << text;
        velt_column_free(&col);
    }

    // Rows before a refused cell stay read, with their source lines.
    const std::string text = "name,price\na,1.5\n\"multi\nline\",2.5\nc,\nd,bad\n";
    EXPECT_EQ(read(text, {VEL_DD_DOUBLE, 8}, &col, &err, {1, 1}), VELT_E_PARSE);
    EXPECT_EQ(col.n, 3u);
    EXPECT_EQ(col.lines[2], 5u);
    EXPECT_TRUE(velt_column_is_null(&col, 2));
    velt_column_free(&col);
    ASSERT_EQ(read(text, {VEL_DD_CHAR, 10}, &col, &err, {0, 1}), VELT_OK) << err.message;
    ASSERT_EQ(col.n, 4u);
    EXPECT_EQ(std::memcmp(col.values + 10, "multi\nline", 10), 0);
    velt_column_free(&col);

    // A trailing comma opens an empty (null) last cell.
    ASSERT_EQ(read("1,", kInt8, &col, &err, {1, 0}), VELT_OK) << err.message;
    ASSERT_EQ(col.n, 1u);
    EXPECT_TRUE(velt_column_is_null(&col, 0));
    velt_column_free(&col);
}

} // namespace
} // namespace vttest
