// time-objs.h: time intervals, time stamps and their textual forms.
//
// timegap_t (a signed interval) and timestamp_t (an absolute moment in UTC)
// are each one signed 64-bit count of 10-nanosecond ticks, 100,000,000 per
// second, so they copy as plain integers and compare by value. A time stamp
// counts from 0001-01-01 00:00:00 UTC on the proleptic Gregorian calendar;
// tick 0 doubles as "no time". localtime_t pairs a stamp with the local
// zone's offset for printing.
//
//   timestamp_t deadline = kern::time::now() + timegap_t(5, 0);  // 5 s
//   std::string text = deadline;                                 // 17 digits
//   timestamp_t back(text);                                      // and back
//
// Range. 64-bit ticks reach 2,922 years either side of year 1: a stamp
// holds moments up to 2923-10-09 21:52:48. Arithmetic past that wraps,
// unchecked, and so do the stamps of later dates that the readers accept
// (the RFC 1123 reader takes years up to 10000) or Boost hands over (up to
// 9999).
//
// Units. The getters and the (value, unit) constructor name a unit by an
// index k: -8 is one tick (10 ns), -6 a microsecond, -3 a millisecond, 0 a
// second, 1 a minute, 2 an hour, 3 a day, 4 and up ten days times 10^(k-4);
// -9 and below are finer than a tick (-9 is a nanosecond).
//
// Thread safety: the values are plain data; distinct objects need no
// locking. kern::time::now() is safe on any thread. localtime_t::TZ reads
// the C library's zone data (localtime_r), which the program sets up with
// tzset; changing TZ while other threads print local times is the
// program's business.
//
// Choices left open elsewhere and made here:
//  - dateparts_t::add_monthes carries whole years out of the month (either
//    way: -1 month from January is December of the year before) and then
//    clamps the day to the length of the new month (31 Jan + 1 month is
//    28 or 29 Feb).
//  - The RFC 1123 reader skips leading blanks before the week day, and runs
//    of blanks wherever one blank separates two fields.
//  - The RFC 1123 reader reads its numbers as digits only (no sign), and
//    compares month names case-sensitively.
//  - A date that the Gregorian check rejects is reported as
//    timestamp_format_exception "invalid date \"<input>\" because of <text>",
//    the text being the calendar's ("Day of month value is out of range
//    1..31", "Year is out of valid range: 1400..10000", "Day of month is
//    not valid for year"); years 1400 to 10000 are accepted.
//  - The 17-digit reader reports a bad byte's code as an unsigned byte
//    (0xc3, not 0xffffffc3).
//  - Units finer than 10^-18 tick or coarser than 10^6 days do not fit in
//    64 bits: a value never holds one of the coarser units (get gives 0,
//    and a modulo by one changes nothing), a value never holds a tick's
//    worth of the finer ones (the constructor gives 0); the other ways
//    wrap silently like any overflow.
//  - Negative intervals print with a leading "-" and the parts of their
//    magnitude (toString, toShortString, addFullTimePartToStr).
//  - ptime_to_qstime maps Boost's negative infinity to 1400-01-01 00:00:00
//    and not-a-date-time to 9999-12-31 23:59:59, Boost's extreme dates;
//    qstime_to_ptime maps the largest tick count back to positive infinity.
#ifndef QVLKERN_TIME_OBJS_H
#define QVLKERN_TIME_OBJS_H

#include <boost/date_time/posix_time/posix_time_types.hpp>
#include <cstdint>
#include <string>

#include "amtypes.h"
#include "kern-config.h"

class timestamp_t;

namespace kern {
namespace time {

// Ticks per second.
constexpr q_int64_t ticks_per_second = 100000000;
// Ticks from 0001-01-01 to 1970-01-01 (719,162 days).
constexpr q_int64_t unix_epoch_ticks = 62135596800LL * ticks_per_second;

// The tick count behind both time types and the unit-based getters they
// share. The value is public data by design: it is the whole state.
class QVL_API ticks_t {
public:
    // Hours within the day, minutes, seconds, milliseconds.
    struct timeparts_t {
        int hours;
        int minutes;
        int seconds;
        int milliseconds;
    };

    constexpr ticks_t() noexcept : value(0) {}
    constexpr explicit ticks_t(q_int64_t ticks) noexcept : value(ticks) {}

    constexpr q_int64_t ticks() const noexcept { return value; }
    // All bits but the sign set: "for ever" to every wait.
    constexpr bool is_infinite() const noexcept { return value == INT64_MAX; }

    // Ticks per unit k (negative: units per tick, for units finer than a
    // tick); see the unit list above.
    static q_int64_t factor(int k) noexcept;

    // Whole units k in the value, after first taking it modulo unit k + up
    // when up is not 0 (0 when k + up is finer than a tick). get(0, 1) is
    // the seconds within the minute, get(2, 1) the hour of the day,
    // get(-3, 3) the milliseconds within the second, get(3, 0) whole days.
    q_int64_t get(int k, unsigned up = 0) const noexcept;
    // As get, but a non-zero value shorter than one unit k gives its sign,
    // so that a short time-out never rounds to zero.
    q_int64_t getround(int k, unsigned up = 0) const noexcept;
    // Hours of the day, minutes, seconds and milliseconds.
    void time(timeparts_t& parts) const noexcept;

    q_int64_t value;
};

// The current moment: one clock_gettime(CLOCK_REALTIME).
QVL_API ::timestamp_t now() noexcept;

}  // namespace time
}  // namespace kern

// A signed interval in ticks.
class QVL_API timegap_t : public kern::time::ticks_t {
public:
    typedef kern::time::ticks_t::timeparts_t timeparts_t;

    constexpr timegap_t() noexcept {}
    constexpr explicit timegap_t(q_int64_t ticks) noexcept : ticks_t(ticks) {}
    // value units of k: timegap_t(1, 0) is a second, timegap_t(1, 1) a
    // minute; finer-than-tick units truncate.
    timegap_t(long value, int k) noexcept;
    timegap_t(int seconds, int minutes, int hours, int days) noexcept;

    static constexpr timegap_t infinite() noexcept { return timegap_t(INT64_MAX); }

    // "hh:mm:ss.mmm", or "<days>-hh:mm:ss.mmm" with whole days; replaces s.
    void toString(std::string& s) const;
    // Appends "<days>-hh:mm:ss.mmm" with the given day count.
    void toString(std::string& s, unsigned long days) const;
    // As toString, but without whole days a zero hour field is left out,
    // and then a zero minute field too: "mm:ss.mmm", "ss.mmm".
    void toShortString(std::string& s) const;
    // Appends the twelve characters "hh:mm:ss.mmm".
    void addFullTimePartToStr(std::string& s) const;

    timegap_t operator-() const noexcept;
    timegap_t& operator+=(timegap_t o) noexcept;
    timegap_t& operator-=(timegap_t o) noexcept;

    friend bool operator==(timegap_t a, timegap_t b) noexcept { return a.value == b.value; }
    friend bool operator!=(timegap_t a, timegap_t b) noexcept { return a.value != b.value; }
    friend bool operator<(timegap_t a, timegap_t b) noexcept { return a.value < b.value; }
    friend bool operator<=(timegap_t a, timegap_t b) noexcept { return a.value <= b.value; }
    friend bool operator>(timegap_t a, timegap_t b) noexcept { return a.value > b.value; }
    friend bool operator>=(timegap_t a, timegap_t b) noexcept { return a.value >= b.value; }
};

// An absolute moment in UTC, in ticks since 0001-01-01 00:00:00.
class QVL_API timestamp_t : public kern::time::ticks_t {
public:
    typedef kern::time::ticks_t::timeparts_t timeparts_t;

    // Year, month (1 to 12), day of month. There is no year 0: the year
    // before 1 is -1.
    struct QVL_API dateparts_t {
        int year;
        int month;
        int day;

        // Adds n months (n may be negative), carrying into the year and
        // clamping the day to the new month's length.
        void add_monthes(int n) noexcept;
    };

    constexpr timestamp_t() noexcept {}
    constexpr explicit timestamp_t(q_int64_t ticks) noexcept : ticks_t(ticks) {}
    // Reads the 17-digit form YYYYMMDDhhmmssmmm; "" and "0" give 0. Throws
    // number_format_exception.
    timestamp_t(std::string const& text);
    // Reads the RFC 1123 form "Www, DD Mmm YYYY hh:mm:ss" with an optional
    // trailing "GMT". Throws timestamp_format_exception.
    timestamp_t(lstr_t text);

    static constexpr timestamp_t infinite() noexcept { return timestamp_t(INT64_MAX); }

    // Sets the value from calendar fields, unchecked. Year 0 means the
    // current year; negative years count from -1.
    timestamp_t& init(int seconds, int minutes, int hours, int day, int month, int year) noexcept;

    // Julian Day Number (whole days + 1721426).
    q_int64_t jdn() const noexcept;
    // 0 Monday ... 6 Sunday.
    int weekday() const noexcept;
    // Calendar date; all fields 0 for tick 0.
    void date(dateparts_t& parts) const noexcept;
    void date(int* year, int* month, int* day) const noexcept;
    // Whole seconds since 1970-01-01, clamped to 0 .. 0x7FFFFFFF.
    q_uint32_t unixtime() const noexcept;
    // The 17 digits as one number, e.g. 20141202133600123.
    q_uint64_t db_timestamp() const noexcept;
    // The 17-digit form.
    operator std::string() const;
    // Appends "Www, DD Mmm YYYY hh:mm:ss".
    void rfc1123_basic_date(std::string& s) const;
    // Appends the basic date and " GMT".
    void rfc1123_date(std::string& s) const;
    // "YYYY/MM/DD hh:mm:ss.mmm".
    std::string toReadableString() const;

    timestamp_t& operator+=(timegap_t g) noexcept;
    timestamp_t& operator-=(timegap_t g) noexcept;

    friend bool operator==(timestamp_t a, timestamp_t b) noexcept { return a.value == b.value; }
    friend bool operator!=(timestamp_t a, timestamp_t b) noexcept { return a.value != b.value; }
    friend bool operator<(timestamp_t a, timestamp_t b) noexcept { return a.value < b.value; }
    friend bool operator<=(timestamp_t a, timestamp_t b) noexcept { return a.value <= b.value; }
    friend bool operator>(timestamp_t a, timestamp_t b) noexcept { return a.value > b.value; }
    friend bool operator>=(timestamp_t a, timestamp_t b) noexcept { return a.value >= b.value; }
};

// Arithmetic wraps on overflow instead of trapping; callers that may hold
// the infinite value test for it first.
QVL_API timegap_t operator+(timegap_t a, timegap_t b) noexcept;
QVL_API timegap_t operator-(timegap_t a, timegap_t b) noexcept;
QVL_API timegap_t operator*(timegap_t a, q_int64_t n) noexcept;
QVL_API timestamp_t operator+(timestamp_t a, timegap_t b) noexcept;
QVL_API timestamp_t operator-(timestamp_t a, timegap_t b) noexcept;
QVL_API timegap_t operator-(timestamp_t a, timestamp_t b) noexcept;

// A UTC time stamp with the local zone's offset, UTC minus local time (a
// zone three hours east of Greenwich holds minus three hours).
class QVL_API localtime_t {
public:
    // Now, with the offset in force now.
    localtime_t() noexcept;
    // The stamp with the offset in force at that moment.
    explicit localtime_t(timestamp_t utc) noexcept;
    localtime_t(timestamp_t utc, timegap_t offset) noexcept : stamp(utc), offset(offset) {}

    // The local zone's offset at that moment, UTC minus local time, from the
    // C library's broken-down local and UTC times of the same instant.
    static timegap_t TZ(long unix_seconds) noexcept;

    // Appends the zone as a sign and hhmm ("+0100" east of Greenwich).
    void rfc1123_timezone(std::string& s) const;
    // Appends the local basic date, a blank and the zone.
    void rfc1123_date(std::string& s) const;

    timestamp_t stamp;
    timegap_t offset;
};

// A Boost time point in ticks, through the calendar fields; fractions of a
// second are dropped. Positive infinity gives the infinite tick count.
QVL_API q_uint64_t ptime_to_qstime(boost::posix_time::ptime t);
// The reverse, through the calendar fields. Throws Boost's
// bad_day_of_month (also for tick 0, whose day is 0), bad_month or
// bad_year for dates Boost cannot hold.
QVL_API boost::posix_time::ptime qstime_to_ptime(unsigned long ticks);

#endif  // QVLKERN_TIME_OBJS_H
