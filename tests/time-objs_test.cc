// Tests of time intervals, time stamps and their textual forms.
#include "time-objs.h"

#include <gtest/gtest.h>
#include <time.h>

#include <boost/date_time/gregorian/gregorian.hpp>
#include <boost/date_time/posix_time/posix_time.hpp>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "exceptions.h"

namespace {

constexpr q_int64_t kSec = 100000000;
constexpr q_int64_t kDay = 86400 * kSec;

timestamp_t make(int y, int mo, int d, int h = 0, int mi = 0, int s = 0) {
    return timestamp_t().init(s, mi, h, d, mo, y);
}
q_uint64_t qs(timestamp_t t) { return static_cast<q_uint64_t>(t.value); }

// The reason of what reading text as a stamp throws as Shell, or "".
template <typename Shell = number_format_exception_shell_t, typename T>
std::string reason_of(T const& text) {
    try {
        timestamp_t t(text);
    } catch (Shell const& e) {
        return e.what();
    }
    return "";
}

// Sets TZ (unsets it for null) and makes the C library read it again.
void set_tz(char const* tz) {
    tz != nullptr ? setenv("TZ", tz, 1) : unsetenv("TZ");
    tzset();
}

TEST(TimeGap, UnitsGettersAndTexts) {
    for (auto [k, f] : {std::pair{-9, -10LL}, {-8, 1LL}, {-3, 100000LL}, {1, 6000000000LL}, {3, kDay}, {5, kDay * 100}})
        EXPECT_EQ(timegap_t::factor(k), f) << k;
    struct { long v; int k; q_int64_t ticks; } const units[] = {
        {1, 0, kSec}, {1, 1, 60 * kSec}, {1, 4, 10 * kDay}, {1999, -9, 199}, {-1999, -9, -199}};  // ns truncate
    for (auto const& u : units) EXPECT_EQ(timegap_t(u.v, u.k).value, u.ticks) << u.v << " " << u.k;
    EXPECT_EQ(timegap_t(5, 6, 7, 8).value, 5 * kSec + 6 * 60 * kSec + 7 * 3600 * kSec + 8 * kDay);

    // up: modulo one tick, or k + up finer than a tick, leaves nothing.
    q_int64_t const g = timegap_t(2, 3, 26, 0).value;  // 1 day 2 h 3 min 2 s
    struct { q_int64_t ticks; int k; unsigned up; q_int64_t want; } const gets[] = {
        {60 * kSec, 0, 0, 60}, {90 * kSec, 0, 1, 30}, {g, 2, 1, 2}, {g, 3, 0, 1}, {g, 1, 1, 3}, {1234567, -3, 3, 12},
        {1234567, -9, 0, 12345670}, {1234567, -9, 1, 0}, {1234567, -10, 1, 0}, {1234567, -8, 8, 1234567},
        {INT64_MAX, 12, 0, 0}};
    for (auto const& c : gets) EXPECT_EQ(timegap_t(c.ticks).get(c.k, c.up), c.want) << c.ticks << " " << c.k;
    for (auto [gap, up, want] : {std::tuple{timegap_t(1, -3), 0u, 1LL}, {timegap_t(-1, -3), 0u, -1LL},
                                 {timegap_t(), 0u, 0LL}, {timegap_t(61, 0), 1u, 1LL}})
        EXPECT_EQ(gap.getround(0, up), want) << gap.value;
    timegap_t::timeparts_t p{9, 9, 9, 9}, q{9, 9, 9, 9};
    timegap_t().time(p);
    (timegap_t(3, 2, 25, 0) + timegap_t(7, -3)).time(q);
    EXPECT_EQ(std::vector<int>({p.hours, p.minutes, p.seconds, p.milliseconds, q.hours, q.minutes, q.seconds,
                                q.milliseconds}), std::vector<int>({0, 0, 0, 0, 1, 2, 3, 7}));

    struct { timegap_t gap; bool shrt; char const* text; } const texts[] = {
        {timegap_t(), false, "00:00:00.000"}, {timegap_t(4, 3, 2, 1) + timegap_t(5, -3), false, "1-02:03:04.005"},
        {-timegap_t(75, 0), false, "-00:01:15.000"}, {timegap_t(75, 0), true, "01:15.000"},
        {timegap_t(2, 2), true, "02:00:00.000"}, {timegap_t(26, 2), true, "1-02:00:00.000"},
        {timegap_t(5, -3), true, "00.005"}};
    for (auto const& t : texts) {
        std::string s = "junk";  // replaced
        t.shrt ? t.gap.toShortString(s) : t.gap.toString(s);
        EXPECT_EQ(s, t.text);
    }
    std::string s = "x";  // appended to
    timegap_t(61, 0).toString(s, 12);
    timegap_t(timegap_t(3, 0) + timegap_t(1, 3)).addFullTimePartToStr(s);
    EXPECT_EQ(s, "x12-00:01:01.00000:00:03.000");
}

TEST(TimeStamp, NowEpochAndCalendarAgainstReferences) {
    timestamp_t const epoch(kern::time::unix_epoch_ticks);
    for (auto [t, want] : {std::pair{epoch, 0u}, {epoch - timegap_t(1), 0u}, {timestamp_t(INT64_MIN), 0u},
                           {make(2038, 1, 19, 3, 14, 6), 0x7FFFFFFEu}, {make(2038, 1, 19, 3, 14, 7), 0x7FFFFFFFu},
                           {make(2038, 1, 19, 3, 14, 8), 0x7FFFFFFFu}})
        EXPECT_EQ(t.unixtime(), want) << t.value;
    // Read against the same clock: time() follows the coarse clock, which
    // may still show the last second when the precise one has passed it.
    auto const seconds = [] {
        timespec ts;
        clock_gettime(CLOCK_REALTIME, &ts);
        return static_cast<q_uint32_t>(ts.tv_sec);
    };
    q_uint32_t const before = seconds();
    timestamp_t const now = kern::time::now();
    EXPECT_TRUE(now.unixtime() >= before && now.unixtime() <= seconds()) << now.unixtime();
    int y, m, d;
    now.date(&y, &m, &d);
    EXPECT_EQ(make(0, 3, 4), make(y, 3, 4));  // year 0 means this year

    // From 0001-01-01 (a Monday) to the last whole day in 64-bit ticks (2923-10-08), counted day by day in
    // the proleptic calendar; the days around each month's end and every 997th are checked, against Boost from 1400.
    static int const mlen[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    y = m = d = 1;
    for (q_int64_t day = 0; day <= INT64_MAX / kDay - 1; ++day) {
        int const last = mlen[m - 1] + (m == 2 && ((y % 4 == 0 && y % 100 != 0) || y % 400 == 0));
        if (d <= 1 || d >= last - 1 || day % 997 == 0) {
            int const sec = static_cast<int>((day * 7919) % 86400);
            timestamp_t const t = make(y, m, d, sec / 3600, sec / 60 % 60, sec % 60);
            timestamp_t const ms = t + timegap_t(day % 1000, -3);
            timestamp_t::dateparts_t p{};
            t.date(p);
            char want[64];
            std::snprintf(want, sizeof want, "%04d%02d%02d%02d%02d%02d%03d", y, m, d, sec / 3600, sec / 60 % 60,
                          sec % 60, static_cast<int>(day % 1000));
            bool ok = t.value == day * kDay + sec * kSec && t.weekday() == day % 7 &&
                      t.get(2, 1) * 3600 + t.get(1, 1) * 60 + t.get(0, 1) == sec &&
                      (day == 0 || (p.year == y && p.month == m && p.day == d && std::string(ms) == want &&
                                    timestamp_t(std::string(want)) == ms &&
                                    ms.db_timestamp() == std::strtoull(want, nullptr, 10)));
            if (y >= 1400) {
                boost::gregorian::date const bd(y, m, d);
                boost::posix_time::ptime const pt(bd, boost::posix_time::seconds(sec));
                ok = ok && t.jdn() == bd.julian_day() && t.weekday() == (bd.day_of_week() + 6) % 7 &&
                     ptime_to_qstime(pt) == qs(t) && qstime_to_ptime(qs(t)) == pt;
            }
            ASSERT_TRUE(ok) << "day " << day << " = " << y << "-" << m << "-" << d << " sec " << sec;
        }
        if (++d > last) {
            d = 1;
            y += m == 12;
            m = m % 12 + 1;
        }
    }
    EXPECT_EQ(y * 10000 + m * 100 + d, 29231009);  // the day after the last
    EXPECT_EQ(make(-1, 1, 1).value, -366 * kDay);   // no year 0 before year 1, and 1 BC is a leap year
    int y0 = 9, m0 = 9, d0 = 9;
    make(-1, 12, 31).date(&y, &m, &d);
    timestamp_t().date(&y0, &m0, &d0);  // all fields 0 for tick 0
    EXPECT_EQ(std::vector<int>({y, m, d, y0, m0, d0}), std::vector<int>({-1, 12, 31, 0, 0, 0}));
}

TEST(TimeStamp, SeventeenDigitAndRfc1123Forms) {
    for (std::string const zero : {"00000000000000000", "", "0"}) EXPECT_EQ(timestamp_t(zero).value, 0) << zero;
    EXPECT_EQ(std::string(timestamp_t()), "00000000000000000");
    timestamp_t const t(std::string("20141202133600123"));
    EXPECT_EQ(t.toReadableString(), "2014/12/02 13:36:00.123");
    EXPECT_EQ(t, make(2014, 12, 2, 13, 36, 0) + timegap_t(123, -3));
    EXPECT_EQ(timestamp_t(std::string("20141202136000000")), make(2014, 12, 2, 14));  // unchecked: 13:60 is 14:00
    EXPECT_EQ(std::string(make(-12, 1, 1)), "-0120101000000000");

    std::pair<std::string, char const*> const bad[] = {
        {"2014", "17 digits expected, not 4"}, {"00", "17 digits expected, not 2"},
        {"2014120213360012x", "digits expected, not \"x\" (0x78) at position #16"},
        {"-0141202133600123", "digits expected, not \"-\" (0x2d) at position #0"},
        {"2014120\xc3" "133600123", "digits expected, not \"\xc3\" (0xc3) at position #7"}};
    for (auto const& b : bad) EXPECT_EQ(reason_of(b.first), "not timestamp \"" + b.first + "\" because of " + b.second);

    // The week day is not checked, blanks are skipped, a month name may be cut.
    timestamp_t const r = make(2014, 12, 2, 13, 36, 0);
    for (auto [in, want] : {std::pair{"Tue, 02 Dec 2014 13:36:00 GMT", r}, {"Tue, 02 Dec 2014 13:36:00", r},
                            {"  Xyz,  02  Dec  2014  13:36:00  GMT ", r}, {"Tue, 02 J 2014 00:00:00", make(2014, 1, 2)},
                            {"Tue, 02 Ju 2014 00:00:00", make(2014, 6, 2)},
                            {"Sun, 31 Dec 10000 23:59:59", make(10000, 12, 31, 23, 59, 59)}})
        EXPECT_EQ(timestamp_t(lstr_t(in)), want) << in;
    std::string s;
    r.rfc1123_date(s);
    timestamp_t().rfc1123_basic_date(s);
    EXPECT_EQ(s, "Tue, 02 Dec 2014 13:36:00 GMTMon, 00 Jan 0000 00:00:00");

    std::string const bc = " because of illegal char \\x", dt = "invalid date \"$\" because of ";
    std::string const day = dt + "Day of month value is out of range 1..31";
    std::string const year = dt + "Year is out of valid range: 1400..10000";
    std::string const feb = dt + "Day of month is not valid for year";
    std::pair<char const*, std::string> const rfc_bad[] = {  // "$" stands for the whole input
        {"02 Dec 2014 13:36:00", "expected week day at \"02 Dec 2014 13:36:00\" in \"$\""},
        {"Tue, ", "expected day number at \"\" in \"$\""},
        {"Tue, 2x Dec 2014 13:36:00", "invalid day number \"2x\" before \"Dec 2014 13:36:00\" in \"$\"" + bc +
                                          "78 in string \"2x\" at position 1"},
        {"Tue, 02", "expected month at \"\" in \"$\""}, {"Tue, 02 Dec", "expected year number at \"\" in \"$\""},
        {"Tue, 02 Dez 2014 13:36:00", "invalid month at \"Dez 2014 13:36:00\" in \"$\""},
        {"Tue, 02 Dec -2014 13:36:00", "invalid year number \"-2014\" before \"13:36:00\" in \"$\"" + bc +
                                           "2d in string \"-2014\" at position 0"},
        {"Tue, 02 Dec 2014 :36:00", "expected hours number at \":36:00\" in \"$\""},
        {"Tue, 02 Dec 2014 13", "expected minutes number at \"\" in \"$\""},
        {"Tue, 02 Dec 2014 13:3a:00", "invalid minutes number \"3a\" before \"00\" in \"$\"" + bc +
                                          "61 in string \"3a\" at position 1"},
        {"Tue, 02 Dec 2014 13:36:", "expected seconds number at \"\" in \"$\""},
        {"Tue, 02 Dec 2014 13:36:00 UTC", "expected word \"GMT\" or nothing at \"UTC\" in \"$\""},
        {"Tue, 32 Dec 2014 13:36:00", day}, {"Tue, 02 Dec 1399 13:36:00", year}, {"Fri, 29 Feb 2013 13:36:00", feb},
        {"Sun, 29 Feb 2100 13:36:00", feb},
        {"Tue, 29 Feb 2000 13:36:00", ""}};
    for (auto const& b : rfc_bad) {
        std::string want = b.second;
        if (std::size_t const at = want.find('$'); at != std::string::npos) want.replace(at, 1, b.first);
        EXPECT_EQ(reason_of<timestamp_format_exception_shell_t>(lstr_t(b.first)), want);
    }
}

TEST(TimeStamp, LocalZonesPtimeMonthsAndArithmetic) {
    std::string const saved = std::getenv("TZ") != nullptr ? std::getenv("TZ") : "";
    std::string s;
    set_tz("CET-1CEST,M3.5.0,M10.5.0/3");
    EXPECT_EQ(localtime_t::TZ(make(2014, 12, 2, 13, 36).unixtime()), timegap_t(-1, 2));
    EXPECT_EQ(localtime_t::TZ(make(2014, 7, 2, 13, 36).unixtime()), timegap_t(-2, 2));
    EXPECT_EQ(localtime_t::TZ(make(2014, 3, 30, 1).unixtime() - 1), timegap_t(-1, 2));  // the spring change,
    EXPECT_EQ(localtime_t::TZ(make(2014, 3, 30, 1).unixtime()), timegap_t(-2, 2));      // 01:00 UTC
    localtime_t(make(2014, 12, 2, 13, 36)).rfc1123_date(s);
    set_tz("EST5EDT,M3.2.0,M11.1.0");
    localtime_t(make(2014, 7, 2, 13, 36)).rfc1123_date(s);
    EXPECT_EQ(localtime_t::TZ(make(2015, 1, 1, 2).unixtime()), timegap_t(5, 2));  // local time still in the old year
    set_tz("<+14>-14");
    EXPECT_EQ(localtime_t::TZ(make(2014, 12, 31, 12).unixtime()), timegap_t(-14, 2));
    EXPECT_EQ(localtime_t::TZ(make(2016, 12, 31, 12).unixtime()), timegap_t(-14, 2));  // leap year
    set_tz("IST-5:30");
    localtime_t(make(2014, 12, 2)).rfc1123_timezone(s);
    set_tz(saved.empty() ? nullptr : saved.c_str());
    localtime_t(timestamp_t(), timegap_t()).rfc1123_timezone(s);
    localtime_t(timestamp_t(), timegap_t(90, 1)).rfc1123_timezone(s);
    EXPECT_EQ(s, "Tue, 02 Dec 2014 14:36:00 +0100" "Wed, 02 Jul 2014 09:36:00 -0400" "+0530+0000-0130");

    using namespace boost::posix_time;
    boost::gregorian::date const d(2014, 12, 2);  // fractions of a second are dropped both ways
    EXPECT_EQ(ptime_to_qstime(ptime(d, hours(13) + minutes(36) + millisec(999))), qs(make(2014, 12, 2, 13, 36)));
    EXPECT_EQ(ptime_to_qstime(ptime(boost::date_time::pos_infin)), static_cast<q_uint64_t>(INT64_MAX));
    EXPECT_EQ(ptime_to_qstime(ptime(boost::date_time::neg_infin)), qs(make(1400, 1, 1)));
    EXPECT_EQ(ptime_to_qstime(ptime(boost::date_time::not_a_date_time)), qs(make(9999, 12, 31, 23, 59, 59)));
    EXPECT_EQ(qstime_to_ptime(static_cast<unsigned long>(INT64_MAX)), ptime(boost::date_time::pos_infin));
    EXPECT_EQ(qstime_to_ptime(qs(make(2014, 12, 2, 1, 2, 3) + timegap_t(5, -3))), ptime(d, time_duration(1, 2, 3)));
    EXPECT_THROW(qstime_to_ptime(0), boost::gregorian::bad_day_of_month);
    EXPECT_THROW(qstime_to_ptime(qs(make(1399, 12, 31))), boost::gregorian::bad_year);

    // Months carry into the year, either way, then the day is clamped.
    struct { timestamp_t::dateparts_t from; int n; timestamp_t::dateparts_t to; } const months[] = {
        {{2014, 1, 31}, 1, {2014, 2, 28}}, {{2012, 1, 31}, 1, {2012, 2, 29}}, {{2012, 2, 29}, -14, {2010, 12, 29}},
        {{1, 1, 1}, -1, {-1, 12, 1}}, {{-1, 12, 1}, 1, {1, 1, 1}}};
    for (auto const& c : months) {
        timestamp_t::dateparts_t p = c.from;
        p.add_monthes(c.n);
        EXPECT_EQ(std::vector<int>({p.year, p.month, p.day}), std::vector<int>({c.to.year, c.to.month, c.to.day}));
    }

    timestamp_t const a = make(2014, 12, 2);
    timestamp_t b = a + timegap_t(1, 3);
    b -= timegap_t(3, 3);
    EXPECT_EQ(a - b, timegap_t(2, 3));
    EXPECT_EQ(timegap_t(1, 0) * 3 - timegap_t(2, 0), timegap_t(1, 0));
    EXPECT_EQ((timestamp_t::infinite() + timegap_t(1)).value, INT64_MIN);  // wraps, no trap
}

}  // namespace
