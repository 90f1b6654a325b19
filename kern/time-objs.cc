// time-objs.cc: time intervals, time stamps and their textual forms.
#include "time-objs.h"

#include <time.h>

#include <boost/date_time/gregorian/gregorian_types.hpp>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "exceptions.h"
#include "numeric-triades.h"
#include "numstrings.h"

using kern::time::ticks_per_second;
using kern::time::unix_epoch_ticks;

namespace {

constexpr q_int64_t k_minute = 60 * ticks_per_second;
constexpr q_int64_t k_hour = 60 * k_minute;
constexpr q_int64_t k_day = 24 * k_hour;
constexpr q_int64_t k_msec = ticks_per_second / 1000;
// Julian Day Number of 0001-01-01.
constexpr q_int64_t k_jdn_base = 1721426;

// The unit table, k = k_finest .. k_coarsest. Past either end the factor
// no longer fits in 64 bits.
constexpr int k_finest = -26;
constexpr int k_coarsest = 9;

struct unit_table_t {
    q_int64_t f[k_coarsest - k_finest + 1];

    constexpr unit_table_t() : f() {
        constexpr q_int64_t coarse[] = {1, 10, 100, 1000, 10000, 100000, 1000000, 10000000,
                                        ticks_per_second, k_minute, k_hour, k_day};
        for (int k = -8; k <= 3; ++k) f[k - k_finest] = coarse[k + 8];
        for (int k = 4; k <= k_coarsest; ++k) f[k - k_finest] = f[k - 1 - k_finest] * 10;
        // Finer than a tick: minus the number of units per tick.
        q_int64_t per_tick = 1;
        for (int k = -9; k >= k_finest; --k) {
            per_tick *= 10;
            f[k - k_finest] = -per_tick;
        }
    }
    constexpr q_int64_t operator[](int k) const { return f[k - k_finest]; }
};
constexpr unit_table_t k_units;

// Overflow wraps, as in the machine's arithmetic, without trapping.
inline q_int64_t wrap_mul(q_int64_t a, q_int64_t b) noexcept {
    return static_cast<q_int64_t>(static_cast<q_uint64_t>(a) * static_cast<q_uint64_t>(b));
}
inline q_int64_t wrap_add(q_int64_t a, q_int64_t b) noexcept {
    return static_cast<q_int64_t>(static_cast<q_uint64_t>(a) + static_cast<q_uint64_t>(b));
}
inline q_int64_t wrap_sub(q_int64_t a, q_int64_t b) noexcept {
    return static_cast<q_int64_t>(static_cast<q_uint64_t>(a) - static_cast<q_uint64_t>(b));
}
// 10^n modulo 2^64.
q_int64_t wrap_pow10(long n) noexcept {
    q_uint64_t p = 1;
    while (n-- > 0) p *= 10;
    return static_cast<q_int64_t>(p);
}

// The parts of an interval's magnitude.
struct gap_parts_t {
    bool negative;
    q_uint64_t days;
    int h, m, s, ms;
};

gap_parts_t split_gap(q_int64_t v) noexcept {
    gap_parts_t r;
    r.negative = v < 0;
    q_uint64_t u = r.negative ? 0 - static_cast<q_uint64_t>(v) : static_cast<q_uint64_t>(v);
    r.days = u / k_day;
    u %= k_day;
    r.h = static_cast<int>(u / k_hour);
    u %= k_hour;
    r.m = static_cast<int>(u / k_minute);
    u %= k_minute;
    r.s = static_cast<int>(u / ticks_per_second);
    r.ms = static_cast<int>(u % ticks_per_second / k_msec);
    return r;
}

inline char* put2(char* p, int v) noexcept {
    return p + decimal_convertor_t<int, 2>::store0(v, p);
}
inline char* put3(char* p, int v) noexcept {
    *p = static_cast<char>('0' + v / 100);
    return put2(p + 1, v % 100);
}
inline char* put4(char* p, int v) noexcept {
    put2(p + 2, v);  // put2 divides its own copy
    return put2(p, v / 100) + 2;
}

// hh:mm:ss.mmm, twelve characters.
char* put_time(char* p, int h, int m, int s, int ms) noexcept {
    p = put2(p, h);
    *p++ = ':';
    p = put2(p, m);
    *p++ = ':';
    p = put2(p, s);
    *p++ = '.';
    return put3(p, ms);
}

// A time stamp's calendar fields and time of day.
struct stamp_fields_t {
    int y, mo, d, h, mi, s, ms;

    explicit stamp_fields_t(timestamp_t const& t) noexcept {
        t.date(&y, &mo, &d);
        h = static_cast<int>(t.get(2, 1));
        mi = static_cast<int>(t.get(1, 1));
        s = static_cast<int>(t.get(0, 1));
        ms = static_cast<int>(t.get(-3, 3));
    }
    // Fits the fixed-width layouts: a four-digit year and no negative part
    // (stamps before year 1 have negative times of day).
    bool plain() const noexcept { return y >= 0 && y <= 9999 && h >= 0 && mi >= 0 && s >= 0 && ms >= 0; }
};

char const* const k_wday_abbr[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
char const* const k_month_abbr[12] = {"Jan", "Feb", "Mar", "Apr", "May", "Jun",
                                      "Jul", "Aug", "Sep", "Oct", "Nov", "Dec"};

// Proleptic Gregorian leap year, astronomical numbering (1 BC is 0).
inline bool leap_year(long y) noexcept { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

int month_length(long y, int m) noexcept {
    static int const lengths[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return m == 2 && leap_year(y) ? 29 : lengths[m - 1];
}

inline int len(lstr_t const& s) noexcept { return static_cast<int>(s.length()); }
inline char const* txt(lstr_t const& s) noexcept { return s.ptr() ? s.ptr() : ""; }

// One number field of the RFC 1123 form, cut off rest up to sep.
int rfc_number(lstr_t& rest, char sep, bool after_blank, char const* unit, lstr_t const& input) {
    if (after_blank) rest.drop(' ');
    lstr_t const at = rest;
    lstr_t const token = rest.word(sep, false);
    if (token.empty())
        QVL_THROW(timestamp_format_exception, "expected %s number at \"%.*s\" in \"%.*s\"", unit,
                  len(at), txt(at), len(input), txt(input));
    try {
        return static_cast<int>(string_to_num_strict(token));
    } catch (number_format_exception_shell_t const& e) {
        QVL_THROW(timestamp_format_exception,
                  "invalid %s number \"%.*s\" before \"%.*s\" in \"%.*s\" because of %s", unit,
                  len(token), txt(token), len(rest), txt(rest), len(input), txt(input), e.what());
    }
}

// The Gregorian check of a date read from text, in the order in which the
// calendar's own constructor tests its arguments: day, month, year, then
// the day against the month.
void check_gregorian(int year, int month, int day, lstr_t const& input) {
    char const* why = nullptr;
    try {
        boost::gregorian::greg_day const d(static_cast<unsigned short>(day < 0 || day > 0xFFFF ? 0 : day));
        boost::gregorian::greg_month const m(static_cast<unsigned short>(month));
        if (year < 1400 || year > 10000) {
            why = "Year is out of valid range: 1400..10000";
        } else {
            // The calendar stops at 9999; 10000 follows the leap rule of 9600.
            boost::gregorian::date const check(static_cast<unsigned short>(year == 10000 ? 9600 : year), m, d);
            (void)check;
        }
    } catch (std::out_of_range const& e) {
        QVL_THROW(timestamp_format_exception, "invalid date \"%.*s\" because of %s", len(input),
                  txt(input), e.what());
    }
    if (why)
        QVL_THROW(timestamp_format_exception, "invalid date \"%.*s\" because of %s", len(input),
                  txt(input), why);
}

// Reads the fields of the 17-digit layout "%04d%02d%02d%02d%02d%02d%03d"
// from p, stopping at the first field that does not start with a digit;
// returns the number of fields read.
int scan_17(char const* p, char const* end, int* fields) noexcept {
    static int const widths[7] = {4, 2, 2, 2, 2, 2, 3};
    int n = 0;
    for (; n < 7; ++n) {
        if (p == end || *p < '0' || *p > '9') break;
        int v = 0;
        for (int w = 0; w < widths[n] && p != end && *p >= '0' && *p <= '9'; ++w) v = v * 10 + (*p++ - '0');
        fields[n] = v;
    }
    return n;
}

// Whole seconds since 1970, floored, without clamping.
inline long unix_seconds(timestamp_t const& t) noexcept {
    q_int64_t d = wrap_sub(t.value, unix_epoch_ticks);
    q_int64_t s = d / ticks_per_second;
    return static_cast<long>(d % ticks_per_second < 0 ? s - 1 : s);
}

}  // namespace

// --- ticks_t ---------------------------------------------------------------------

namespace kern {
namespace time {

q_int64_t ticks_t::factor(int k) noexcept {
    if (k < k_finest) return INT64_MIN;
    if (k > k_coarsest) return INT64_MAX;
    return k_units[k];
}

q_int64_t ticks_t::get(int k, unsigned up) const noexcept {
    q_int64_t v = value;
    if (up != 0) {
        long const top = static_cast<long>(k) + up;
        if (top < -8) return 0;
        if (top <= k_coarsest) v %= k_units[static_cast<int>(top)];
    }
    if (k > k_coarsest) return 0;
    if (k >= -8) return v / k_units[k];
    return wrap_mul(v, k >= k_finest ? -k_units[k] : wrap_pow10(-8L - k));
}

q_int64_t ticks_t::getround(int k, unsigned up) const noexcept {
    if (get(k, 0) == 0) return (value > 0) - (value < 0);
    return get(k, up);
}

void ticks_t::time(timeparts_t& parts) const noexcept {
    parts.hours = static_cast<int>(get(2, 1));
    parts.minutes = static_cast<int>(get(1, 1));
    parts.seconds = static_cast<int>(get(0, 1));
    parts.milliseconds = static_cast<int>(get(-3, 3));
}

::timestamp_t now() noexcept {
    struct timespec ts;
    clock_gettime(CLOCK_REALTIME, &ts);
    return ::timestamp_t(ts.tv_sec * ticks_per_second + ts.tv_nsec / 10 + unix_epoch_ticks);
}

}  // namespace time
}  // namespace kern

// --- timegap_t -------------------------------------------------------------------

timegap_t::timegap_t(long v, int k) noexcept {
    if (k > k_coarsest)
        value = wrap_mul(wrap_mul(v, k_units[k_coarsest]), wrap_pow10(k - k_coarsest));
    else if (k >= -8)
        value = wrap_mul(v, k_units[k]);
    else if (k >= k_finest)
        value = v / -k_units[k];
    else
        value = 0;
}

timegap_t::timegap_t(int seconds, int minutes, int hours, int days) noexcept
    : ticks_t(wrap_add(wrap_add(wrap_mul(seconds, ticks_per_second), wrap_mul(minutes, k_minute)),
                       wrap_add(wrap_mul(hours, k_hour), wrap_mul(days, k_day)))) {}

void timegap_t::toString(std::string& s) const {
    s.clear();
    gap_parts_t const p = split_gap(value);
    if (p.negative) s += '-';
    if (p.days != 0) {
        add_number_to_string(static_cast<unsigned long>(p.days), s);
        s += '-';
    }
    char buf[12];
    s.append(buf, put_time(buf, p.h, p.m, p.s, p.ms));
}

void timegap_t::toString(std::string& s, unsigned long days) const {
    gap_parts_t const p = split_gap(value);
    add_number_to_string(days, s);
    s += '-';
    char buf[12];
    s.append(buf, put_time(buf, p.h, p.m, p.s, p.ms));
}

void timegap_t::toShortString(std::string& s) const {
    gap_parts_t const p = split_gap(value);
    if (p.days != 0) {
        toString(s);
        return;
    }
    s.clear();
    if (p.negative) s += '-';
    char buf[12];
    char* const end = put_time(buf, p.h, p.m, p.s, p.ms);
    // hh:mm:ss.mmm -> mm:ss.mmm -> ss.mmm
    char const* from = p.h != 0 ? buf : p.m != 0 ? buf + 3 : buf + 6;
    s.append(from, static_cast<std::size_t>(end - from));
}

void timegap_t::addFullTimePartToStr(std::string& s) const {
    gap_parts_t const p = split_gap(value);
    if (p.negative) s += '-';
    char buf[12];
    s.append(buf, put_time(buf, p.h, p.m, p.s, p.ms));
}

timegap_t timegap_t::operator-() const noexcept { return timegap_t(wrap_sub(0, value)); }
timegap_t& timegap_t::operator+=(timegap_t o) noexcept {
    value = wrap_add(value, o.value);
    return *this;
}
timegap_t& timegap_t::operator-=(timegap_t o) noexcept {
    value = wrap_sub(value, o.value);
    return *this;
}

timegap_t operator+(timegap_t a, timegap_t b) noexcept { return timegap_t(wrap_add(a.value, b.value)); }
timegap_t operator-(timegap_t a, timegap_t b) noexcept { return timegap_t(wrap_sub(a.value, b.value)); }
timegap_t operator*(timegap_t a, q_int64_t n) noexcept { return timegap_t(wrap_mul(a.value, n)); }
timestamp_t operator+(timestamp_t a, timegap_t b) noexcept { return timestamp_t(wrap_add(a.value, b.value)); }
timestamp_t operator-(timestamp_t a, timegap_t b) noexcept { return timestamp_t(wrap_sub(a.value, b.value)); }
timegap_t operator-(timestamp_t a, timestamp_t b) noexcept { return timegap_t(wrap_sub(a.value, b.value)); }

// --- timestamp_t -----------------------------------------------------------------

void timestamp_t::dateparts_t::add_monthes(int n) noexcept {
    long y = year < 0 ? year + 1L : year;  // astronomical: 1 BC is 0
    long total = y * 12 + (month - 1) + n;
    long ny = total / 12;
    long nm = total % 12;
    if (nm < 0) {
        nm += 12;
        --ny;
    }
    month = static_cast<int>(nm + 1);
    int const last = month_length(ny, month);
    if (day > last) day = last;
    year = static_cast<int>(ny < 1 ? ny - 1 : ny);
}

timestamp_t& timestamp_t::init(int seconds, int minutes, int hours, int day, int month, int year) noexcept {
    if (year == 0) {
        int m, d;
        kern::time::now().date(&year, &m, &d);
    }
    long const y = year < 0 ? year + 1L : year;
    long const m = month;
    // Fliegel and Van Flandern, in C's truncating integer division.
    long const a = (m - 14) / 12;
    long const jdn = (1461 * (y + 4800 + a)) / 4 + (367 * (m - 2 - 12 * a)) / 12 -
                     (3 * ((y + 4900 + a) / 100)) / 4 + day - 32075;
    value = wrap_add(wrap_add(wrap_mul(jdn - k_jdn_base, k_day), wrap_mul(hours, k_hour)),
                     wrap_add(wrap_mul(minutes, k_minute), wrap_mul(seconds, ticks_per_second)));
    return *this;
}

q_int64_t timestamp_t::jdn() const noexcept { return get(3, 0) + k_jdn_base; }

int timestamp_t::weekday() const noexcept { return static_cast<int>(jdn() % 7); }

void timestamp_t::date(int* year, int* month, int* day) const noexcept {
    if (value == 0) {
        *year = *month = *day = 0;
        return;
    }
    // The inverse Fliegel and Van Flandern formula.
    q_int64_t l = jdn() + 68569;
    q_int64_t const n = (4 * l) / 146097;
    l -= (146097 * n + 3) / 4;
    q_int64_t const i = (4000 * (l + 1)) / 1461001;
    l = l - (1461 * i) / 4 + 31;
    q_int64_t const j = (80 * l) / 2447;
    *day = static_cast<int>(l - (2447 * j) / 80);
    l = j / 11;
    *month = static_cast<int>(j + 2 - 12 * l);
    q_int64_t y = 100 * (n - 49) + i + l;
    if (y < 1) --y;
    *year = static_cast<int>(y);
}

void timestamp_t::date(dateparts_t& parts) const noexcept { date(&parts.year, &parts.month, &parts.day); }

q_uint32_t timestamp_t::unixtime() const noexcept {
    q_int64_t d;
    if (__builtin_sub_overflow(value, unix_epoch_ticks, &d)) return 0;
    q_int64_t const s = d / ticks_per_second;
    if (s < 0) return 0;
    if (s >= 0x80000000LL) return 0x7FFFFFFF;
    return static_cast<q_uint32_t>(s);
}

q_uint64_t timestamp_t::db_timestamp() const noexcept {
    stamp_fields_t const f(*this);
    typedef q_uint64_t u;
    return u(f.y) * 10000000000000ULL + u(f.mo) * 100000000000ULL + u(f.d) * 1000000000ULL +
           u(f.h) * 10000000ULL + u(f.mi) * 100000ULL + u(f.s) * 1000ULL + u(f.ms);
}

timestamp_t::operator std::string() const {
    stamp_fields_t const f(*this);
    char buf[64];
    if (!f.plain()) {
        int const n = std::snprintf(buf, sizeof buf, "%04d%02d%02d%02d%02d%02d%03d", f.y, f.mo, f.d,
                                    f.h, f.mi, f.s, f.ms);
        return std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    char* p = put4(buf, f.y);
    p = put2(p, f.mo);
    p = put2(p, f.d);
    p = put2(p, f.h);
    p = put2(p, f.mi);
    p = put2(p, f.s);
    p = put3(p, f.ms);
    return std::string(buf, p);
}

timestamp_t::timestamp_t(std::string const& text) {
    std::size_t const n = text.size();
    if (n == 0 || (n == 1 && text[0] == '0')) return;
    if (n != 17)
        QVL_THROW(number_format_exception, "not timestamp \"%s\" because of 17 digits expected, not %lu",
                  text.c_str(), static_cast<unsigned long>(n));
    for (std::size_t i = 0; i < n; ++i) {
        unsigned char const c = static_cast<unsigned char>(text[i]);
        if (c < '0' || c > '9')
            QVL_THROW(number_format_exception,
                      "not timestamp \"%s\" because of digits expected, not \"%c\" (0x%x) at position #%lu",
                      text.c_str(), c, static_cast<unsigned>(c), static_cast<unsigned long>(i));
    }
    int f[7];
    int const got = scan_17(text.data(), text.data() + n, f);
    if (got < 7)
        QVL_THROW(number_format_exception, "not timestamp \"%s\" because of expected 7 fields instead of %d",
                  text.c_str(), got);
    if ((f[0] | f[1] | f[2] | f[3] | f[4] | f[5] | f[6]) == 0) return;
    init(f[5], f[4], f[3], f[2], f[1], f[0]);
    value = wrap_add(value, static_cast<q_int64_t>(f[6]) * k_msec);
}

timestamp_t::timestamp_t(lstr_t text) {
    lstr_t rest = text;
    rest.drop(' ');
    lstr_t at = rest;
    rest.word(',', false);  // the week-day word is not checked
    if (rest.empty())
        QVL_THROW(timestamp_format_exception, "expected week day at \"%.*s\" in \"%.*s\"", len(at), txt(at),
                  len(text), txt(text));

    int const day = rfc_number(rest, ' ', true, "day", text);

    rest.drop(' ');
    if (rest.empty())
        QVL_THROW(timestamp_format_exception, "expected month at \"%.*s\" in \"%.*s\"", len(rest), txt(rest),
                  len(text), txt(text));
    at = rest;
    lstr_t const word = rest.word(' ', false);
    // A shorter word matches the first month it begins ("Ju" is June).
    int month = 0;
    if (word.length() <= 3) {
        for (int i = 0; i < 12; ++i)
            if (std::memcmp(k_month_abbr[i], word.ptr(), word.length()) == 0) {
                month = i + 1;
                break;
            }
    }
    if (month == 0)
        QVL_THROW(timestamp_format_exception, "invalid month at \"%.*s\" in \"%.*s\"", len(at), txt(at),
                  len(text), txt(text));

    int const year = rfc_number(rest, ' ', true, "year", text);
    int const hours = rfc_number(rest, ':', true, "hours", text);
    int const minutes = rfc_number(rest, ':', false, "minutes", text);
    int const seconds = rfc_number(rest, ' ', false, "seconds", text);

    rest.drop(' ').r_drop(' ');
    if (!rest.empty() && !rest.eq(lstr_t("GMT", 3)))
        QVL_THROW(timestamp_format_exception, "expected word \"GMT\" or nothing at \"%.*s\" in \"%.*s\"",
                  len(rest), txt(rest), len(text), txt(text));

    check_gregorian(year, month, day, text);
    init(seconds, minutes, hours, day, month, year);
}

void timestamp_t::rfc1123_basic_date(std::string& s) const {
    stamp_fields_t const f(*this);
    int const wd = ((weekday() % 7) + 7) % 7;
    char const* const mon = f.mo >= 1 && f.mo <= 12 ? k_month_abbr[f.mo - 1] : k_month_abbr[0];
    if (!f.plain()) {
        char buf[96];
        int const n = std::snprintf(buf, sizeof buf, "%s, %02d %s %04d %02d:%02d:%02d", k_wday_abbr[wd], f.d, mon,
                                    f.y, f.h, f.mi, f.s);
        if (n > 0) s.append(buf, static_cast<std::size_t>(n));
        return;
    }
    // Www, DD Mmm YYYY hh:mm:ss
    char buf[25];
    std::memcpy(buf, k_wday_abbr[wd], 3);
    buf[3] = ',';
    buf[4] = ' ';
    put2(buf + 5, f.d);
    buf[7] = ' ';
    std::memcpy(buf + 8, mon, 3);
    buf[11] = ' ';
    put4(buf + 12, f.y);
    buf[16] = ' ';
    put2(buf + 17, f.h);
    buf[19] = ':';
    put2(buf + 20, f.mi);
    buf[22] = ':';
    put2(buf + 23, f.s);
    s.append(buf, sizeof buf);
}

void timestamp_t::rfc1123_date(std::string& s) const {
    rfc1123_basic_date(s);
    s += " GMT";
}

std::string timestamp_t::toReadableString() const {
    stamp_fields_t const f(*this);
    char buf[64];
    if (!f.plain()) {
        int const n = std::snprintf(buf, sizeof buf, "%04d/%02d/%02d %02d:%02d:%02d.%03d", f.y, f.mo, f.d, f.h,
                                    f.mi, f.s, f.ms);
        return std::string(buf, n > 0 ? static_cast<std::size_t>(n) : 0);
    }
    char* p = put4(buf, f.y);
    *p++ = '/';
    p = put2(p, f.mo);
    *p++ = '/';
    p = put2(p, f.d);
    *p++ = ' ';
    p = put_time(p, f.h, f.mi, f.s, f.ms);
    return std::string(buf, p);
}

timestamp_t& timestamp_t::operator+=(timegap_t g) noexcept {
    value = wrap_add(value, g.value);
    return *this;
}
timestamp_t& timestamp_t::operator-=(timegap_t g) noexcept {
    value = wrap_sub(value, g.value);
    return *this;
}

// --- localtime_t -----------------------------------------------------------------

localtime_t::localtime_t() noexcept : stamp(kern::time::now()), offset(TZ(unix_seconds(stamp))) {}

localtime_t::localtime_t(timestamp_t utc) noexcept : stamp(utc), offset(TZ(unix_seconds(utc))) {}

timegap_t localtime_t::TZ(long unix_seconds) noexcept {
    time_t const t = unix_seconds;
    struct tm lt, ut;
    if (!localtime_r(&t, &lt) || !gmtime_r(&t, &ut)) return timegap_t();
    // A year boundary between the two gives exactly one day, whichever
    // day of the year each side is on.
    long days;
    if (ut.tm_year == lt.tm_year)
        days = ut.tm_yday - lt.tm_yday;
    else
        days = ut.tm_year > lt.tm_year ? 1 : -1;
    long const seconds = (ut.tm_hour - lt.tm_hour) * 3600L + (ut.tm_min - lt.tm_min) * 60L +
                         (ut.tm_sec - lt.tm_sec) + days * 86400L;
    return timegap_t(seconds, 0);
}

void localtime_t::rfc1123_timezone(std::string& s) const {
    bool const east = offset.value <= 0;
    timegap_t const g = east ? -offset : offset;
    char buf[5];
    buf[0] = east ? '+' : '-';
    put2(buf + 1, static_cast<int>(g.get(2, 0)));
    put2(buf + 3, static_cast<int>(g.get(1, 1)));
    s.append(buf, sizeof buf);
}

void localtime_t::rfc1123_date(std::string& s) const {
    (stamp - offset).rfc1123_basic_date(s);
    s += ' ';
    rfc1123_timezone(s);
}

// --- Boost ptime -----------------------------------------------------------------

q_uint64_t ptime_to_qstime(boost::posix_time::ptime t) {
    if (t.is_pos_infinity()) return static_cast<q_uint64_t>(INT64_MAX);
    if (t.is_neg_infinity())
        t = boost::posix_time::ptime(boost::date_time::min_date_time);
    else if (t.is_not_a_date_time())
        t = boost::posix_time::ptime(boost::date_time::max_date_time);
    boost::gregorian::date::ymd_type const ymd = t.date().year_month_day();
    boost::posix_time::time_duration const td = t.time_of_day();
    timestamp_t r;
    r.init(static_cast<int>(td.seconds()), static_cast<int>(td.minutes()), static_cast<int>(td.hours()), ymd.day,
           ymd.month, ymd.year);
    return static_cast<q_uint64_t>(r.value);
}

boost::posix_time::ptime qstime_to_ptime(unsigned long ticks) {
    timestamp_t const t(static_cast<q_int64_t>(ticks));
    if (t.is_infinite()) return boost::posix_time::ptime(boost::date_time::pos_infin);
    timestamp_t::dateparts_t d;
    t.date(d);
    timestamp_t::timeparts_t tp;
    t.time(tp);
    // Day first: tick 0 has all fields 0 and reports the day.
    boost::gregorian::greg_day const day(static_cast<unsigned short>(d.day));
    boost::gregorian::greg_month const month(static_cast<unsigned short>(d.month));
    boost::gregorian::date const date(static_cast<unsigned short>(d.year < 0 || d.year > 0xFFFF ? 0 : d.year),
                                      month, day);
    return boost::posix_time::ptime(date, boost::posix_time::hours(tp.hours) + boost::posix_time::minutes(tp.minutes) +
                                              boost::posix_time::seconds(tp.seconds));
}
