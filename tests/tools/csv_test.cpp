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

TEST(Csv, RoundTripLongColumnAcrossTiles) {
    velt_column_t col;
    velt_column_init(&col, kInt8);
    for (int64_t i = 0; i < 3000; i++) {
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

// Every cell the reader must refuse, with the line it names (0: accepted),
// and accepted cells at the edge of each range.
TEST(Csv, MalformedInputNamesItsLine) {
    const velt_type_t i1{VEL_DD_INT1, 1}, u1{VEL_DD_UINT1, 1}, u8{VEL_DD_UINT8, 8},
        dt{VEL_DD_DATETIME, 8}, dbl{VEL_DD_DOUBLE, 8}, flt{VEL_DD_FLOAT, 4}, c4{VEL_DD_CHAR, 4},
        c8{VEL_DD_CHAR, 8};
    const struct {
        velt_type_t t;
        const char *text;
        uint32_t line;
        const char *message;
        velt_csv_options_t opt = {0, 0};
    } cases[] = {
        {i1, "1\n127\n", 0, ""},
        {i1, "1\n128\n", 2, "128"},
        {i1, "1\n-128\n", 0, ""},
        {i1, "1\n-129\n", 2, "-129"},
        {u1, "1\n255\n", 0, ""},
        {u1, "1\n256\n", 2, "256"},
        {u1, "1\n-1\n", 2, "-1"},
        {u8, "1\n18446744073709551615\n", 0, ""},
        {u8, "1\n18446744073709551616\n", 2, "18446744073709551616"},
        {kInt8, "1\n-9223372036854775808\n", 0, ""},
        {kInt8, "1\n9223372036854775808\n", 2, "9223372036854775808"},
        {dt, "-5\n1969-12-31T23:59:59Z\n1970-02-30\n", 3, "1970-02-30"},
        {kInt4, "1\n+12\n", 0, ""},
        {kInt4, "1\n1x\n", 2, "1x"},
        {kInt4, "1\n1 2\n", 2, "1 2"},
        {kInt4, "1\n1.5\n", 2, "1.5"},
        {kInt4, "1\n0x10\n", 2, "0x10"},
        {dbl, "1\n1e400\n", 2, "1e400"},
        {dbl, "1\n-1.5e-3\n", 0, ""},
        {flt, "1\nabc\n", 2, "abc"},
        {c4, "abcd\nabcdefg\n", 2, "line 2: cell of 7 bytes does not fit char(4)"},
        {kInt8, "1\n\"\"\n", 2, "line 2"}, // a quoted empty cell is no number
        {c8, "1\n\"abc\n", 2, "closing quote"},
        {c8, "\"ab\"c\n", 1, "after the closing quote"},
        {kInt8, "1,2\n3\n", 2, "column 2 is missing", {1, 0}},
        // The quoted cell spans lines 3-4, so "bad" is on line 6.
        {dbl, "name,price\na,1.5\n\"multi\nline\",2.5\nc,\nd,bad\n", 6, "bad", {1, 1}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.text);
        velt_column_t col;
        velt_error_t err{};
        EXPECT_EQ(read(c.text, c.t, &col, &err, c.opt), c.line ? VELT_E_PARSE : VELT_OK);
        if (c.line) {
            EXPECT_EQ(err.line, c.line);
            EXPECT_NE(std::string(err.message).find(c.message), std::string::npos) << err.message;
        }
        velt_column_free(&col);
    }
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

TEST(Csv, NanSurvivesAsNan) {
    velt_column_t col;
    velt_error_t err{};
    ASSERT_EQ(read("nan\n-inf\n", {VEL_DD_DOUBLE, 8}, &col, &err), VELT_OK);
    double v[2];
    std::memcpy(v, col.values, sizeof v);
    EXPECT_TRUE(std::isnan(v[0]));
    EXPECT_EQ(v[1], -std::numeric_limits<double>::infinity());
    EXPECT_EQ(to_csv(col), "nan\n-inf\n");
    velt_column_free(&col);
}

TEST(Types, NamesParseAndPrintBack) {
    const char *names[] = {"int1",  "int2",  "int4",   "int8",     "uint1",   "uint2",     "uint4",
                           "uint8", "float", "double", "datetime", "char(1)", "char(4096)"};
    for (const char *n : names) {
        velt_type_t t{};
        ASSERT_EQ(velt_type_parse(n, &t), VELT_OK) << n;
        char buf[16];
        velt_type_name(t, buf, sizeof buf);
        EXPECT_STREQ(buf, n);
        EXPECT_NE(velt_sequence_code(t), 0);
    }
    velt_type_t t{};
    ASSERT_EQ(velt_type_parse("char16", &t), VELT_OK);
    EXPECT_EQ(t.elem_size, 16);
    for (const char *bad : {"int3", "char(0)", "char(4097)", "char()", "char(4", "char(-1)", "char",
                            "Int4", "", "char(1)x"})
        EXPECT_EQ(velt_type_parse(bad, &t), VELT_E_ARG) << bad;
}

} // namespace
} // namespace vttest
