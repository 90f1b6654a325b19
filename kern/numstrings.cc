// numstrings.cc: the named number readers and the hexadecimal reader.
#include "numstrings.h"

#include <cstdio>

#include "exceptions.h"

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
