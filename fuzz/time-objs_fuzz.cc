// Fuzz target for the two time stamp readers. Whatever the bytes, the
// 17-digit reader returns or throws number_format_exception and the RFC 1123
// reader returns or throws timestamp_format_exception; anything else
// escapes and stops the fuzzer. The RFC input lies in a heap block of its
// exact size, so AddressSanitizer reports any read past its end. A stamp
// that was read prints back in the same form and reads back to itself, to
// the precision of the form.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "exceptions.h"
#include "time-objs.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

bool all_digits(std::string const& s) {
    for (char c : s)
        if (c < '0' || c > '9') return false;
    return true;
}

void digits_form(char const* data, std::size_t size) {
    std::string const text(data, size);
    timestamp_t t;
    try {
        t = timestamp_t(text);
    } catch (number_format_exception_shell_t const& e) {
        check(e.what()[0] != 0);
        return;
    }
    std::string const back = t;
    // Stamps before year 1 print a sign and are not read back; one wrapped
    // past the tick range may carry a fraction of a millisecond.
    if (back.size() == 17 && all_digits(back))
        check(timestamp_t(back).value == t.value - t.value % (kern::time::ticks_per_second / 1000));
}

void rfc_form(char const* data, std::size_t size) {
    std::unique_ptr<char[]> const copy(new char[size ? size : 1]);
    std::memcpy(copy.get(), data, size);
    timestamp_t t;
    try {
        t = timestamp_t(lstr_t(copy.get(), size));
    } catch (timestamp_format_exception_shell_t const& e) {
        check(e.what()[0] != 0);
        return;
    }
    // Within what the calendar check accepts and the ticks hold without
    // wrapping, the printed form reads back to the same second.
    int y, m, d;
    t.date(&y, &m, &d);
    if (t.value > 0 && y >= 1400 && y <= 2900) {
        std::string s;
        t.rfc1123_date(s);
        // A stamp wrapped past the tick range may carry a fraction of a
        // second, which the text leaves out.
        check(timestamp_t(lstr_t(s)).value == t.value - t.value % kern::time::ticks_per_second);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    char const* const text = reinterpret_cast<char const*>(data);
    digits_form(text, size);
    rfc_form(text, size);
    return 0;
}
