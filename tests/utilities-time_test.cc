// Tests of the duration and weekday texts.
#include <gtest/gtest.h>

#include <string>

#include "time-objs.h"
#include "utilities.h"

namespace {

std::string uptime(timegap_t g) {
    std::string s = "up ";
    format_uptime(g, s);
    return s;
}

TEST(DurationTexts, ElapsedTime) {
    EXPECT_EQ(elapsed_time(timegap_t()), "00.000");
    EXPECT_EQ(elapsed_time(timegap_t(61005, -3)), "01:01.500");  // trailing zeros, kept
    EXPECT_EQ(elapsed_time(timegap_t(12, -3)), "00.120");
    EXPECT_EQ(elapsed_time(timegap_t(999, -3)), "00.999");
    EXPECT_EQ(elapsed_time(timegap_t(1, 3)), "1-00:00:00.000");
    EXPECT_EQ(elapsed_time(timegap_t(4, 3, 2, 123) + timegap_t(500, -3)), "123-02:03:04.500");
    EXPECT_EQ(elapsed_time(timegap_t(0, 0, 10, 0)), "10:00:00.000");
    EXPECT_EQ(elapsed_time(timegap_t(9, 59, 0, 0)), "59:09.000");
    // From a stamp a few seconds ago: the text grows with the clock.
    std::string const since = elapsed_time(kern::time::now() - timegap_t(5, 0));
    EXPECT_TRUE(since.compare(0, 3, "05.") == 0 || since.compare(0, 3, "06.") == 0) << since;
}

TEST(DurationTexts, UptimeAndSeconds) {
    EXPECT_EQ(uptime(timegap_t(3661, 0)), "up 01:01:01");
    EXPECT_EQ(uptime(timegap_t(5, 0, 0, 2)), "up 02-00:00:05");
    EXPECT_EQ(uptime(timegap_t(0, 0, 0, 123)), "up 23-00:00:00");
    EXPECT_EQ(uptime(timegap_t(0, 0, 0, 100)), "up 00:00:00");  // day count cut to "00"
    EXPECT_EQ(uptime(timegap_t()), "up 00:00:00");

    EXPECT_EQ(str_time(0), "00:00");
    EXPECT_EQ(str_time(61), "01:01");
    EXPECT_EQ(str_time(3661), "01:01:01");
    EXPECT_EQ(str_time(90061), "1-01:01:01");
    EXPECT_EQ(str_time(86401), "1-00:01");  // zero hour dropped after days, kept
    EXPECT_EQ(str_time(86400UL * 400 + 23 * 3600 + 59 * 60 + 59), "400-23:59:59");

    long const now = static_cast<long>(kern::time::now().unixtime());
    std::string const t = time_string(now - 90061);
    EXPECT_TRUE(t == "1-01:01:01" || t == "1-01:01:02") << t;
    std::string const z = time_string(now - 86401);
    EXPECT_TRUE(z == "1-00:01" || z == "1-00:02") << z;
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
    EXPECT_EQ(string_to_wday("SUNDAY"), 6);
    EXPECT_EQ(string_to_wday("tHu"), 3);
    EXPECT_EQ(string_to_wday("sA"), 5);
    EXPECT_EQ(string_to_wday("Sund"), -1);
    EXPECT_EQ(string_to_wday("S"), -1);
    EXPECT_EQ(string_to_wday(""), -1);
    EXPECT_EQ(string_to_wday(nullptr), -1);
}

TEST(DurationTexts, StampTextFields) {
    EXPECT_EQ(ts_to_readable_date("20141202133600123"), "2014/12/02 13:36:00.123");
    EXPECT_EQ(ts_to_date("20141202133600123"), "02/12/2014 13:36:00.123");
    EXPECT_EQ(ts_to_readable_date(std::string(timestamp_t(std::string("20141202133600123")))),
              timestamp_t(std::string("20141202133600123")).toReadableString());
    EXPECT_EQ(ts_to_date("2014"), "2014");
}

}  // namespace
