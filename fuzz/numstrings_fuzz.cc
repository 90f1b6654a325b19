// Fuzzes every number reader: the decimal scanner through each named entry
// point, the hexadecimal reader, and the strtol-based converter with bases
// 0, 8 and 16. The input sits in a heap block of exactly its size, so a read
// past the slice is caught by AddressSanitizer. A reader must return or throw
// number_format_exception_shell_t; anything else escapes and stops the run.
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <memory>

#include "amtypes.h"
#include "exceptions.h"
#include "numstrings-int.h"
#include "numstrings.h"

namespace {

template <typename F>
bool attempt(F f) {
    try {
        f();
        return true;
    } catch (number_format_exception_shell_t const&) {
        return false;
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::unique_ptr<char[]> block(new char[size ? size : 1]);
    if (size) std::memcpy(block.get(), data, size);
    lstr_t const s(block.get(), size);

    attempt([&] { return string_to_num(s); });
    attempt([&] { return string_to_uint64(s); });
    attempt([&] { return string_to_int64(s); });
    attempt([&] { return string_to_double(s); });
    attempt([&] { return hex_string_to_num(s); });
    attempt([&] { return s.tod(); });
    attempt([&] { return kern_n::string_to_number<int>(s, true, false); });
    attempt([&] { return kern_n::string_to_number<unsigned long>(s, true, false); });
    for (unsigned int base : {0u, 8u, 10u, 16u}) {
        attempt([&] { return s.toi(base); });
        attempt([&] { return s.toul(base); });
        attempt([&] { return s.tou64(base); });
        attempt([&] { return s.to64(base); });
    }

    // Digits only: the strict reader must agree with from_chars whenever
    // from_chars finds the value in range.
    q_uint32_t strict = 0;
    if (attempt([&] { strict = string_to_num_strict(s); })) {
        unsigned int expected = 0;
        auto const r = std::from_chars(s.begin(), s.end(), expected);
        if (r.ec == std::errc() && r.ptr == s.end() && expected != strict) __builtin_trap();
    }
    return 0;
}
