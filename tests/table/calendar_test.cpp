// Calendar buckets and civil times against a model built on the C
// library's calendar (gmtime_r, timegm): random instants over 1700..2200 and
// the ends of the datetime range, every unit, weekday, a few counts, UTC
// offsets (negative ones too) and origins.  Resample and aggregate over
// these buckets, and civil times from fields, are checked against pandas by
// the Python package's tests; the text of units and offsets ("1W-SUN",
// "-05:00") by the program's.
#include <gtest/gtest.h>

#include <ctime>
#include <random>

#include "velseq.hpp"
#include "velseq/calendar.hpp"

namespace {

using namespace velseq;
using unit = calendar::unit;
constexpr int64_t kNs = 1000000000;

int64_t fdiv(int64_t a, int64_t b) { return a / b - (a % b < 0); } // b > 0

struct civil {
    int64_t day, month; // days since 1970, months since year 0
    int wday;           // 0: Sunday
};
civil civil_of(int64_t sec) {
    const time_t t = sec;
    tm x{};
    gmtime_r(&t, &x);
    return {fdiv(sec, 86400), (x.tm_year + 1900LL) * 12 + x.tm_mon, x.tm_wday};
}
int64_t day_of_month(int64_t month) {
    tm x{};
    x.tm_year = static_cast<int>(fdiv(month, 12) - 1900);
    x.tm_mon = static_cast<int>(month - fdiv(month, 12) * 12);
    x.tm_mday = 1;
    return fdiv(timegm(&x), 86400);
}
vel_datetime clamp(__int128 ns) {
    return vel_dt_from_ns(ns < INT64_MIN   ? INT64_MIN
                          : ns > INT64_MAX ? INT64_MAX
                                           : static_cast<int64_t>(ns));
}

// The bucket holding t, as the model computes it: its first and next local day.
std::pair<int64_t, int64_t> model_days(const calendar &c, vel_datetime t) {
    const int64_t off = c.utc_offset_ns / kNs;
    const civil x = civil_of(fdiv(vel_dt_to_ns(t), kNs) + off);
    const civil o = civil_of(fdiv(vel_dt_to_ns(c.origin), kNs) + off);
    if (c.of == unit::day || c.of == unit::week) {
        const int64_t len = (c.of == unit::day ? 1 : 7) * c.count;
        const int first = (static_cast<int>(c.week_start) + 1) % 7; // Sunday-based
        auto start = [&](const civil &v) {
            return c.of == unit::day ? v.day : v.day - (v.wday - first + 7) % 7;
        };
        const int64_t from = start(o) + fdiv(start(x) - start(o), len) * len;
        return {from, from + len};
    }
    const int64_t u = c.of == unit::month ? 1 : c.of == unit::quarter ? 3 : 12, len = u * c.count;
    const int64_t om = fdiv(o.month, u) * u;
    const int64_t m = om + fdiv(fdiv(x.month, u) * u - om, len) * len;
    return {day_of_month(m), day_of_month(m + len)};
}

void expect_bucket(const calendar &c, vel_datetime t) {
    const auto [from, to] = model_days(c, t);
    const __int128 off = c.utc_offset_ns, day = 86400 * kNs;
    const table::calendar_span s = table::calendar_bucket(c, t);
    EXPECT_EQ(s.start, clamp(from * day - off)) << vel_dt_to_ns(t);
    EXPECT_EQ(s.last, clamp(to * day - off - 1)) << vel_dt_to_ns(t);
    EXPECT_EQ(s.last_day, clamp((to - 1) * day - off)) << vel_dt_to_ns(t);
}

TEST(Calendar, BucketsAgainstTheCLibrary) {
    std::mt19937_64 rng(7);
    const int64_t lo = -8520336000 * kNs, hi = 7289654400 * kNs; // 1700-01-01, 2201-01-01
    std::uniform_int_distribution<int64_t> any(lo, hi);
    const int64_t offsets[] = {0, 19800, -28800, -86340, 86340, -3600};
    const std::string leaps[] = {"1700-02-28T23:00", "1800-03-01T00:30", "1900-02-28T12:00",
                                 "2000-02-29T23:59", "2100-03-01T00:00", "1969-12-31T23:59:59"};
    for (int round = 0; round < 400; round++) {
        calendar c;
        c.of = static_cast<unit>(round % 5);
        c.count = 1 + round / 5 % 4;
        c.week_start = static_cast<weekday>(rng() % 7);
        c.utc_offset_ns = offsets[rng() % 6] * kNs;
        c.origin = round % 3 ? VEL_DT_SIGN : vel_dt_from_ns(any(rng));
        for (int i = 0; i < 60; i++) {
            const vel_datetime t = vel_dt_from_ns(any(rng));
            expect_bucket(c, t);
            const vel_datetime start = table::calendar_bucket(c, t).start;
            expect_bucket(c, start);     // the first instant of a bucket
            expect_bucket(c, start - 1); // the last of the one before
        }
        for (const std::string &l : leaps)
            expect_bucket(c, datetime::parse(l).raw());
        expect_bucket(c, 0);            // 1677-09-21T00:12:43.145224192Z
        expect_bucket(c, ~uint64_t(0)); // 2262-04-11T23:47:16.854775807Z
        if (HasFailure())
            FAIL() << "unit " << int(c.of) << " count " << c.count << " weekday "
                   << int(c.week_start) << " offset " << c.utc_offset_ns / kNs;
    }
    calendar c = calendar::months(); // offsets of a day or more, counts below 1: refused
    c.utc_offset_ns = 86400 * kNs;
    EXPECT_THROW(table::calendar_bucket(c, 0), error);
    EXPECT_THROW(table::calendar_bucket(calendar::years(0), 0), error);
}

} // namespace

// The forms of the one calendar parser against the C library's calendar.
TEST(Calendar, ParserFormsAgainstTheCLibrary) {
    std::mt19937_64 rng(5);
    auto parse = [](const std::string &s) {
        vel_datetime v = 42;
        return vel_dt_parse(s.data(), s.size(), &v) == VEL_DT_OK ? std::optional(v) : std::nullopt;
    };
    for (int i = 0; i < 20000; i++) {
        const int64_t sec = -9214646400 + int64_t(rng() % 18437932800); // 1678 .. 2262-04-11
        const time_t t = sec;
        tm x{};
        gmtime_r(&t, &x);
        char b[64];
        const vel_datetime want = vel_dt_from_ns(sec * kNs);
        std::snprintf(b, sizeof b, "%04d%02d%02dT%02d%02d%02d", x.tm_year + 1900, x.tm_mon + 1,
                      x.tm_mday, x.tm_hour, x.tm_min, x.tm_sec);
        ASSERT_EQ(parse(b), want) << b;
        const int64_t midnight = fdiv(sec, 86400) * 86400;
        b[8] = '\0';
        ASSERT_EQ(parse(b), vel_dt_from_ns(midnight * kNs)) << b;
        const int64_t first_of_month = midnight - (x.tm_mday - 1) * 86400;
        std::snprintf(b, sizeof b, "%04d-%02d", x.tm_year + 1900, x.tm_mon + 1);
        ASSERT_EQ(parse(b), vel_dt_from_ns(first_of_month * kNs)) << b;
        std::snprintf(b, sizeof b, "%04d", x.tm_year + 1900);
        ASSERT_EQ(parse(b), vel_dt_from_ns((midnight - x.tm_yday * 86400LL) * kNs)) << b;
    }
    for (const char *bad : {"197001", "1970-1", "19700230", "19000229", "1970-13", "19701301",
                            "20240304T0930", "20240304T09:30:00", "2024-03-04T093000", "1677",
                            "1677-09", "2263", "16770921", "2024-", "2024-03-", "2024 ", "+2024"})
        EXPECT_EQ(parse(bad), std::nullopt) << bad;
    EXPECT_EQ(parse("1678"), datetime::parse("1678-01-01").raw());
    EXPECT_EQ(parse("2262-04"), datetime::parse("2262-04-01").raw());
    EXPECT_EQ(parse("20000229 235959.5+01:00"), datetime::parse("2000-02-29T22:59:59.5Z").raw());
}
