// The datetime convention: order preserved from signed nanoseconds to the
// unsigned stored value, the ends of the range, ISO-8601 forms, bad strings.
#include <gtest/gtest.h>

#include <tuple>

#include "velseq.hpp"

namespace {

using velseq::datetime;

TEST(Datetime, IsoFormsAndRangeEnds) {
    // text, nanoseconds, formatted (nullptr: same as text)
    const std::tuple<const char *, int64_t, const char *> cases[] = {
        {"1970-01-01T00:00:00Z", 0, nullptr},
        {"1970-01-01", 0, "1970-01-01T00:00:00Z"},
        {"1969-12-31T23:59:59.999999999Z", -1, nullptr},
        {"1969-12-31T23:59:59.5Z", -500000000, "1969-12-31T23:59:59.500Z"},
        {"1677-09-21T00:12:43.145224192Z", INT64_MIN, nullptr},
        {"2262-04-11T23:47:16.854775807Z", INT64_MAX, nullptr},
        {"2000-02-29T12:30Z", 951827400000000000, "2000-02-29T12:30:00Z"},
        {"2024-03-10 08:15:00.000123", 1710058500000123000, "2024-03-10T08:15:00.000123Z"},
        {"2024-03-10T10:15:00+02:00", 1710058500000000000, "2024-03-10T08:15:00Z"},
        {"2024-03-10T03:45:00-0430", 1710058500000000000, "2024-03-10T08:15:00Z"},
        {"2024-03-10T09:15:00+01", 1710058500000000000, "2024-03-10T08:15:00Z"},
        {"1900-01-01T00:00:00.001z", -2208988799999000000, "1900-01-01T00:00:00.001Z"},
    };
    for (const auto &[text, ns, formatted] : cases) {
        SCOPED_TRACE(text);
        const datetime t = datetime::parse(text);
        EXPECT_EQ(t.ns(), ns);
        EXPECT_EQ(t.iso(), formatted ? formatted : text);
        EXPECT_EQ(datetime::parse(t.iso()), t);
    }
    EXPECT_EQ(datetime::from_ns(INT64_MIN).raw(), 0u);
    EXPECT_EQ(datetime::from_ns(INT64_MAX).raw(), UINT64_MAX);
    EXPECT_LT(datetime::from_ns(-1), datetime::from_ns(0));
    EXPECT_LT(datetime::from_ns(-1).raw(), datetime::from_ns(0).raw());

    for (const char *b :
         {"", "197001", "1970-1-01", "1970-13-01", "1970-02-30", "1900-02-29",
          "1970-01-01T24:00:00Z", "1970-01-01T00:60Z", "1970-01-01T00:00:00.Z",
          "1970-01-01T00:00:00.1234567890Z", "1970-01-01T00:00:00+2400", "1970-01-01T00:00:00Q",
          "1970-01-01T00:00:00Z ", "1677-09-21T00:12:43.145224191Z",
          "2262-04-11T23:47:16.854775808Z", "0001-01-01"}) {
        SCOPED_TRACE(b);
        EXPECT_THROW(datetime::parse(b), velseq::error);
        vel_datetime v = 42;
        EXPECT_NE(vel_dt_parse(b, std::strlen(b), &v), VEL_DT_OK);
        EXPECT_EQ(v, 42u); // untouched on failure
    }
}

} // namespace
