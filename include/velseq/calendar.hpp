// velseq/calendar.hpp -- calendar buckets (days, weeks, months, quarters,
// years) and times built from calendar fields, in the table layer
// (libveltable), which the C++ API, the program and the Python package share.
//
// A bucket is `count` units long.  Its boundaries fall on local midnight,
// local time being UTC + utc_offset (a fixed offset, no daylight saving):
// weeks start on `week_start`, months on the 1st, quarters on January,
// April, July and October 1st, years on January 1st.  Multiples are counted
// from the bucket that holds `origin` (the Unix epoch by default), so 3
// months from 1970 are the quarters and 7 days from 1970 start on Thursdays.
// Dates are proleptic Gregorian, as vel_dt_parse reads them.
#ifndef VELSEQ_CALENDAR_HPP
#define VELSEQ_CALENDAR_HPP

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "velseq/datetime.h"
#include "velseq/error.hpp"
#include "velseq/table.hpp"

namespace velseq {

enum class weekday : uint8_t { monday, tuesday, wednesday, thursday, friday, saturday, sunday };

struct calendar {
    enum class unit : uint8_t { day, week, month, quarter, year };
    unit of = unit::day;
    int64_t count = 1;                    // units per bucket, >= 1
    weekday week_start = weekday::monday; // weeks only
    int64_t utc_offset_ns = 0;            // |offset| < 24 h
    vel_datetime origin = VEL_DT_SIGN;    // multiples counted from its bucket

    static calendar days(int64_t n = 1) { return {unit::day, n}; }
    static calendar weeks(int64_t n = 1, weekday start = weekday::monday) {
        return {unit::week, n, start};
    }
    static calendar months(int64_t n = 1) { return {unit::month, n}; }
    static calendar quarters(int64_t n = 1) { return {unit::quarter, n}; }
    static calendar years(int64_t n = 1) { return {unit::year, n}; }

    // "1D", "2W", "1W-SUN", "3M", "12mo", "1Q", "1q", "1Y", "1y" (the count
    // may be left out); nullopt for text of another form (a fixed width such
    // as "1d" or "15m" among them).  Refused (VEL_E_ILLEGAL_PARAM): a count
    // of 0 or one over a million, an unknown weekday.
    static std::optional<calendar> parse(std::string_view text);
    // The offset "+01:00", "-0430", "+05" or "Z" as nanoseconds east of UTC;
    // VEL_E_ILLEGAL_PARAM for other text.
    static int64_t parse_offset(std::string_view text);
};

namespace table {

// The sentence of a calendar refusal, without the code's name and meaning
// that error::what() puts first (for callers that name the row).
inline std::string refusal_of(const error &e) {
    const std::string w = e.what(), head = std::string(code_message(e.code())) + ": ";
    const size_t at = w.find(head);
    return at == std::string::npos ? w : w.substr(at + head.size());
}

// One bucket: its first instant (clamped to the first instant a datetime
// holds, for a bucket that begins before it), its last instant (clamped to
// the last one), and the local midnight that begins its last day.
struct calendar_span {
    vel_datetime start, last, last_day;
};
// The bucket holding t; VEL_E_ILLEGAL_PARAM for a calendar out of its ranges.
calendar_span calendar_bucket(const calendar &cal, vel_datetime t);

// resample() over calendar buckets: `start` holds each non-empty bucket's
// start, as calendar_bucket gives it.
buckets resample(const column &ts, const column &values, const calendar &cal,
                 std::optional<std::pair<vel_datetime, vel_datetime>> window,
                 const std::vector<std::string> &kernels);

// The instant that begins a local calendar day (month and day from 1; the
// local time is UTC + utc_offset_ns); VEL_E_ILLEGAL_PARAM for a day that is
// no calendar day, VEL_E_ILLEGAL_PARAM naming the range for one whose
// midnight a datetime cannot hold (before 1677-09-22 or after 2262-04-11).
vel_datetime civil_time(int64_t year, int64_t month, int64_t day, int64_t utc_offset_ns = 0);

} // namespace table
} // namespace velseq

#endif // VELSEQ_CALENDAR_HPP
