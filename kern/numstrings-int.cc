// numstrings-int.cc: the decimal scanner.
//
// The scanner has two halves. The front handles the common input, a run of
// integer digits: up to eight at once by word arithmetic (they cannot
// overflow), then digit by digit with the overflow test; for integer results
// it does no floating-point work at all. The first byte that is not a digit
// hands over to the out-of-line tail, which knows separators, exponents and
// the scaling rules.
#include "numstrings-int.h"

#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <limits>
#include <type_traits>

#include "exceptions.h"

namespace kern_n {
namespace {

// The throw sites, out of line so that the loops stay small.
[[noreturn]] __attribute__((noinline, cold)) void raise_empty() {
    QVL_THROW(number_format_exception, "empty string");
}

[[noreturn]] __attribute__((noinline, cold)) void raise_illegal(lstr_t const& s, unsigned char c,
                                                                int position) {
    QVL_THROW(number_format_exception, "illegal char \\x%02x in string \"%.*s\" at position %d", c,
              static_cast<int>(s.length()), s.ptr(), position);
}

[[noreturn]] __attribute__((noinline, cold)) void raise_digit_overflow(lstr_t const& s,
                                                                       int position) {
    QVL_THROW(number_format_exception, "integer overflow detected in string \"%.*s\" at position %d",
              static_cast<int>(s.length()), s.ptr(), position);
}

[[noreturn]] __attribute__((noinline, cold)) void raise_exponent_overflow(lstr_t const& s) {
    QVL_THROW(number_format_exception,
              "integer overflow detected in string \"%.*s\" at exponent applying",
              static_cast<int>(s.length()), s.ptr());
}

// value * 10 + digit, wrapping for integers (done in the unsigned type, as
// signed overflow is not defined), plain arithmetic for double.
template <typename T>
inline T times10_plus(T value, unsigned digit) noexcept {
    if constexpr (std::is_floating_point_v<T>) {
        return value * 10 + digit;
    } else {
        using U = std::make_unsigned_t<T>;
        return static_cast<T>(static_cast<U>(static_cast<U>(value) * 10u + digit));
    }
}

// Two's-complement negation in R, also for unsigned R.
template <typename R>
inline R negate(R value) noexcept {
    if constexpr (std::is_floating_point_v<R>) {
        return -value;
    } else {
        using U = std::make_unsigned_t<R>;
        return static_cast<R>(static_cast<U>(0) - static_cast<U>(value));
    }
}

template <typename T>
inline T next_digit(T value, unsigned digit, lstr_t const& s, int position) {
    T const next = times10_plus(value, digit);
    if (__builtin_expect(next < value, 0)) raise_digit_overflow(s, position);
    return next;
}

// Truncates the scaled floating-point value toward zero into R, refusing
// what R cannot hold. Unsigned R takes negative values the way the digit
// path does, by two's-complement negation.
template <typename R>
R truncate_scaled(double d, lstr_t const& s) {
    double const t = std::trunc(d);
    constexpr double range = std::is_signed_v<R> ? -static_cast<double>(std::numeric_limits<R>::min())
                                                 : 2.0 * (static_cast<double>(std::numeric_limits<R>::max() / 2) + 1.0);
    if constexpr (std::is_signed_v<R>) {
        if (!(t >= -range && t < range)) raise_exponent_overflow(s);
        return static_cast<R>(t);
    } else {
        if (!(t > -range && t < range)) raise_exponent_overflow(s);
        return t < 0 ? negate(static_cast<R>(-t)) : static_cast<R>(t);
    }
}

// The part of the scan that begins at the first byte that is not an integer
// digit: p points at it, value holds the (unsigned) integer part so far.
template <typename R>
__attribute__((noinline)) R scan_tail(lstr_t const& s, char const* first, char const* p, R value,
                                      bool negative, bool integer_only) {
    char const* const end = s.ptr() + s.length();
    int skipped = 0;  // exponent signs consumed within the marker's step
    bool in_fraction = false;
    bool in_exponent = false;
    bool exponent_negative = false;
    double fraction = 0;
    double place = 0.1;
    int exponent = 0;

    for (; p != end; ++p) {
        unsigned char const c = static_cast<unsigned char>(*p);
        if (!in_exponent && !integer_only) {
            if (!in_fraction && (c == '.' || c == ',')) {
                in_fraction = true;
                continue;
            }
            if (c == 'e' || c == 'E') {
                in_exponent = true;
                // The sign belongs to the marker's step; past the slice's end
                // there is nothing to look at, the exponent stays 0.
                if (p + 1 != end && (p[1] == '+' || p[1] == '-')) {
                    exponent_negative = p[1] == '-';
                    ++p;
                    ++skipped;
                }
                continue;
            }
        }
        int const position = static_cast<int>(p - first) - skipped;
        unsigned const digit = static_cast<unsigned>(c) - '0';
        if (digit > 9) raise_illegal(s, c, position);
        if (in_exponent) {
            exponent = next_digit(exponent, digit, s, position);
        } else if (in_fraction) {
            fraction += digit * place;
            place /= 10;
        } else {
            value = next_digit(value, digit, s, position);
        }
    }

    int const signed_exponent = exponent_negative ? -exponent : exponent;
    if constexpr (std::is_floating_point_v<R>) {
        double d = value + fraction;
        if (negative) d = -d;
        if (in_exponent) d *= detail::pow10(signed_exponent);
        return d;
    } else {
        if (negative) value = negate(value);
        if (!in_exponent) return value;
        if (in_fraction) {
            // The integer part is already negated here and the sum is negated
            // again: "-1.5e1" reads as 5. Kept as it is.
            double d = static_cast<double>(value) + fraction;
            if (negative) d = 0 - d;
            return truncate_scaled<R>(d * detail::pow10(signed_exponent), s);
        }
        // 10^9 is the largest power of ten whose 32-bit factor is exact.
        if (exponent >= 10) raise_exponent_overflow(s);
        auto const factor =
            static_cast<unsigned int>(static_cast<q_int64_t>(detail::pow10(exponent)));
        if (exponent_negative) return static_cast<R>(value / static_cast<R>(factor));
        using U = std::make_unsigned_t<R>;
        R const product = static_cast<R>(static_cast<U>(value) * factor);
        if (product / static_cast<R>(factor) != value) raise_exponent_overflow(s);
        return product;
    }
}

// Up to eight bytes of the slice as one little-endian word, the first byte
// lowest; n is 1 to 8 and nothing outside [p, p + n) is read. Shorter runs
// are moved to the top and padded below with "0" bytes, which makes them
// read as the same number with leading zeros.
inline std::uint64_t load_digits(char const* p, unsigned long n) noexcept {
    std::uint64_t v;
    if (n >= 8) {
        std::memcpy(&v, p, 8);
        return v;
    }
    if (n >= 4) {
        // Two overlapping four-byte loads; the shared bytes are equal.
        std::uint32_t lo, hi;
        std::memcpy(&lo, p, 4);
        std::memcpy(&hi, p + n - 4, 4);
        v = lo | static_cast<std::uint64_t>(hi) << (8 * (n - 4));
    } else {
        v = static_cast<std::uint64_t>(static_cast<unsigned char>(p[0])) |
            static_cast<std::uint64_t>(static_cast<unsigned char>(p[n / 2])) << (8 * (n / 2)) |
            static_cast<std::uint64_t>(static_cast<unsigned char>(p[n - 1])) << (8 * (n - 1));
    }
    return v << (8 * (8 - n)) | 0x3030303030303030ULL >> (8 * n);
}

// True when all eight bytes are "0".."9". A carry out of a byte of 0xfa or
// more can spoil its neighbour's test, but that byte fails on its own.
inline bool all_digits(std::uint64_t v) noexcept {
    return ((v & 0xF0F0F0F0F0F0F0F0ULL) |
            (((v + 0x0606060606060606ULL) & 0xF0F0F0F0F0F0F0F0ULL) >> 4)) == 0x3333333333333333ULL;
}

// The value of eight decimal digits, the first in the lowest byte: pairs,
// then quadruples, then the whole, each step one multiply.
inline std::uint32_t eight_digits(std::uint64_t v) noexcept {
    v -= 0x3030303030303030ULL;
    v = (v * 10 + (v >> 8)) & 0x00FF00FF00FF00FFULL;
    v = (v * 100 + (v >> 16)) & 0x0000FFFF0000FFFFULL;
    v = (v * 10000 + (v >> 32)) & 0xFFFFFFFFULL;
    return static_cast<std::uint32_t>(v);
}

}  // namespace

template <typename R>
R string_to_number(lstr_t const& s, bool allow_sign, bool integer_only) {
    char const* p = s.ptr();
    char const* const end = p + s.length();
    if (p == end) raise_empty();
    bool negative = false;
    if (allow_sign && (*p == '-' || *p == '+')) {
        negative = *p == '-';
        if (++p == end) return R(0);  // a lone sign reads as zero
    }
    char const* const first = p;
    R value = 0;
    // Eight digits cannot overflow any result type, so the first (up to)
    // eight are taken in one step when they are all digits; anything else
    // is left to the loops below, which find the exact failing position.
    unsigned long const n = static_cast<unsigned long>(end - p);
    std::uint64_t const head = load_digits(p, n);
    if (__builtin_expect(all_digits(head), 1)) {
        value = static_cast<R>(eight_digits(head));
        p += n < 8 ? n : 8;
    }
    // Up to digits10 digits cannot overflow R either, so the overflow test
    // would never fire there; it is left out of that stretch. Past it every
    // digit is tested as add_digit does.
    constexpr long safe = std::is_floating_point_v<R> ? LONG_MAX : std::numeric_limits<R>::digits10;
    char const* const safe_end = end - first > safe ? first + safe : end;
    for (; p < safe_end; ++p) {
        unsigned const digit = static_cast<unsigned>(static_cast<unsigned char>(*p)) - '0';
        if (digit > 9) return scan_tail(s, first, p, value, negative, integer_only);
        value = times10_plus(value, digit);
    }
    for (; p != end; ++p) {
        unsigned const digit = static_cast<unsigned>(static_cast<unsigned char>(*p)) - '0';
        if (digit > 9) return scan_tail(s, first, p, value, negative, integer_only);
        value = next_digit(value, digit, s, static_cast<int>(p - first));
    }
    return negative ? negate(value) : value;
}

template int string_to_number<int>(lstr_t const&, bool, bool);
template unsigned int string_to_number<unsigned int>(lstr_t const&, bool, bool);
template long string_to_number<long>(lstr_t const&, bool, bool);
template unsigned long string_to_number<unsigned long>(lstr_t const&, bool, bool);
template double string_to_number<double>(lstr_t const&, bool, bool);

namespace detail {

template <typename T>
T add_digit(T value, unsigned char digit, lstr_t s, int position) {
    return next_digit(value, digit, s, position);
}

template <typename T>
double pow10(T e) {
    return std::pow(10.0, e);
}

template int add_digit<int>(int, unsigned char, lstr_t, int);
template unsigned int add_digit<unsigned int>(unsigned int, unsigned char, lstr_t, int);
template long add_digit<long>(long, unsigned char, lstr_t, int);
template unsigned long add_digit<unsigned long>(unsigned long, unsigned char, lstr_t, int);
template double add_digit<double>(double, unsigned char, lstr_t, int);
template double pow10<int>(int);

}  // namespace detail
}  // namespace kern_n
