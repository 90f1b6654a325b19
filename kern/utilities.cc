// utilities.cc: message formatting, system error text and small text helpers.
#include "utilities.h"

#include <cctype>
#include <cstdio>
#include <cstring>

#include "numeric-triades.h"
#include "random.h"

namespace {

char const k_hex_lower[] = "0123456789abcdef";
char const k_hex_upper[] = "0123456789ABCDEF";

// strerror_r comes in two shapes; the overloads take whichever the C
// library declares.
[[maybe_unused]] char const* error_text(int rc, char const* buf) noexcept { return rc == 0 ? buf : nullptr; }
[[maybe_unused]] char const* error_text(char const* text, char const*) noexcept { return text; }

// The blank set of need_trim_string and trim_string.
inline bool is_trim_blank(char c) noexcept {
    return c == ' ' || c == '\r' || c == '\n' || c == '\t' || c == '\f' || c == '\v';
}

inline void put_hex_lower(unsigned char b, char* out) noexcept {
    out[0] = k_hex_lower[b >> 4];
    out[1] = k_hex_lower[b & 0xF];
}

}  // namespace

// --- formatting -----------------------------------------------------------------

void q_format_va(std::string& out, char const* fmt, va_list ap) {
    // The text is made aside and then moved into out: an argument may point
    // into out, whose buffer a resize would free and the formatter overwrite.
    // Most texts fit in the first 1024 bytes, so one pass usually suffices.
    char first[1024];
    va_list copy;
    va_copy(copy, ap);
    int const n = std::vsnprintf(first, sizeof first, fmt, copy);
    va_end(copy);
    if (n < 0) {
        // What the formatter wrote before it failed, padded with NULs.
        out.assign(first, strnlen(first, sizeof first));
        out.resize(sizeof first);
        return;
    }
    // n == 1024 is kept at 1024 characters, the last being the NUL the
    // formatter wrote in place of the text's last character.
    if (n <= 1024) {
        out.assign(first, static_cast<std::size_t>(n));
        return;
    }
    auto const size = static_cast<std::size_t>(n) + 1;
    std::string text(size, '\0');
    va_copy(copy, ap);
    int const m = std::vsnprintf(&text[0], size, fmt, copy);
    va_end(copy);
    if (m < 0) {
        error_saver_t saved;
        out = "vsnprintf failed because of ";
        out += get_last_error(saved);
        return;
    }
    text.resize(static_cast<std::size_t>(n));
    out.swap(text);
}

void q_format(std::string& out, char const* fmt, ...) {
    va_list ap;
    va_start(ap, fmt);
    try {
        q_format_va(out, fmt, ap);
    } catch (...) {
        va_end(ap);
        throw;
    }
    va_end(ap);
}

std::string q_format_va(char const* fmt, va_list ap) {
    std::string out;
    q_format_va(out, fmt, ap);
    return out;
}

std::string q_format(char const* fmt, ...) {
    std::string out;
    va_list ap;
    va_start(ap, fmt);
    try {
        q_format_va(out, fmt, ap);
    } catch (...) {
        va_end(ap);
        throw;
    }
    va_end(ap);
    return out;
}

// --- system errors ----------------------------------------------------------------

void set_last_error(int code) noexcept { errno = code; }

std::string get_last_error(error_saver_t const& saved) {
    if (saved.code == 0) return "No errors detected";
    char buf[256];
    buf[0] = '\0';
    char const* text = error_text(strerror_r(saved.code, buf, sizeof buf), buf);
    std::string out(text ? text : "Unknown error");
    out += " (errno=";
    add_number_to_string(saved.code, out);
    out += ')';
    return out;
}

std::string split_error(std::string const& text) {
    struct marker_t {
        char const* text;
        std::size_t length;
        std::size_t skip;  // characters dropped from the front of the next segment
    };
    static marker_t const markers[] = {
        {" because of", 11, 1},
        {" and unix error is", 18, 1},
        {"; ", 2, 2},
    };
    constexpr std::size_t count = sizeof markers / sizeof markers[0];

    std::string out;
    out.reserve(text.size() + 16);
    // Next occurrence of each marker at or after the search position; an
    // occurrence stays valid until the search passes it.
    std::size_t found[count];
    for (std::size_t i = 0; i < count; ++i) found[i] = text.find(markers[i].text, 0, markers[i].length);
    std::size_t start = 0;
    for (;;) {
        std::size_t best = count;
        for (std::size_t i = 0; i < count; ++i)
            if (found[i] != std::string::npos && (best == count || found[i] < found[best])) best = i;
        if (best == count) break;
        std::size_t const at = found[best];
        out.append(text, start, at - start);
        out += "\r\n";
        start = at + markers[best].skip;
        // Searching resumes one character after the new segment's start, so
        // a marker right at its start is not cut again.
        std::size_t const from = start + 1;
        for (std::size_t i = 0; i < count; ++i)
            if (found[i] != std::string::npos && found[i] < from)
                found[i] = from <= text.size() ? text.find(markers[i].text, from, markers[i].length) : std::string::npos;
    }
    out.append(text, start, std::string::npos);
    return out;
}

// --- strings ----------------------------------------------------------------------

void decorate_spaces(char* text, unsigned long length) noexcept {
    if (length == 0) return;
    // The thread's classification table, fetched once rather than through
    // isspace for every byte.
    unsigned short const* const table = *__ctype_b_loc();
    for (unsigned long i = 0; i < length; ++i)
        if (table[static_cast<unsigned char>(text[i])] & static_cast<unsigned short>(_ISspace)) text[i] = '_';
}

bool need_trim_string(std::string const& s) noexcept {
    if (s.empty()) return false;
    return is_trim_blank(s.front()) || (s.size() >= 2 && is_trim_blank(s.back()));
}

void trim_string(std::string& s) {
    std::size_t end = s.size();
    while (end > 0 && is_trim_blank(s[end - 1])) --end;
    if (end == 0) {
        s.clear();
        return;
    }
    std::size_t begin = 0;
    while (is_trim_blank(s[begin])) ++begin;
    if (end != s.size()) s.erase(end);
    if (begin != 0) s.erase(0, begin);
}

unsigned long how_words(std::string const& s, char separator) noexcept {
    if (s.empty()) return 0;
    unsigned long n = 1;
    char const* p = s.data();
    char const* const e = p + s.size();
    while ((p = static_cast<char const*>(std::memchr(p, separator, static_cast<std::size_t>(e - p)))) != nullptr) {
        ++n;
        ++p;
    }
    return n;
}

void rotate_slashes_real(lstr_t const& s) noexcept {
    if (s.empty()) return;
    // The slice is constant, the characters it points to are the caller's
    // to change.
    char* p = const_cast<char*>(s.ptr());
    char* const e = p + s.length();
    while ((p = static_cast<char*>(std::memchr(p, '\\', static_cast<std::size_t>(e - p)))) != nullptr) *p++ = '/';
}

void random_string(std::string& out, int min, int max) {
    static char const alphabet[] = "qwertyuiopasdfghjklzxcvbnm1234567890QWERTYUIOPASDFGHJKLZXCVBNM";
    // In 64 bits: max - min + 1 overflows an int for the widest ranges.
    long long const span = static_cast<long long>(max) - min + 1;
    long long const length =
        span <= 1 ? min : min + static_cast<long long>(sysrnd.rand() % static_cast<q_uint64_t>(span));
    for (long long i = 0; i < length; ++i) out += alphabet[sysrnd.rand() % 62];
}

// --- memory dumps -------------------------------------------------------------------

std::string hex_dump_just_mem(char const* data, unsigned long size) {
    std::string out(size * 2, '\0');
    for (unsigned long i = 0; i < size; ++i) put_hex_lower(static_cast<unsigned char>(data[i]), &out[2 * i]);
    return out;
}

std::string hex_dump_mem(char const* data, unsigned long size, bool size_in_hex) {
    std::string out;
    if (size_in_hex) {
        out = hex_string(size);
    } else {
        out.reserve(21 + size * 2);
        add_number_to_string(size, out);
    }
    out += ' ';
    std::size_t const at = out.size();
    out.resize(at + size * 2);
    for (unsigned long i = 0; i < size; ++i) put_hex_lower(static_cast<unsigned char>(data[i]), &out[at + 2 * i]);
    return out;
}

std::string dump_mem(void const* data, unsigned long size) {
    auto const* bytes = static_cast<unsigned char const*>(data);
    std::string out;
    // Size (at most 20 digits), "b ", "=?ASCII?Q?", three characters per
    // byte at most, "?=".
    out.reserve(20 + 2 + 10 + size * 3 + 2);
    add_number_to_string(size, out);
    out += "b =?ASCII?Q?";
    for (unsigned long i = 0; i < size; ++i) {
        unsigned char const b = bytes[i];
        if (b == '=') {
            out += "==";
        } else if (b >= 32 && b <= 126) {
            out += static_cast<char>(b);
        } else {
            char const esc[3] = {'=', k_hex_upper[b >> 4], k_hex_upper[b & 0xF]};
            out.append(esc, 3);
        }
    }
    out += "?=";
    return out;
}

// --- numbers ------------------------------------------------------------------------

unsigned int from_hex_dig(unsigned char c) noexcept {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10u;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10u;
    return ~0u;
}

unsigned int hweight(unsigned int x) noexcept {
    x = x - ((x >> 1) & 0x55555555u);
    x = (x & 0x33333333u) + ((x >> 2) & 0x33333333u);
    x = (x + (x >> 4)) & 0x0F0F0F0Fu;
    return (x * 0x01010101u) >> 24;
}

// --- time and duration strings ---------------------------------------------------

#include "time-objs.h"

namespace {

char const* const k_wday_full[7] = {"Monday", "Tuesday", "Wednesday", "Thursday", "Friday", "Saturday", "Sunday"};
char const* const k_wday_abbr3[7] = {"Mon", "Tue", "Wed", "Thu", "Fri", "Sat", "Sun"};
char const* const k_wday_abbr2[7] = {"Mo", "Tu", "We", "Th", "Fr", "Sa", "Su"};

// printf's "%02d".
inline void add_02d(long value, std::string& out) {
    if (value >= 0 && value < 10) out += '0';
    add_number_to_string(value, out);
}

// "[hh:]mm:ss" with the hour left out when it is zero.
void add_clock(long hours, long minutes, long seconds, std::string& out) {
    if (hours != 0) {
        add_02d(hours, out);
        out += ':';
    }
    add_02d(minutes, out);
    out += ':';
    add_02d(seconds, out);
}

// The magnitude of gap, after appending "-" to out when gap is negative (a
// real-time clock stepped back). The most negative gap has no positive
// counterpart and is taken one tick short, which no text shows.
timegap_t magnitude(timegap_t const& gap, std::string& out) {
    if (gap.value >= 0) return gap;
    out += '-';
    return timegap_t(gap.value == INT64_MIN ? INT64_MAX : -gap.value);
}

// Joins the fields of a 17-digit stamp text: the three date fields in the
// order given by their offsets, then " hh:mm:ss.mmm".
std::string join_ts(std::string const& ts, int first, int first_len, int third, int third_len) {
    if (ts.size() < 17) return ts;
    std::string out;
    out.reserve(23);
    out.append(ts, first, first_len).append(1, '/').append(ts, 4, 2).append(1, '/').append(ts, third, third_len);
    out.append(1, ' ').append(ts, 8, 2).append(1, ':').append(ts, 10, 2).append(1, ':').append(ts, 12, 2);
    out.append(1, '.').append(ts, 14, 3);
    return out;
}

}  // namespace

std::string elapsed_time(timegap_t const& gap) {
    std::string out;
    timegap_t const g = magnitude(gap, out);
    q_int64_t const d = g.get(3, 0);
    q_int64_t const h = g.get(2, 1);
    q_int64_t const m = g.get(1, 1);
    q_int64_t const s = g.get(0, 1);
    q_int64_t const ms = g.get(-3, 3);
    if (d != 0) {
        add_number_to_string(d, out);
        out += '-';
    }
    bool const hours = d != 0 || h != 0;
    if (hours) {
        add_02d(h, out);
        out += ':';
    }
    if (hours || m != 0) {
        add_02d(m, out);
        out += ':';
    }
    add_02d(s, out);
    out += '.';
    add_number_to_string(ms, out);
    if (ms < 10)
        out += "00";
    else if (ms < 100)
        out += '0';
    return out;
}

std::string elapsed_time(timestamp_t const& since) { return elapsed_time(kern::time::now() - since); }

void format_uptime(timegap_t const& gap, std::string& out) {
    timegap_t const g = magnitude(gap, out);
    char buf[11];
    char* p = buf;
    // The field shows whenever there are whole days, even when their last
    // two digits are "00" (100 days).
    q_int64_t const days = g.get(3, 0);
    if (days != 0) {
        int last2 = static_cast<int>(days % 100);
        p += decimal_convertor_t<int, 2>::store0(last2, p);
        *p++ = '-';
    }
    int h = static_cast<int>(g.get(2, 1));
    int m = static_cast<int>(g.get(1, 1));
    int s = static_cast<int>(g.get(0, 1));
    p += decimal_convertor_t<int, 2>::store0(h, p);
    *p++ = ':';
    p += decimal_convertor_t<int, 2>::store0(m, p);
    *p++ = ':';
    p += decimal_convertor_t<int, 2>::store0(s, p);
    out.append(buf, static_cast<std::size_t>(p - buf));
}

std::string str_time(unsigned long seconds) {
    std::string out;
    unsigned long days = 0;
    if (seconds >= 86400) {
        days = seconds / 86400;
        add_number_to_string(days, out);
        out += '-';
    }
    add_clock(static_cast<long>(seconds / 3600 - days * 24), static_cast<long>(seconds / 60 % 60),
              static_cast<long>(seconds % 60), out);
    return out;
}

std::string time_string(long unix_seconds) {
    // In unsigned arithmetic, so that no pair of times overflows.
    auto const now = static_cast<unsigned long>(kern::time::now().unixtime());
    auto const then = static_cast<unsigned long>(unix_seconds);
    if (unix_seconds > static_cast<long>(now)) return "-" + str_time(then - now);
    return str_time(now - then);
}

char const* wday_to_string(int day) { return day >= 0 && day < 7 ? k_wday_full[day] : "Error"; }

int string_to_wday(char const* name) {
    lstr_t const n(name);
    for (int i = 0; i < 7; ++i)
        if (n.ic_eq(k_wday_full[i]) || n.ic_eq(k_wday_abbr3[i]) || n.ic_eq(k_wday_abbr2[i])) return i;
    return -1;
}

std::string ts_to_date(std::string const& ts) { return join_ts(ts, 6, 2, 0, 4); }

std::string ts_to_readable_date(std::string const& ts) { return join_ts(ts, 0, 4, 6, 2); }
