// numeric-triades.cc: number formatting without the printf family.
//
// Digits are produced two at a time: each step divides by 100 and copies the
// remainder's two characters from a 200-byte table, which gives the same
// text as one division by 10 per digit in half the divisions. Long values
// are first cut into blocks of eight and four digits (divisions by 10^8 and
// 10^4) whose pairs do not depend on each other, which shortens the chain
// of dependent divisions. 64-bit values are divided on 64 bits only while
// they do not fit in 32 bits; the rest is computed on 32 bits, which is
// markedly cheaper. The text is the same as a digit-by-digit loop. Negative
// values are never negated: the first step takes the absolute value of the
// remainder, and the quotient left after it always fits the unsigned type,
// so the most negative value of each type comes out right.
#include "numeric-triades.h"

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <limits>

namespace {

struct digit_pairs_t {
    char d[200];
    constexpr digit_pairs_t() : d() {
        for (int i = 0; i < 100; ++i) {
            d[2 * i] = static_cast<char>('0' + i / 10);
            d[2 * i + 1] = static_cast<char>('0' + i % 10);
        }
    }
};
constexpr digit_pairs_t k_pairs{};

char const k_hex_upper[] = "0123456789ABCDEF";

// Digit buffer of an integer type: its widest value, plus one for a sign.
template <typename T>
constexpr int digit_room() {
    return std::numeric_limits<T>::digits10 + 1 + (std::numeric_limits<T>::is_signed ? 1 : 0);
}

inline char* put_pair(unsigned r, char* end) noexcept {
    end -= 2;
    std::memcpy(end, k_pairs.d + 2 * r, 2);
    return end;
}

// The writers below put digits so that they end just before end and return
// the first digit.

// Exactly four digits of v < 10000, zero-padded.
inline char* put_4_fixed(std::uint32_t v, char* end) noexcept {
    std::uint32_t const hi = v / 100;
    return put_pair(hi, put_pair(v - hi * 100, end));
}

// Exactly eight digits of v < 100000000, zero-padded; the two halves are
// independent, so the processor computes them side by side.
inline char* put_8_fixed(std::uint32_t v, char* end) noexcept {
    std::uint32_t const hi = v / 10000;
    put_4_fixed(v - hi * 10000, end);
    return put_4_fixed(hi, end - 4);
}

// The digits of v < 10000, without leading zeros.
inline char* put_u_short(std::uint32_t v, char* end) noexcept {
    if (v >= 100) {
        std::uint32_t const hi = v / 100;
        end = put_pair(v - hi * 100, end);
        v = hi;
    }
    if (v >= 10) return put_pair(v, end);
    *--end = static_cast<char>('0' + v);
    return end;
}

inline char* put_u32(std::uint32_t v, char* end) noexcept {
    if (v < 10000) return put_u_short(v, end);
    if (v < 100000000) {
        std::uint32_t const hi = v / 10000;
        return put_u_short(hi, put_4_fixed(v - hi * 10000, end));
    }
    std::uint32_t const hi = v / 100000000;
    return put_u_short(hi, put_8_fixed(v - hi * 100000000, end));
}

// Only the divisions by 10^8 run on 64 bits; every block below 10^8 is
// finished on 32 bits.
inline char* put_u64(std::uint64_t v, char* end) noexcept {
    if (v <= 0xFFFFFFFFu) return put_u32(static_cast<std::uint32_t>(v), end);
    std::uint64_t q = v / 100000000;
    end = put_8_fixed(static_cast<std::uint32_t>(v - q * 100000000), end);
    if (q <= 0xFFFFFFFFu) return put_u32(static_cast<std::uint32_t>(q), end);
    std::uint64_t const q2 = q / 100000000;
    end = put_8_fixed(static_cast<std::uint32_t>(q - q2 * 100000000), end);
    return put_u_short(static_cast<std::uint32_t>(q2), end);  // q2 < 1845
}

inline char* put_u(std::uint32_t v, char* end) noexcept { return put_u32(v, end); }
inline char* put_u(std::uint64_t v, char* end) noexcept { return put_u64(v, end); }

// Signed values on S, with U the unsigned type of the same width.
template <typename S, typename U>
inline char* put_s(S v, char* end) noexcept {
    if (v >= 0) return put_u(static_cast<U>(v), end);
    S const q = v / 100;  // truncates towards zero, so q <= 0 and -q fits
    auto const r = static_cast<unsigned>(q * 100 - v);
    if (q != 0) {
        end = put_u(static_cast<U>(-q), put_pair(r, end));
    } else if (r >= 10) {
        end = put_pair(r, end);
    } else {
        *--end = static_cast<char>('0' + r);
    }
    *--end = '-';
    return end;
}

template <typename T>
inline char* put_any(T v, char* end) noexcept {
    if constexpr (std::numeric_limits<T>::is_signed) {
        if constexpr (sizeof(T) <= 4)
            return put_s<std::int32_t, std::uint32_t>(v, end);
        else
            return put_s<std::int64_t, std::uint64_t>(v, end);
    } else {
        if constexpr (sizeof(T) <= 4)
            return put_u32(v, end);
        else
            return put_u64(v, end);
    }
}

template <typename T>
inline std::string& append_number(T v, std::string& out) {
    char buf[digit_room<T>()];
    char* const end = buf + sizeof buf;
    char const* const p = put_any(v, end);
    return out.append(p, static_cast<std::size_t>(end - p));
}

template <typename T>
inline int store_number(T v, char* out) noexcept {
    char buf[digit_room<T>()];
    char* const end = buf + sizeof buf;
    char const* const p = put_any(v, end);
    auto const n = static_cast<int>(end - p);
    std::memcpy(out, p, static_cast<std::size_t>(n));
    return n;
}

// Writes width upper-case hexadecimal digits of v, zero-padded.
inline void put_hex(unsigned long long v, char* out, int width) noexcept {
    for (int i = width - 1; i >= 0; --i) {
        out[i] = k_hex_upper[v & 0xF];
        v >>= 4;
    }
}

}  // namespace

std::string& add_number_to_string(unsigned char value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(char value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(unsigned short value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(short value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(unsigned int value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(int value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(unsigned long value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(long value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(unsigned long long value, std::string& out) { return append_number(value, out); }
std::string& add_number_to_string(long long value, std::string& out) { return append_number(value, out); }

std::string& add_number_to_string(void const* value, std::string& out) {
    char buf[18] = {'0', 'x'};
    put_hex(reinterpret_cast<std::uintptr_t>(value), buf + 2, 16);
    return out.append(buf, sizeof buf);
}

std::string& add_number_to_string(double value, std::string& out) {
    // Room for the widest "%f" text: 309 integer digits, sign, point, six
    // fraction digits.
    char buf[328];
    int const n = std::snprintf(buf, sizeof buf, "%f", value);
    if (n > 0 && static_cast<std::size_t>(n) < sizeof buf) out.append(buf, static_cast<std::size_t>(n));
    return out;
}

int add_number_to_string(int value, char* out) noexcept { return store_number(value, out); }
int add_number_to_string(unsigned int value, char* out) noexcept { return store_number(value, out); }
int add_number_to_string(long value, char* out) noexcept { return store_number(value, out); }
int add_number_to_string(unsigned long value, char* out) noexcept { return store_number(value, out); }
int add_number_to_string(long long value, char* out) noexcept { return store_number(value, out); }
int add_number_to_string(unsigned long long value, char* out) noexcept { return store_number(value, out); }

std::string hex_string(unsigned long long value) {
    char buf[16];
    put_hex(value, buf, 16);
    return std::string(buf, sizeof buf);
}

std::string hex_string(unsigned int value) {
    char buf[8];
    put_hex(value, buf, 8);
    return std::string(buf, sizeof buf);
}

std::string kern::numbers::produce_triades(lstr_t digits, unsigned long width) {
    unsigned long const n = digits.length();
    unsigned long const grouped = n + (n ? (n - 1) / 3 : 0);
    unsigned long const pad = width > grouped ? width - grouped : 0;
    std::string result;
    result.reserve(pad + grouped);
    result.append(pad, ' ');
    unsigned long counter = n % 3;
    for (unsigned long i = 0; i < n; ++i) {
        if (counter == 0) {
            counter = 2;
            if (i != 0) result += '\'';
        } else {
            --counter;
        }
        result += digits[i];
    }
    return result;
}

std::string kilobytes(unsigned long value, bool with_b) {
    static char const units[] = "BKMGT";
    unsigned long quotient = value;
    unsigned long remainder = 0;
    int index = 0;
    while (quotient >= 1024 && index < 4) {
        remainder = quotient & 1023;
        quotient >>= 10;
        ++index;
    }
    std::string out;
    add_number_to_string(static_cast<unsigned int>(quotient), out);
    if (index > 0 && remainder > 99) {
        out += '.';
        add_number_to_string(static_cast<unsigned int>(remainder / 100), out);
    }
    out += units[index];
    if (with_b && index > 0) out += 'B';
    return out;
}

int decimal_convertor_t<int, 2>::store0(int& value, char* out) noexcept {
    int const q = value / 100;
    int r = value - q * 100;
    if (r < 0) r = -r;
    std::memcpy(out, k_pairs.d + 2 * r, 2);
    value = q;
    return 2;
}

std::string& operator<<(std::string& out, char const* text) { return text ? out.append(text) : out; }
std::string& operator<<(std::string& out, lstr_t const& text) { return out.append(text.ptr(), text.length()); }
std::string& operator<<(std::string& out, std::string const& text) { return out.append(text); }
std::string& operator<<(std::string& out, char c) { return out.append(1, c); }
std::string& operator<<(std::string& out, unsigned char c) { return out.append(1, static_cast<char>(c)); }
std::string& operator<<(std::string& out, short value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, unsigned short value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, int value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, unsigned int value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, long value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, unsigned long value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, long long value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, unsigned long long value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, float value) { return add_number_to_string(static_cast<double>(value), out); }
std::string& operator<<(std::string& out, double value) { return add_number_to_string(value, out); }
std::string& operator<<(std::string& out, void const* value) { return add_number_to_string(value, out); }
