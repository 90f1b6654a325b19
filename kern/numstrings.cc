// numstrings.cc: the named number readers and the hexadecimal reader.
#include "numstrings.h"

#include <cstdio>

#include "exceptions.h"
#include "numstrings-int.h"

namespace kern_n {
namespace detail {

void raise_number_out_of_range(lstr_t const& s, bool is_signed, unsigned int size) {
    char bits[16];
    char const* type;
    switch (size) {
    case 1: type = "char"; break;
    case 2: type = "short"; break;
    case 4: type = "int"; break;
    case 8: type = "long"; break;
    default:
        std::snprintf(bits, sizeof bits, "%u-bit", size * 8u);
        type = bits;
        break;
    }
    QVL_THROW(number_format_exception, "%ssigned %s number value \"%.*s\" is out of range",
              is_signed ? "" : "un", type, static_cast<int>(s.length()), s.ptr());
}

}  // namespace detail
}  // namespace kern_n

q_uint32_t string_to_num(lstr_t const& s) {
    return kern_n::string_to_number<unsigned int>(s, true, false);
}

q_uint32_t string_to_num_strict(lstr_t const& s) {
    return kern_n::string_to_number<unsigned int>(s, false, true);
}

q_uint64_t string_to_uint64(lstr_t const& s) {
    return kern_n::string_to_number<unsigned long>(s, false, false);
}

q_int64_t string_to_int64(lstr_t const& s) {
    return kern_n::string_to_number<long>(s, true, false);
}

double string_to_double(lstr_t const& s) {
    return kern_n::string_to_number<double>(s, true, false);
}

namespace {

// Hexadecimal digit values by byte; 255 marks a byte that is not a digit.
struct hex_table_t {
    unsigned char value[256];

    constexpr hex_table_t() : value() {
        for (int i = 0; i < 256; ++i) value[i] = 255;
        for (int i = 0; i < 10; ++i) value['0' + i] = static_cast<unsigned char>(i);
        for (int i = 0; i < 6; ++i) {
            value['A' + i] = static_cast<unsigned char>(10 + i);
            value['a' + i] = static_cast<unsigned char>(10 + i);
        }
    }
};

constexpr hex_table_t hex_table;

}  // namespace

q_uint32_t hex_string_to_num(lstr_t const& s) {
    if (s.empty()) QVL_THROW(number_format_exception, "empty string");
    q_uint32_t value = 0;
    for (unsigned long i = 0; i < s.length(); ++i) {
        unsigned char const c = static_cast<unsigned char>(s[i]);
        unsigned char const digit = hex_table.value[c];
        if (digit == 255)
            QVL_THROW(number_format_exception, "illegal char 0x%02x in string \"%.*s\" at position %u",
                      c, static_cast<int>(s.length()), s.ptr(), static_cast<unsigned int>(i));
        // Digits past the eighth push the oldest ones out, without an error.
        value = value << 4 | digit;
    }
    return value;
}
