// Fuzzes the quoted-string reader and writer. The input, in a heap block of
// exactly its size, is first read as a quoted form: the reader must either
// throw quoted_format_exception_shell_t or succeed, and then quoting its
// result and reading that back must give the result again. The input is
// then quoted as raw bytes, through both writers (the char* one into a heap
// block of exactly the counted size, so that any write past the count is
// caught): both must agree, stay within 0x21..0x7E, and read back to the
// input.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "amtypes.h"
#include "exceptions.h"
#include "quote-utils.h"

namespace {

void check(bool ok) {
    if (!ok) std::abort();
}

std::string quote(char const* s, std::size_t n) {
    unsigned long const size = calc_quoted_string_size(s, n);
    std::unique_ptr<char[]> block(new char[size]);
    unsigned long const written = quote_string(s, n, block.get());
    check(written == size);
    std::string q;
    quote_string(s, n, q);
    check(q.size() == size && std::memcmp(q.data(), block.get(), size) == 0);
    for (char c : q) check(static_cast<unsigned char>(c) >= 0x21 && static_cast<unsigned char>(c) <= 0x7E);
    return q;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(std::uint8_t const* data, std::size_t size) {
    std::unique_ptr<char[]> block(new char[size]);
    if (size) std::memcpy(block.get(), data, size);
    lstr_t const input(block.get(), size);

    std::string decoded;
    bool ok = true;
    try {
        dequote_string(input, decoded);
    } catch (quoted_format_exception_shell_t const&) {
        ok = false;
    }
    // Whatever was decoded never outgrows the quoted form.
    check(decoded.size() <= size);
    if (ok) {
        std::string const again = quote(decoded.data(), decoded.size());
        std::string back;
        dequote_string(lstr_t(again), back);
        check(back == decoded);
    }

    std::string const q = quote(block.get(), size);
    std::string back;
    dequote_string(lstr_t(q), back);
    check(back.size() == size && std::memcmp(back.data(), block.get(), size) == 0);
    return 0;
}
