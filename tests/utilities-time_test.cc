// Tests of the duration and weekday texts.
#include <gtest/gtest.h>

#include <string>

#include "time-objs.h"
#include "utilities.h"

namespace {

TEST(DurationTexts, ElapsedTime) {
    struct { timegap_t gap; char const* text; } const cases[] = {
        {timegap_t(), "00.000"}, {timegap_t(61005, -3), "01:01.500"},  // trailing zeros kept
        {timegap_t(12, -3), "00.120"}, {timegap_t(999, -3), "00.999"}, {timegap_t(1, 3), "1-00:00:00.000"},
        {timegap_t(4, 3, 2, 123) + timegap_t(500, -3), "123-02:03:04.500"},
        {timegap_t(0, 0, 10, 0), "10:00:00.000"}, {timegap_t(9, 59, 0, 0), "59:09.000"},
        {-timegap_t(1500, -3), "-01.500"}, {-timegap_t(1, 3), "-1-00:00:00.000"}};  // a clock stepped back
    for (auto const& c : cases) EXPECT_EQ(elapsed_time(c.gap), c.text);
    EXPECT_EQ(elapsed_time(timegap_t(INT64_MIN)), "-" + elapsed_time(timegap_t(INT64_MAX)));  // one tick apart
    // From a stamp a few seconds ago: the text grows with the clock.
    std::string const since = elapsed_time(kern::time::now() - timegap_t(5, 0));
    EXPECT_TRUE(since.compare(0, 3, "05.") == 0 || since.compare(0, 3, "06.") == 0) << since;
}

TEST(DurationTexts, UptimeAndSeconds) {
    struct { timegap_t gap; char const* text; } const up[] = {
        {timegap_t(3661, 0), "up 01:01:01"}, {timegap_t(5, 0, 0, 2), "up 02-00:00:05"},
        {timegap_t(0, 0, 0, 123), "up 23-00:00:00"}, {timegap_t(5, 0, 0, 100), "up 00-00:00:05"},  // days cut to "00"
        {timegap_t(), "up 00:00:00"}, {-timegap_t(3661, 0), "up -01:01:01"}, {-timegap_t(5, 0, 0, 102), "up -02-00:00:05"}};
    for (auto const& c : up) {
        std::string s = "up ";  // appended to, never cleared
        format_uptime(c.gap, s);
        EXPECT_EQ(s, c.text);
    }
    struct { unsigned long secs; char const* text; } const st[] = {
        {0, "00:00"}, {61, "01:01"}, {3661, "01:01:01"}, {90061, "1-01:01:01"},
        {86401, "1-00:01"},  // the zero hour is dropped after days
        {86400UL * 400 + 23 * 3600 + 59 * 60 + 59, "400-23:59:59"}};
    for (auto const& c : st) EXPECT_EQ(str_time(c.secs), c.text);

    long const now = static_cast<long>(kern::time::now().unixtime());
    std::string const t = time_string(now - 90061);
    EXPECT_TRUE(t == "1-01:01:01" || t == "1-01:01:02") << t;
    std::string const z = time_string(now - 86401);
    EXPECT_TRUE(z == "1-00:01" || z == "1-00:02") << z;
    std::string const ahead = time_string(now + 90061);  // shrinks as the clock goes on
    EXPECT_TRUE(ahead == "-1-01:01:01" || ahead == "-1-01:01:00") << ahead;
}

TEST(DurationTexts, Weekdays) {
    char const* const full[] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
    for (int i = 0; i < 7; ++i) {
        EXPECT_STREQ(wday_to_string(i), full[i]);
        EXPECT_EQ(string_to_wday(full[i]), i);
        EXPECT_EQ(string_to_wday(std::string(full[i], 3).c_str()), i);
        EXPECT_EQ(string_to_wday(std::string(full[i], 2).c_str()), i);
    }
    EXPECT_STREQ(wday_to_string(7), "Error");
    EXPECT_STREQ(wday_to_string(-1), "Error");
    struct { char const* in; int day; } const odd[] = {
        {"SUNDAY", 6}, {"tHu", 3}, {"sA", 5}, {"Sund", -1}, {"S", -1}, {"", -1}, {nullptr, -1}};
    for (auto const& c : odd) EXPECT_EQ(string_to_wday(c.in), c.day) << (c.in ? c.in : "(null)");
}

TEST(DurationTexts, StampTextFields) {
    EXPECT_EQ(ts_to_readable_date("20141202133600123"), "2014/12/02 13:36:00.123");
    EXPECT_EQ(ts_to_date("20141202133600123"), "02/12/2014 13:36:00.123");
    EXPECT_EQ(ts_to_date("2014"), "2014");
}

}  // namespace
