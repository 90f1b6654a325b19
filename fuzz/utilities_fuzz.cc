// Memory dumps and error-chain splitting on arbitrary bytes: lengths are
// checked against their bounds and every dump is decoded back to the input.
#include <cctype>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <string>

#include "numeric-triades.h"
#include "utilities.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

// Counts every position at which marker starts, overlaps included.
std::size_t occurrences(std::string const& text, char const* marker) {
    std::size_t n = 0;
    for (std::size_t at = text.find(marker); at != std::string::npos; at = text.find(marker, at + 1)) ++n;
    return n;
}

void check_dump_mem(std::uint8_t const* data, std::size_t size) {
    std::string const out = dump_mem(data, size);
    std::string header;
    add_number_to_string(size, header);
    header += "b =?ASCII?Q?";
    check(out.size() >= header.size() + size + 2 && out.size() <= header.size() + 3 * size + 2);
    check(out.compare(0, header.size(), header) == 0);
    check(out.compare(out.size() - 2, 2, "?=") == 0);
    // Decode the body: "==" is '=', "=XY" a byte, anything else itself.
    std::size_t i = header.size();
    std::size_t const body_end = out.size() - 2;
    std::size_t k = 0;
    while (i < body_end) {
        check(k < size);
        unsigned char c = static_cast<unsigned char>(out[i]);
        if (c == '=') {
            check(i + 1 < body_end);
            if (out[i + 1] == '=') {
                i += 2;
            } else {
                check(i + 2 < body_end);
                unsigned const hi = from_hex_dig(static_cast<unsigned char>(out[i + 1]));
                unsigned const lo = from_hex_dig(static_cast<unsigned char>(out[i + 2]));
                check(hi < 16 && lo < 16 && !std::islower(out[i + 1]) && !std::islower(out[i + 2]));
                c = static_cast<unsigned char>(hi << 4 | lo);
                check(c < 32 || c > 126);
                i += 3;
            }
        } else {
            check(c >= 32 && c <= 126);
            ++i;
        }
        check(c == data[k++]);
    }
    check(k == size);
}

void check_hex_dumps(char const* data, std::size_t size) {
    std::string const just = hex_dump_just_mem(data, size);
    check(just.size() == 2 * size);
    for (std::size_t k = 0; k < size; ++k) {
        unsigned const hi = from_hex_dig(static_cast<unsigned char>(just[2 * k]));
        unsigned const lo = from_hex_dig(static_cast<unsigned char>(just[2 * k + 1]));
        check(hi < 16 && lo < 16 && !std::isupper(just[2 * k]) && !std::isupper(just[2 * k + 1]));
        check(static_cast<unsigned char>(data[k]) == (hi << 4 | lo));
    }
    std::string dec;
    add_number_to_string(size, dec);
    check(hex_dump_mem(data, size, false) == dec + " " + just);
    check(hex_dump_mem(data, size, true) == hex_string(static_cast<unsigned long long>(size)) + " " + just);
}

void check_split_error(std::string const& text) {
    std::string const out = split_error(text);
    std::size_t const markers =
        occurrences(text, " because of") + occurrences(text, " and unix error is") + occurrences(text, "; ");
    check(out.size() <= text.size() + 2 * markers);
    check(occurrences(out, "\r\n") >= occurrences(text, "\r\n"));
    if (markers == 0) check(out == text);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    char const* text = reinterpret_cast<char const*>(data);
    check_dump_mem(data, size);
    check_hex_dumps(text, size);
    check_split_error(std::string(text, size));
    return 0;
}
