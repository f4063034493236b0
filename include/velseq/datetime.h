/*
 * velseq/datetime.h -- the calendar meaning of vel_datetime, for C and C++.
 *
 * The module stores a datetime as an unsigned 64-bit count and compares it as
 * unsigned.  Applications, the tools and the C++ API give it one meaning:
 *
 *   ns    = signed nanoseconds since 1970-01-01T00:00:00Z (UTC, no leap seconds)
 *   value = (uint64_t)ns ^ 0x8000000000000000
 *
 *   ns                      value                  instant
 *   INT64_MIN               0x0000000000000000     1677-09-21T00:12:43.145224192Z
 *   -1                      0x7fffffffffffffff     1969-12-31T23:59:59.999999999Z
 *   0                       0x8000000000000000     1970-01-01T00:00:00Z
 *   INT64_MAX               0xffffffffffffffff     2262-04-11T23:47:16.854775807Z
 *
 * Flipping the sign bit maps signed order onto unsigned order, so the module's
 * ascending datetime fields, searches and joins follow time order, dates
 * before 1970 included, and every 64-bit value is a valid instant.
 *
 * Text form (ISO-8601), parsed by vel_dt_parse:
 *   YYYY-MM-DD, YYYYMMDD                          midnight UTC
 *   YYYY-MM, YYYY                                 midnight UTC of its first day
 *   YYYY-MM-DD(T|t| )hh:mm[:ss[.f..f]][zone]      1 to 9 fraction digits
 *   YYYYMMDD(T|t| )hhmmss[.f..f][zone]
 *   zone: Z, z, +hh:mm, -hh:mm, +hhmm, +hh         none: UTC
 * Instants span 1677-09-21T00:12:43.145224192Z .. 2262-04-11T23:47:16.854775807Z,
 * so 1677 and 1677-09 (whose first midnight lies before) are VEL_DT_RANGE.
 * vel_dt_format writes YYYY-MM-DDThh:mm:ss[.fff|.ffffff|.fffffffff]Z with
 * the fewest fraction digits that keep the value exact.
 *
 * Everything here is static inline: include it where it is used.
 */
#ifndef VELSEQ_DATETIME_H
#define VELSEQ_DATETIME_H

#include <stddef.h>
#include <stdint.h>

#include "../velseq.h"

#ifdef __cplusplus
extern "C" {
#endif

#define VEL_DT_SIGN 0x8000000000000000ull
#define VEL_DT_NS_PER_SEC 1000000000ll
#define VEL_DT_TEXT_MAX 40 /* bytes vel_dt_format needs, NUL included */

/* vel_dt_parse results */
#define VEL_DT_OK 0
#define VEL_DT_SYNTAX (-1) /* not one of the forms above, or a field out of its range */
#define VEL_DT_RANGE (-2)  /* a valid instant outside 1677-09-21 .. 2262-04-11 */

static inline vel_datetime vel_dt_from_ns(int64_t ns) { return (vel_datetime)ns ^ VEL_DT_SIGN; }

static inline int64_t vel_dt_to_ns(vel_datetime v) {
    uint64_t u = v ^ VEL_DT_SIGN;
    int64_t ns;
    /* two's complement reinterpretation without implementation-defined casts */
    ns = u >= VEL_DT_SIGN ? -(int64_t)(~u) - 1 : (int64_t)u;
    return ns;
}

/* Days since 1970-01-01 of a proleptic Gregorian date (era arithmetic: 400-year
   cycles of 146097 days starting on March 1st). */
static inline int64_t vel_dt_days_from_civil(int64_t y, unsigned m, unsigned d) {
    y -= m <= 2;
    const int64_t era = (y >= 0 ? y : y - 399) / 400;
    const unsigned yoe = (unsigned)(y - era * 400);
    const unsigned doy = (153 * (m > 2 ? m - 3 : m + 9) + 2) / 5 + d - 1;
    const unsigned doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
    return era * 146097 + (int64_t)doe - 719468;
}

static inline void vel_dt_civil_from_days(int64_t z, int64_t *y, unsigned *m, unsigned *d) {
    z += 719468;
    const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
    const unsigned doe = (unsigned)(z - era * 146097);
    const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
    const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
    const unsigned mp = (5 * doy + 2) / 153;
    *d = doy - (153 * mp + 2) / 5 + 1;
    *m = mp < 10 ? mp + 3 : mp - 9;
    *y = (int64_t)yoe + era * 400 + (*m <= 2);
}

/* Writes the text form and a NUL into buf (cap >= VEL_DT_TEXT_MAX); returns its
   length, or 0 when buf is too small. */
static inline size_t vel_dt_format(vel_datetime v, char *buf, size_t cap) {
    if (buf == NULL || cap < VEL_DT_TEXT_MAX)
        return 0;
    const int64_t ns = vel_dt_to_ns(v);
    int64_t sec = ns / VEL_DT_NS_PER_SEC;
    int64_t frac = ns % VEL_DT_NS_PER_SEC;
    if (frac < 0) {
        frac += VEL_DT_NS_PER_SEC;
        sec -= 1;
    }
    int64_t days = sec / 86400;
    int64_t tod = sec % 86400;
    if (tod < 0) {
        tod += 86400;
        days -= 1;
    }
    int64_t y;
    unsigned m, d;
    vel_dt_civil_from_days(days, &y, &m, &d);
    const unsigned fields[6] = {
        (unsigned)y, m, d, (unsigned)(tod / 3600), (unsigned)(tod / 60 % 60), (unsigned)(tod % 60)};
    static const char seps[6] = {'-', '-', 'T', ':', ':', '\0'};
    size_t n = 0;
    for (int f = 0; f < 6; f++) {
        const int width = f == 0 ? 4 : 2;
        for (int k = width - 1; k >= 0; k--) {
            unsigned x = fields[f];
            for (int j = 0; j < k; j++)
                x /= 10;
            buf[n++] = (char)('0' + x % 10);
        }
        if (seps[f])
            buf[n++] = seps[f];
    }
    if (frac != 0) {
        int digits = frac % 1000000 == 0 ? 3 : frac % 1000 == 0 ? 6 : 9;
        buf[n++] = '.';
        int64_t scale = 100000000;
        for (int k = 0; k < digits; k++, scale /= 10)
            buf[n++] = (char)('0' + frac / scale % 10);
    }
    buf[n++] = 'Z';
    buf[n] = '\0';
    return n;
}

/* Reads exactly `count` digits at s[*i]; -1 if one is missing. */
static inline int64_t vel_dt_digits_(const char *s, size_t len, size_t *i, int count) {
    int64_t x = 0;
    for (int k = 0; k < count; k++, (*i)++) {
        if (*i >= len || s[*i] < '0' || s[*i] > '9')
            return -1;
        x = x * 10 + (s[*i] - '0');
    }
    return x;
}

/* A date at s[*i], a real calendar day: YYYY-MM-DD, YYYYMMDD (*form 1), or
   YYYY-MM or YYYY ending the text (*form 2: its first day); 0 or
   VEL_DT_SYNTAX. */
static inline int vel_dt_date_(const char *s, size_t len, size_t *i, int64_t *y, int64_t *mo,
                               int64_t *d, int *form) {
    static const unsigned char mdays[12] = {31, 29, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    *y = vel_dt_digits_(s, len, i, 4);
    *mo = *d = 1;
    *form = 2;
    if (*y < 0)
        return VEL_DT_SYNTAX;
    if (*i == len)
        return VEL_DT_OK;
    const int extended = s[*i] == '-';
    *i += (size_t)extended;
    *mo = vel_dt_digits_(s, len, i, 2);
    if (*mo < 1 || *mo > 12)
        return VEL_DT_SYNTAX;
    if (extended && *i == len)
        return VEL_DT_OK;
    if (extended && s[(*i)++] != '-')
        return VEL_DT_SYNTAX;
    *form = !extended;
    *d = vel_dt_digits_(s, len, i, 2);
    const int leap = (*y % 4 == 0 && *y % 100 != 0) || *y % 400 == 0;
    if (*d < 1 || *d > mdays[*mo - 1] || (*mo == 2 && *d == 29 && !leap))
        return VEL_DT_SYNTAX;
    return VEL_DT_OK;
}

/* HH:MM[:SS[.fraction]] at s[*i], or with `compact` HHMMSS[.fraction] (the
   fraction up to 9 digits, as nanoseconds); 0 or VEL_DT_SYNTAX. */
static inline int vel_dt_clock_(const char *s, size_t len, size_t *i, int compact, int64_t *sec,
                                int64_t *frac) {
    const int64_t hh = vel_dt_digits_(s, len, i, 2);
    if (hh < 0 || hh > 23 || (!compact && (*i >= len || s[(*i)++] != ':')))
        return VEL_DT_SYNTAX;
    const int64_t mm = vel_dt_digits_(s, len, i, 2);
    if (mm < 0 || mm > 59)
        return VEL_DT_SYNTAX;
    int64_t ss = 0;
    *frac = 0;
    if (compact || (*i < len && s[*i] == ':')) {
        *i += (size_t)!compact;
        ss = vel_dt_digits_(s, len, i, 2);
        if (ss < 0 || ss > 59)
            return VEL_DT_SYNTAX;
        if (*i < len && (s[*i] == '.' || s[*i] == ',')) {
            (*i)++;
            int digits = 0;
            while (*i < len && s[*i] >= '0' && s[*i] <= '9') {
                if (++digits > 9)
                    return VEL_DT_SYNTAX;
                *frac = *frac * 10 + (s[(*i)++] - '0');
            }
            if (digits == 0)
                return VEL_DT_SYNTAX;
            for (; digits < 9; digits++)
                *frac *= 10;
        }
    }
    *sec = hh * 3600 + mm * 60 + ss;
    return VEL_DT_OK;
}

/* An optional Z, +HH[:MM] or -HH[MM] at s[*i], as seconds east of UTC;
   0 or VEL_DT_SYNTAX. */
static inline int vel_dt_offset_(const char *s, size_t len, size_t *i, int64_t *offset) {
    *offset = 0;
    if (*i < len && (s[*i] == 'Z' || s[*i] == 'z')) {
        (*i)++;
    } else if (*i < len && (s[*i] == '+' || s[*i] == '-')) {
        const int64_t sign = s[(*i)++] == '-' ? -1 : 1;
        const int64_t oh = vel_dt_digits_(s, len, i, 2);
        int64_t om = 0;
        if (oh < 0 || oh > 23)
            return VEL_DT_SYNTAX;
        if (*i < len && s[*i] == ':')
            (*i)++, om = vel_dt_digits_(s, len, i, 2);
        else if (*i < len)
            om = vel_dt_digits_(s, len, i, 2);
        if (om < 0 || om > 59)
            return VEL_DT_SYNTAX;
        *offset = sign * (oh * 3600 + om * 60);
    }
    return VEL_DT_OK;
}

/* sec seconds plus frac nanoseconds since 1970 as INT64 nanoseconds;
   0 or VEL_DT_RANGE. */
static inline int vel_dt_ns_(int64_t sec, int64_t frac, int64_t *ns) {
    /* INT64 nanoseconds span seconds -9223372037 (partly) .. 9223372036 (partly) */
    if (sec < -9223372037ll || sec > 9223372036ll)
        return VEL_DT_RANGE;
    if (sec < 0) {
        /* (sec + 1) * 1e9 fits; adding frac - 1e9 may step below INT64_MIN */
        const int64_t base = (sec + 1) * VEL_DT_NS_PER_SEC;
        const int64_t rest = frac - VEL_DT_NS_PER_SEC;
        if (base < INT64_MIN - rest)
            return VEL_DT_RANGE;
        *ns = base + rest;
    } else {
        const int64_t base = sec * VEL_DT_NS_PER_SEC;
        if (base > INT64_MAX - frac)
            return VEL_DT_RANGE;
        *ns = base + frac;
    }
    return VEL_DT_OK;
}

/* Parses s[0..len) (no blanks) into *out; VEL_DT_OK, VEL_DT_SYNTAX or
   VEL_DT_RANGE.  *out is written only on success. */
static inline int vel_dt_parse(const char *s, size_t len, vel_datetime *out) {
    if (s == NULL || out == NULL)
        return VEL_DT_SYNTAX;
    size_t i = 0;
    int64_t y, mo, d, clock = 0, frac = 0, offset = 0, ns;
    int form;
    if (vel_dt_date_(s, len, &i, &y, &mo, &d, &form) != VEL_DT_OK)
        return VEL_DT_SYNTAX;
    if (i < len) {
        if (s[i] != 'T' && s[i] != 't' && s[i] != ' ')
            return VEL_DT_SYNTAX;
        i++;
        if (vel_dt_clock_(s, len, &i, form == 1, &clock, &frac) != VEL_DT_OK ||
            vel_dt_offset_(s, len, &i, &offset) != VEL_DT_OK)
            return VEL_DT_SYNTAX;
    }
    if (i != len)
        return VEL_DT_SYNTAX;
    /* local time minus its offset is UTC; years 0000..9999 keep this in range */
    const int64_t sec =
        vel_dt_days_from_civil(y, (unsigned)mo, (unsigned)d) * 86400 + clock - offset;
    if (vel_dt_ns_(sec, frac, &ns) != VEL_DT_OK)
        return VEL_DT_RANGE;
    *out = vel_dt_from_ns(ns);
    return VEL_DT_OK;
}

#ifdef __cplusplus
}
#endif

#endif /* VELSEQ_DATETIME_H */
