// Calendar buckets and times from calendar fields.  Instants are signed
// nanoseconds since 1970 (vel_dt_to_ns); a bucket is found from the local day
// number D (days since 1970-01-01 of UTC + offset), the index of its unit
// (days, weeks since the Monday 1969-12-29 shifted to the week start, months
// or quarters or years since year 0), and back from an index to the day that
// starts it.  Products of days and nanoseconds go through 128 bits and are
// clamped to the instants a datetime holds.
#include <cctype>
#include <charconv>

#include "dispatch.h"
#include "velseq/calendar.hpp"

namespace velseq {

namespace {

constexpr int64_t kDay = 86400 * VEL_DT_NS_PER_SEC;
constexpr int64_t kMaxCount = 1000000;

int64_t floor_div(int64_t a, int64_t b) { return a / b - (a % b != 0 && (a % b < 0) != (b < 0)); }
int64_t floor_mod(int64_t a, int64_t b) { return a - floor_div(a, b) * b; }

[[noreturn]] void refuse(const std::string &what) { throw error(VEL_E_ILLEGAL_PARAM, what); }

} // namespace

std::optional<calendar> calendar::parse(std::string_view text) {
    int64_t n = 1;
    const char *b = text.data(), *e = b + text.size();
    const auto r = std::from_chars(b, e, n); // r.ptr: past the digits, if any
    const bool counted = r.ptr != b;
    if (r.ec == std::errc::result_out_of_range)
        n = kMaxCount + 1;
    const std::string_view u(r.ptr, static_cast<size_t>(e - r.ptr));
    calendar c;
    if (u == "D")
        c.of = unit::day;
    else if (u == "M" || u == "mo")
        c.of = unit::month;
    else if (u == "Q" || u == "q")
        c.of = unit::quarter;
    else if (u == "Y" || u == "y")
        c.of = unit::year;
    else if (u == "W" || u.rfind("W-", 0) == 0) {
        c.of = unit::week;
        if (u.size() > 1) {
            static const char *const days[] = {"MON", "TUE", "WED", "THU", "FRI", "SAT", "SUN"};
            std::string d(u.substr(2));
            for (char &ch : d)
                ch = static_cast<char>(std::toupper(static_cast<unsigned char>(ch)));
            int k = 0;
            while (k < 7 && d != days[k])
                k++;
            if (k == 7)
                refuse("calendar '" + std::string(text) +
                       "': weeks start on MON, TUE, WED, THU, "
                       "FRI, SAT or SUN");
            c.week_start = static_cast<weekday>(k);
        }
    } else {
        return std::nullopt;
    }
    if (counted && (n < 1 || n > kMaxCount))
        refuse("calendar '" + std::string(text) + "': the count of units lies in 1.." +
               std::to_string(kMaxCount));
    c.count = n;
    return c;
}

int64_t calendar::parse_offset(std::string_view text) {
    size_t i = 0;
    int64_t sec = 0;
    if (text.empty() || vel_dt_offset_(text.data(), text.size(), &i, &sec) != VEL_DT_OK ||
        i != text.size())
        refuse(std::string(1, '\'').append(text).append(
            "' is not a UTC offset such as +01:00, -0430 or Z")); // (gcc 12 -Wrestrict at -O3)
    return sec * VEL_DT_NS_PER_SEC;
}

namespace table {

namespace {

// Local day number of an instant.
int64_t local_day(int64_t ns, int64_t offset) {
    int64_t d = ns / kDay, r = ns % kDay;
    if (r < 0)
        r += kDay, d--;
    r += offset;
    if (r < 0)
        d--;
    else if (r >= kDay)
        d++;
    return d;
}

// The instant of a local day's midnight, plus `plus` nanoseconds, clamped.
int64_t instant_of(int64_t day, int64_t offset, int64_t plus = 0) {
    const __int128 ns = static_cast<__int128>(day) * kDay - offset + plus;
    return ns < INT64_MIN ? INT64_MIN : ns > INT64_MAX ? INT64_MAX : static_cast<int64_t>(ns);
}

int64_t months_of(calendar::unit u) {
    return u == calendar::unit::month ? 1 : u == calendar::unit::quarter ? 3 : 12;
}

// The index of the unit holding local day D.
int64_t unit_index(const calendar &c, int64_t d) {
    switch (c.of) {
    case calendar::unit::day:
        return d;
    case calendar::unit::week: // day 0 is a Thursday
        return floor_div(d + 3 - static_cast<int64_t>(c.week_start), 7);
    default: {
        int64_t y;
        unsigned m, dd;
        vel_dt_civil_from_days(d, &y, &m, &dd);
        return (y * 12 + static_cast<int64_t>(m) - 1) / months_of(c.of);
    }
    }
}

// The local day that starts unit index k.
int64_t start_day(const calendar &c, int64_t k) {
    switch (c.of) {
    case calendar::unit::day:
        return k;
    case calendar::unit::week:
        return 7 * k - 3 + static_cast<int64_t>(c.week_start);
    default: {
        const int64_t m = k * months_of(c.of);
        return vel_dt_days_from_civil(floor_div(m, 12), static_cast<unsigned>(floor_mod(m, 12)) + 1,
                                      1);
    }
    }
}

} // namespace

calendar_span calendar_bucket(const calendar &c, vel_datetime t) {
    // Counts up to a million years keep every day number within int64.
    if (c.count < 1 || c.count > kMaxCount)
        refuse("calendar buckets of " + std::to_string(c.count) + " units: the count lies in 1.." +
               std::to_string(kMaxCount));
    if (c.utc_offset_ns <= -kDay || c.utc_offset_ns >= kDay)
        refuse("a UTC offset lies within a day of UTC");
    if (static_cast<unsigned>(c.week_start) > 6 || static_cast<unsigned>(c.of) > 4)
        refuse("calendar: no such unit or weekday");
    const int64_t oi = unit_index(c, local_day(vel_dt_to_ns(c.origin), c.utc_offset_ns));
    const int64_t k = unit_index(c, local_day(vel_dt_to_ns(t), c.utc_offset_ns));
    const int64_t first = oi + floor_div(k - oi, c.count) * c.count;
    const int64_t from = start_day(c, first), to = start_day(c, first + c.count);
    return {vel_dt_from_ns(instant_of(from, c.utc_offset_ns)),
            vel_dt_from_ns(instant_of(to, c.utc_offset_ns, -1)),
            vel_dt_from_ns(instant_of(to - 1, c.utc_offset_ns))};
}

vel_datetime civil_time(int64_t year, int64_t month, int64_t day, int64_t utc_offset_ns) {
    static const unsigned char mdays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    const bool leap = (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
    if (month < 1 || month > 12 || day < 1 || day > mdays[month - 1] ||
        (month == 2 && day == 29 && !leap))
        refuse(std::to_string(year) + "-" + std::to_string(month) + "-" + std::to_string(day) +
               " is no calendar day");
    const __int128 ns = year < 1600 || year > 2300
                            ? __int128(INT64_MIN) - 1
                            : static_cast<__int128>(vel_dt_days_from_civil(
                                  year, static_cast<unsigned>(month), static_cast<unsigned>(day))) *
                                      kDay -
                                  utc_offset_ns;
    if (ns < INT64_MIN || ns > INT64_MAX)
        refuse("the midnight of " + std::to_string(year) + "-" + std::to_string(month) + "-" +
               std::to_string(day) +
               " lies outside 1677-09-21T00:12:43.145224192Z .. "
               "2262-04-11T23:47:16.854775807Z");
    return vel_dt_from_ns(static_cast<int64_t>(ns));
}

} // namespace table
} // namespace velseq
