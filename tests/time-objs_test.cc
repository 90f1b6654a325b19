// Tests of time intervals, time stamps and their textual forms.
#include "time-objs.h"

#include <gtest/gtest.h>
#include <time.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "exceptions.h"

namespace {

constexpr q_int64_t kSec = 100000000;
constexpr q_int64_t kDay = 86400 * kSec;

std::string gap_text(q_int64_t ticks, bool shrt = false) {
    std::string s = "junk";
    if (shrt)
        timegap_t(ticks).toShortString(s);
    else
        timegap_t(ticks).toString(s);
    return s;
}

// The reason of what a reader throws, or "" when it throws nothing.
template <typename Shell, typename F>
std::string reason_of(F f) {
    try {
        f();
    } catch (Shell const& e) {
        return e.what();
    }
    return "";
}
std::string digits_error(std::string const& s) {
    return reason_of<number_format_exception_shell_t>([&] { timestamp_t t(s); });
}
std::string rfc_error(char const* s) {
    return reason_of<timestamp_format_exception_shell_t>([&] { timestamp_t t{lstr_t(s)}; });
}
timestamp_t rfc(char const* s) { return timestamp_t(lstr_t(s)); }
timestamp_t make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    return timestamp_t().init(s, mi, h, d, mo, y);
}

// Sets TZ for the life of the object and puts the old value back.
class tz_guard_t {
public:
    explicit tz_guard_t(char const* tz) {
        char const* old = std::getenv("TZ");
        had_ = old != nullptr;
        if (had_) old_ = old;
        setenv("TZ", tz, 1);
        tzset();
    }
    ~tz_guard_t() {
        if (had_)
            setenv("TZ", old_.c_str(), 1);
        else
            unsetenv("TZ");
        tzset();
    }

private:
    bool had_;
    std::string old_;
};

TEST(TimeGap, UnitsAndGetters) {
    EXPECT_EQ(timegap_t::factor(-9), -10);
    EXPECT_EQ(timegap_t::factor(-8), 1);
    EXPECT_EQ(timegap_t::factor(-3), 100000);
    EXPECT_EQ(timegap_t::factor(1), 6000000000LL);
    EXPECT_EQ(timegap_t::factor(3), kDay);
    EXPECT_EQ(timegap_t::factor(5), kDay * 100);
    EXPECT_EQ(timegap_t(1, 0).value, kSec);
    EXPECT_EQ(timegap_t(1, 1).value, 60 * kSec);
    EXPECT_EQ(timegap_t(1, 4).value, 10 * kDay);
    EXPECT_EQ(timegap_t(1999, -9).value, 199);  // nanoseconds truncate
    EXPECT_EQ(timegap_t(-1999, -9).value, -199);
    EXPECT_EQ(timegap_t(5, 6, 7, 8).value, 5 * kSec + 6 * 60 * kSec + 7 * 3600 * kSec + 8 * kDay);

    EXPECT_EQ(timegap_t(1, 1).get(0, 0), 60);
    EXPECT_EQ(timegap_t(90, 0).get(0, 1), 30);
    timegap_t const g(2, 3, 26, 0);  // 1 day 2 h 3 min 2 s
    EXPECT_EQ(g.get(2, 1), 2);
    EXPECT_EQ(g.get(3, 0), 1);
    EXPECT_EQ(g.get(1, 1), 3);
    EXPECT_EQ(timegap_t(1234567).get(-3, 3), 12);
    EXPECT_EQ(timegap_t(1234567).get(-9, 0), 12345670);
    EXPECT_EQ(timegap_t(1234567).get(-9, 1), 0);  // modulo one tick
    EXPECT_EQ(timegap_t(1234567).get(-10, 1), 0);  // k + up finer than a tick
    EXPECT_EQ(timegap_t(1234567).get(-8, 8), 1234567);
    EXPECT_EQ(timegap_t(INT64_MAX).get(12, 0), 0);

    EXPECT_EQ(timegap_t(1, -3).getround(0, 0), 1);
    EXPECT_EQ(timegap_t(-1, -3).getround(0, 0), -1);
    EXPECT_EQ(timegap_t().getround(0, 0), 0);
    EXPECT_EQ(timegap_t(61, 0).getround(0, 1), 1);

    timegap_t::timeparts_t p{9, 9, 9, 9};
    timegap_t().time(p);
    EXPECT_EQ(p.hours + p.minutes + p.seconds + p.milliseconds, 0);
    (timegap_t(3, 2, 25, 0) + timegap_t(7, -3)).time(p);
    EXPECT_EQ(p.hours, 1);
    EXPECT_EQ(p.minutes, 2);
    EXPECT_EQ(p.seconds, 3);
    EXPECT_EQ(p.milliseconds, 7);
}

TEST(TimeGap, Texts) {
    EXPECT_EQ(gap_text(0), "00:00:00.000");
    EXPECT_EQ(gap_text(timegap_t(4, 3, 2, 1).value + 5 * 100000), "1-02:03:04.005");
    EXPECT_EQ(gap_text(-timegap_t(75, 0).value), "-00:01:15.000");
    EXPECT_EQ(gap_text(timegap_t(75, 0).value, true), "01:15.000");
    EXPECT_EQ(gap_text(timegap_t(2, 2).value, true), "02:00:00.000");
    EXPECT_EQ(gap_text(timegap_t(26, 2).value, true), "1-02:00:00.000");
    EXPECT_EQ(gap_text(timegap_t(5, -3).value, true), "00.005");
    std::string s = "x";
    timegap_t(61, 0).toString(s, 12);
    EXPECT_EQ(s, "x12-00:01:01.000");
    timegap_t(timegap_t(3, 0) + timegap_t(1, 3)).addFullTimePartToStr(s);
    EXPECT_EQ(s, "x12-00:01:01.00000:00:03.000");
}

TEST(TimeStamp, NowAndEpoch) {
    EXPECT_EQ(kern::time::unix_epoch_ticks, 6213559680000000000LL);
    timestamp_t const epoch(kern::time::unix_epoch_ticks);
    EXPECT_EQ(epoch.jdn(), 2440588);
    EXPECT_EQ(epoch.weekday(), 3);
    EXPECT_EQ(make(1970, 1, 1), epoch);
    EXPECT_EQ(epoch.unixtime(), 0u);
    EXPECT_EQ(timestamp_t(kern::time::unix_epoch_ticks - 1).unixtime(), 0u);
    EXPECT_EQ(make(2038, 1, 19, 3, 14, 7).unixtime(), 0x7FFFFFFFu);
    EXPECT_EQ(make(2038, 1, 19, 3, 14, 8).unixtime(), 0x7FFFFFFFu);
    EXPECT_EQ(make(2038, 1, 19, 3, 14, 6).unixtime(), 0x7FFFFFFEu);
    EXPECT_EQ(timestamp_t(INT64_MIN).unixtime(), 0u);

    time_t const before = ::time(nullptr);
    timestamp_t const now = kern::time::now();
    time_t const after = ::time(nullptr);
    EXPECT_GE(now.unixtime(), static_cast<q_uint32_t>(before));
    EXPECT_LE(now.unixtime(), static_cast<q_uint32_t>(after));
    // Year 0 means this year.
    int y, m, d;
    now.date(&y, &m, &d);
    EXPECT_EQ(make(0, 3, 4), make(y, 3, 4));
}

// Every day from 0001-01-01 to the last whole day that 64-bit ticks hold
// (2923-10-08) against a day-by-day count of the proleptic calendar, and
// against Boost's calendar from 1400 on.
TEST(TimeStamp, CalendarAgainstReferences) {
    static int const mlen[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    int y = 1, m = 1, d = 1, wd = 0;
    boost::gregorian::date bd(1400, 1, 1);
    long failures = 0;
    q_int64_t const last_day = INT64_MAX / kDay - 1;
    for (q_int64_t day = 0; day <= last_day && failures < 10; ++day) {
        int const sec = static_cast<int>((day * 7919) % 86400);
        timestamp_t const t = make(y, m, d, sec / 3600, sec / 60 % 60, sec % 60);
        timestamp_t::dateparts_t p{};
        t.date(p);
        bool ok = t.value == day * kDay + sec * kSec && t.weekday() == wd &&
                  (day == 0 || (p.year == y && p.month == m && p.day == d)) &&
                  t.get(2, 1) * 3600 + t.get(1, 1) * 60 + t.get(0, 1) == sec;
        if (y >= 1400) {
            ok = ok && bd.year() == y && bd.month() == m && bd.day() == d && t.jdn() == bd.julian_day() &&
                 t.weekday() == (bd.day_of_week() + 6) % 7;
            if (day % 101 == 0) {
                boost::posix_time::ptime const pt(bd, boost::posix_time::seconds(sec));
                ok = ok && ptime_to_qstime(pt) == static_cast<q_uint64_t>(t.value) &&
                     qstime_to_ptime(static_cast<unsigned long>(t.value)) == pt;
            }
            bd += boost::gregorian::days(1);
        }
        if (day % 37 == 5) {
            char want[64];
            std::snprintf(want, sizeof want, "%04d%02d%02d%02d%02d%02d%03d", y, m, d, sec / 3600, sec / 60 % 60,
                          sec % 60, static_cast<int>(day % 1000));
            timestamp_t const ms = t + timegap_t(day % 1000, -3);
            ok = ok && std::string(ms) == want && timestamp_t(std::string(want)) == ms &&
                 ms.db_timestamp() == std::strtoull(want, nullptr, 10);
            std::string r;
            t.rfc1123_date(r);
            ok = ok && (y < 1400 || rfc(r.c_str()) == t);
        }
        if (!ok) {
            ++failures;
            ADD_FAILURE() << "day " << day << " = " << y << "-" << m << "-" << d << " sec " << sec;
        }
        wd = (wd + 1) % 7;
        bool const leap = (y % 4 == 0 && y % 100 != 0) || y % 400 == 0;
        if (++d > mlen[m - 1] + (m == 2 && leap)) {
            d = 1;
            if (++m > 12) {
                m = 1;
                ++y;
            }
        }
    }
    EXPECT_EQ(y * 10000 + m * 100 + d, 29231009);  // the day after the last
    // Before year 1: no year 0.
    timestamp_t::dateparts_t p{};
    make(-1, 12, 31).date(p);
    EXPECT_EQ(p.year, -1);
    EXPECT_EQ(p.day, 31);
    EXPECT_EQ(make(-1, 1, 1).value, -366 * kDay);  // 1 BC is a leap year
    timestamp_t().date(p);
    EXPECT_EQ(p.year + p.month + p.day, 0);
}

TEST(TimeStamp, SeventeenDigitForm) {
    EXPECT_EQ(timestamp_t(std::string("00000000000000000")).value, 0);
    EXPECT_EQ(timestamp_t(std::string("")).value, 0);
    EXPECT_EQ(timestamp_t(std::string("0")).value, 0);
    EXPECT_EQ(std::string(timestamp_t()), "00000000000000000");
    timestamp_t const t(std::string("20141202133600123"));
    EXPECT_EQ(std::string(t), "20141202133600123");
    EXPECT_EQ(t.db_timestamp(), 20141202133600123ULL);
    EXPECT_EQ(t.toReadableString(), "2014/12/02 13:36:00.123");
    EXPECT_EQ(t, make(2014, 12, 2, 13, 36, 0) + timegap_t(123, -3));
    // Fields are not range-checked: 13:60 is 14:00.
    EXPECT_EQ(timestamp_t(std::string("20141202136000000")), make(2014, 12, 2, 14));
    EXPECT_EQ(std::string(make(-12, 1, 1)), "-0120101000000000");

    EXPECT_EQ(digits_error("2014"), "not timestamp \"2014\" because of 17 digits expected, not 4");
    EXPECT_EQ(digits_error("00"), "not timestamp \"00\" because of 17 digits expected, not 2");
    EXPECT_EQ(digits_error("2014120213360012x"),
              "not timestamp \"2014120213360012x\" because of digits expected, not \"x\" (0x78) at position #16");
    EXPECT_EQ(digits_error("-0141202133600123"),
              "not timestamp \"-0141202133600123\" because of digits expected, not \"-\" (0x2d) at position #0");
    EXPECT_EQ(digits_error("2014120\xc3" "133600123"),
              "not timestamp \"2014120\xc3" "133600123\" because of digits expected, not \"\xc3\" (0xc3) at position #7");
}

TEST(TimeStamp, Rfc1123Form) {
    timestamp_t const t = make(2014, 12, 2, 13, 36, 0);
    EXPECT_EQ(rfc("Tue, 02 Dec 2014 13:36:00 GMT"), t);
    EXPECT_EQ(rfc("Tue, 02 Dec 2014 13:36:00"), t);
    EXPECT_EQ(rfc("  Xyz,  02  Dec  2014  13:36:00  GMT "), t);  // week day unchecked, blanks skipped
    EXPECT_EQ(rfc("Tue, 02 Ju 2014 13:36:00"), make(2014, 6, 2, 13, 36, 0));
    EXPECT_EQ(rfc("Tue, 02 J 2014 13:36:00"), make(2014, 1, 2, 13, 36, 0));
    EXPECT_EQ(rfc("Sun, 31 Dec 10000 23:59:59"), make(10000, 12, 31, 23, 59, 59));
    std::string s;
    t.rfc1123_date(s);
    EXPECT_EQ(s, "Tue, 02 Dec 2014 13:36:00 GMT");
    s.clear();
    timestamp_t().rfc1123_basic_date(s);
    EXPECT_EQ(s, "Mon, 00 Jan 0000 00:00:00");

    char const* in = "02 Dec 2014 13:36:00";
    EXPECT_EQ(rfc_error(in), "expected week day at \"02 Dec 2014 13:36:00\" in \"02 Dec 2014 13:36:00\"");
    EXPECT_EQ(rfc_error("Tue,"), "expected week day at \"Tue,\" in \"Tue,\"");
    EXPECT_EQ(rfc_error("Tue, "), "expected day number at \"\" in \"Tue, \"");
    EXPECT_EQ(rfc_error("Tue, 2x Dec 2014 13:36:00"),
              "invalid day number \"2x\" before \"Dec 2014 13:36:00\" in \"Tue, 2x Dec 2014 13:36:00\" because of "
              "illegal char \\x78 in string \"2x\" at position 1");
    EXPECT_EQ(rfc_error("Tue, 02"), "expected month at \"\" in \"Tue, 02\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dez 2014 13:36:00"),
              "invalid month at \"Dez 2014 13:36:00\" in \"Tue, 02 Dez 2014 13:36:00\"");
    EXPECT_EQ(rfc_error("Tue, 02 June 2014 13:36:00"),
              "invalid month at \"June 2014 13:36:00\" in \"Tue, 02 June 2014 13:36:00\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec"), "expected year number at \"\" in \"Tue, 02 Dec\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec -2014 13:36:00"),
              "invalid year number \"-2014\" before \"13:36:00\" in \"Tue, 02 Dec -2014 13:36:00\" because of "
              "illegal char \\x2d in string \"-2014\" at position 0");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 :36:00"),
              "expected hours number at \":36:00\" in \"Tue, 02 Dec 2014 :36:00\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 13"), "expected minutes number at \"\" in \"Tue, 02 Dec 2014 13\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 13:3a:00"),
              "invalid minutes number \"3a\" before \"00\" in \"Tue, 02 Dec 2014 13:3a:00\" because of illegal "
              "char \\x61 in string \"3a\" at position 1");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 13:36:"), "expected seconds number at \"\" in \"Tue, 02 Dec 2014 13:36:\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 13:36:00 UTC"),
              "expected word \"GMT\" or nothing at \"UTC\" in \"Tue, 02 Dec 2014 13:36:00 UTC\"");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 2014 13:36:00 GMT+1"),
              "expected word \"GMT\" or nothing at \"GMT+1\" in \"Tue, 02 Dec 2014 13:36:00 GMT+1\"");
    EXPECT_EQ(rfc_error("Tue, 32 Dec 2014 13:36:00"),
              "invalid date \"Tue, 32 Dec 2014 13:36:00\" because of Day of month value is out of range 1..31");
    EXPECT_EQ(rfc_error("Tue, 00 Dec 2014 13:36:00"),
              "invalid date \"Tue, 00 Dec 2014 13:36:00\" because of Day of month value is out of range 1..31");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 1399 13:36:00"),
              "invalid date \"Tue, 02 Dec 1399 13:36:00\" because of Year is out of valid range: 1400..10000");
    EXPECT_EQ(rfc_error("Tue, 02 Dec 10001 13:36:00"),
              "invalid date \"Tue, 02 Dec 10001 13:36:00\" because of Year is out of valid range: 1400..10000");
    EXPECT_EQ(rfc_error("Fri, 29 Feb 2013 13:36:00"),
              "invalid date \"Fri, 29 Feb 2013 13:36:00\" because of Day of month is not valid for year");
    EXPECT_EQ(rfc_error("Sun, 29 Feb 2100 13:36:00"),
              "invalid date \"Sun, 29 Feb 2100 13:36:00\" because of Day of month is not valid for year");
    EXPECT_EQ(rfc_error("Tue, 29 Feb 2000 13:36:00"), "");
}

TEST(LocalTime, OffsetsUnderExplicitZones) {
    long const winter = make(2014, 12, 2, 13, 36).unixtime();
    long const summer = make(2014, 7, 2, 13, 36).unixtime();
    {
        tz_guard_t tz("CET-1CEST,M3.5.0,M10.5.0/3");
        EXPECT_EQ(localtime_t::TZ(winter), timegap_t(-1, 2));
        EXPECT_EQ(localtime_t::TZ(summer), timegap_t(-2, 2));
        // One second before and at the spring change (01:00 UTC, 30 March 2014).
        long const change = make(2014, 3, 30, 1).unixtime();
        EXPECT_EQ(localtime_t::TZ(change - 1), timegap_t(-1, 2));
        EXPECT_EQ(localtime_t::TZ(change), timegap_t(-2, 2));
        localtime_t const lt(make(2014, 12, 2, 13, 36));
        std::string s;
        lt.rfc1123_date(s);
        EXPECT_EQ(s, "Tue, 02 Dec 2014 14:36:00 +0100");
    }
    {
        tz_guard_t tz("EST5EDT,M3.2.0,M11.1.0");
        std::string s;
        localtime_t(make(2014, 7, 2, 13, 36)).rfc1123_date(s);
        EXPECT_EQ(s, "Wed, 02 Jul 2014 09:36:00 -0400");
        // Local time already in the old year: the day term is one whole day.
        EXPECT_EQ(localtime_t::TZ(make(2015, 1, 1, 2).unixtime()), timegap_t(5, 2));
    }
    {
        tz_guard_t tz("<+14>-14");
        EXPECT_EQ(localtime_t::TZ(make(2014, 12, 31, 12).unixtime()), timegap_t(-14, 2));
        EXPECT_EQ(localtime_t::TZ(make(2016, 12, 31, 12).unixtime()), timegap_t(-14, 2));  // leap year
    }
    {
        tz_guard_t tz("IST-5:30");
        std::string s;
        localtime_t(make(2014, 12, 2)).rfc1123_timezone(s);
        EXPECT_EQ(s, "+0530");
    }
    std::string s;
    localtime_t(timestamp_t(), timegap_t()).rfc1123_timezone(s);
    localtime_t(timestamp_t(), timegap_t(90, 1)).rfc1123_timezone(s);
    EXPECT_EQ(s, "+0000-0130");
}

TEST(TimeStamp, PtimeConversions) {
    namespace pt = boost::posix_time;
    boost::gregorian::date const d(2014, 12, 2);
    EXPECT_EQ(ptime_to_qstime(pt::ptime(d, pt::hours(13) + pt::minutes(36) + pt::millisec(999))),
              static_cast<q_uint64_t>(make(2014, 12, 2, 13, 36).value));
    EXPECT_EQ(ptime_to_qstime(pt::ptime(boost::date_time::pos_infin)), static_cast<q_uint64_t>(INT64_MAX));
    EXPECT_EQ(ptime_to_qstime(pt::ptime(boost::date_time::neg_infin)), static_cast<q_uint64_t>(make(1400, 1, 1).value));
    EXPECT_EQ(ptime_to_qstime(pt::ptime(boost::date_time::not_a_date_time)),
              static_cast<q_uint64_t>(make(9999, 12, 31, 23, 59, 59).value));
    EXPECT_EQ(qstime_to_ptime(static_cast<unsigned long>(INT64_MAX)), pt::ptime(boost::date_time::pos_infin));
    EXPECT_EQ(qstime_to_ptime(static_cast<unsigned long>((make(2014, 12, 2, 1, 2, 3) + timegap_t(5, -3)).value)),
              pt::ptime(d, pt::hours(1) + pt::minutes(2) + pt::seconds(3)));
    EXPECT_THROW(qstime_to_ptime(0), boost::gregorian::bad_day_of_month);
    EXPECT_THROW(qstime_to_ptime(static_cast<unsigned long>(make(1399, 12, 31).value)), boost::gregorian::bad_year);
}

TEST(TimeStamp, AddMonthsAndArithmetic) {
    timestamp_t::dateparts_t p{2014, 1, 31};
    p.add_monthes(1);
    EXPECT_EQ(p.month * 100 + p.day, 228);
    p = {2012, 1, 31};
    p.add_monthes(1);
    EXPECT_EQ(p.month * 100 + p.day, 229);
    p.add_monthes(-14);
    EXPECT_EQ(p.year * 10000 + p.month * 100 + p.day, 20101229);
    p = {1, 1, 1};
    p.add_monthes(-1);
    EXPECT_EQ(p.year, -1);
    EXPECT_EQ(p.month, 12);
    p.add_monthes(1);
    EXPECT_EQ(p.year * 100 + p.month, 101);

    timestamp_t const a = make(2014, 12, 2);
    timestamp_t b = a + timegap_t(1, 3);
    EXPECT_EQ(b - a, timegap_t(1, 3));
    EXPECT_TRUE(a < b && b > a && a != b && a <= a && b >= b);
    b -= timegap_t(2, 3);
    EXPECT_EQ(a - b, timegap_t(1, 3));
    EXPECT_EQ(timegap_t(1, 0) * 3 - timegap_t(2, 0), timegap_t(1, 0));
    EXPECT_TRUE(timegap_t::infinite().is_infinite() && timestamp_t::infinite().is_infinite());
    EXPECT_EQ((timestamp_t::infinite() + timegap_t(1)).value, INT64_MIN);  // wraps, no trap
}

}  // namespace
