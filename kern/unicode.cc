// unicode.cc: the Unicode services, built on ICU.
#include "unicode.h"

#include <clocale>
#include <cstdlib>
#include <cstring>
#include <vector>

#include <unicode/ucnv.h>
#include <unicode/uloc.h>
#include <unicode/ustring.h>
#include <unicode/utypes.h>

#include "exceptions.h"
#include "unicode-int.h"

namespace {

// Name of the code page the library converts from and to; empty means ICU's
// default converter. Kept here because ICU builds for Linux hardwire their
// default to UTF-8 and ignore ucnv_setDefaultName. Written only by
// ICU_setlocale, at start-up.
char s_codepage[64];

// A buffer of n units that lives on the stack while it is small.
template <class T, int32_t Inline>
class buffer_t {
public:
    T* data() noexcept { return heap_.empty() ? local_ : heap_.data(); }
    int32_t capacity() const noexcept { return heap_.empty() ? Inline : static_cast<int32_t>(heap_.size()); }
    void grow(int32_t n) { heap_.resize(static_cast<std::size_t>(n)); }

private:
    T local_[Inline];
    std::vector<T> heap_;
};

// Calls f(dest, capacity, &status) once and, when the buffer was too small,
// again with one of the size f reported.
template <class T, int32_t Inline, class F>
int32_t fill(buffer_t<T, Inline>& buf, F f, char const* what) {
    UErrorCode st = U_ZERO_ERROR;
    int32_t n = f(buf.data(), buf.capacity(), &st);
    if (st == U_BUFFER_OVERFLOW_ERROR) {
        buf.grow(n + 1);
        st = U_ZERO_ERROR;
        n = f(buf.data(), buf.capacity(), &st);
    }
    if (U_FAILURE(st)) QVL_THROW(icu_exception, "%s because of %s", what, u_errorName(st));
    return n;
}

// The converter of the library's code page, set to stop at the first invalid or
// unmappable sequence instead of substituting.
class converter_t : noncopyable_t {
public:
    converter_t() {
        UErrorCode st = U_ZERO_ERROR;
        cnv_ = ucnv_open(s_codepage[0] ? s_codepage : nullptr, &st);
        if (U_SUCCESS(st))
            ucnv_setToUCallBack(cnv_, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &st);
        if (U_SUCCESS(st))
            ucnv_setFromUCallBack(cnv_, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &st);
        if (U_FAILURE(st)) {
            if (cnv_) ucnv_close(cnv_);
            QVL_THROW(icu_exception, "unable to open the converter of \"%s\" because of %s",
                      s_codepage[0] ? s_codepage : ucnv_getDefaultName(), u_errorName(st));
        }
    }
    ~converter_t() { ucnv_close(cnv_); }
    UConverter* get() const noexcept { return cnv_; }

private:
    UConverter* cnv_;
};

typedef int32_t (*case_map_t)(UChar*, int32_t, UChar const*, int32_t, char const*, UErrorCode*);

std::string map_case(lstr_t const& s, case_map_t mapper, char const* what) {
    if (s.empty()) return std::string();
    if (s.length() > static_cast<unsigned long>(INT32_MAX))
        QVL_THROW(icu_exception, "unable to convert %lu bytes to Unicode because of %s", s.length(),
                  u_errorName(U_INDEX_OUTOFBOUNDS_ERROR));
    converter_t cnv;
    int32_t const src_len = static_cast<int32_t>(s.length());

    buffer_t<UChar, 128> wide;
    int32_t const wide_len = fill(
        wide,
        [&](UChar* d, int32_t cap, UErrorCode* st) { return ucnv_toUChars(cnv.get(), d, cap, s.ptr(), src_len, st); },
        "unable to convert text to Unicode");

    buffer_t<UChar, 128> mapped;
    // A null locale is ICU's default locale.
    int32_t const mapped_len = fill(
        mapped,
        [&](UChar* d, int32_t cap, UErrorCode* st) { return mapper(d, cap, wide.data(), wide_len, nullptr, st); },
        what);

    buffer_t<char, 256> out;
    int32_t const out_len = fill(
        out,
        [&](char* d, int32_t cap, UErrorCode* st) { return ucnv_fromUChars(cnv.get(), d, cap, mapped.data(), mapped_len, st); },
        "unable to convert text from Unicode");
    return std::string(out.data(), static_cast<std::size_t>(out_len));
}

bool is_c_locale(char const* name) noexcept {
    return std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0;
}

}  // namespace

std::string upper_string_uc(lstr_t const& s) {
    return map_case(s, u_strToUpper, "unable to map text to upper case");
}

std::string lower_string_uc(lstr_t const& s) {
    return map_case(s, u_strToLower, "unable to map text to lower case");
}

namespace kern_n {
namespace detail {

void fill_case_tables(unsigned char* upcase, unsigned char* locase) noexcept {
    try {
        converter_t cnv;  // the only step that can throw: once, not per byte
        for (unsigned v = 0; v < 256; ++v) {
            char const in = static_cast<char>(v);
            UChar wide[8];
            UErrorCode st = U_ZERO_ERROR;
            // ucnv_toUChars and ucnv_fromUChars reset the converter themselves.
            int32_t const wide_len = ucnv_toUChars(cnv.get(), wide, 8, &in, 1, &st);
            if (U_FAILURE(st)) continue;
            struct {
                case_map_t mapper;
                unsigned char* table;
            } const maps[] = {{u_strToUpper, upcase}, {u_strToLower, locase}};
            for (auto const& m : maps) {
                UChar mapped[8];
                char out[8];
                st = U_ZERO_ERROR;
                int32_t const mapped_len = m.mapper(mapped, 8, wide, wide_len, nullptr, &st);
                if (U_FAILURE(st)) continue;
                int32_t const out_len = ucnv_fromUChars(cnv.get(), out, 8, mapped, mapped_len, &st);
                if (U_SUCCESS(st) && out_len == 1) m.table[v] = static_cast<unsigned char>(out[0]);
            }
        }
    } catch (...) {
        // no converter for the code page: the tables keep what they hold
    }
}

}  // namespace detail
}  // namespace kern_n

namespace kern {

void ICU_ctor() {
    char const* name = std::setlocale(LC_CTYPE, nullptr);
    if (name == nullptr || is_c_locale(name)) {
        name = nullptr;
        for (char const* var : {"LC_ALL", "LC_CTYPE", "LANG"}) {
            char const* v = std::getenv(var);
            if (v != nullptr && *v != '\0') {
                name = v;
                break;
            }
        }
    }
    if (name == nullptr) return;
    try {
        ICU_setlocale(name);
    } catch (...) {
        // ICU keeps the defaults it derived itself.
    }
}

void ICU_dtor() {}

void ICU_setlocale(char const* name) {
    if (name == nullptr || *name == '\0') return;
    // language[_territory][.codeset][@modifier]
    char const* dot = std::strchr(name, '.');
    char const* at = std::strchr(name, '@');
    if (dot != nullptr && at != nullptr && at < dot) dot = nullptr;
    std::string const base(name, dot ? dot : (at ? at : name + std::strlen(name)));
    std::string codeset;
    if (dot != nullptr) codeset.assign(dot + 1, at ? at : dot + std::strlen(dot));

    if (codeset.size() >= sizeof s_codepage)
        QVL_THROW(icu_exception, "unknown code set \"%s\" because of %s", codeset.c_str(),
                  u_errorName(U_ILLEGAL_ARGUMENT_ERROR));
    if (!codeset.empty()) {
        // Checked before anything changes.
        UErrorCode st = U_ZERO_ERROR;
        UConverter* cnv = ucnv_open(codeset.c_str(), &st);
        if (U_FAILURE(st))
            QVL_THROW(icu_exception, "unknown code set \"%s\" because of %s", codeset.c_str(), u_errorName(st));
        ucnv_close(cnv);
    }

    char id[ULOC_FULLNAME_CAPACITY];
    UErrorCode st = U_ZERO_ERROR;
    if (is_c_locale(base.c_str())) {
        std::strcpy(id, "en_US_POSIX");
    } else {
        std::string const posix = base + (at ? at : "");
        uloc_canonicalize(posix.c_str(), id, sizeof id, &st);
        if (st == U_STRING_NOT_TERMINATED_WARNING) st = U_BUFFER_OVERFLOW_ERROR;
        if (U_FAILURE(st))
            QVL_THROW(icu_exception, "unable to use locale \"%s\" because of %s", name, u_errorName(st));
    }
    uloc_setDefault(id, &st);
    if (U_FAILURE(st)) QVL_THROW(icu_exception, "unable to use locale \"%s\" because of %s", name, u_errorName(st));
    std::memcpy(s_codepage, codeset.c_str(), codeset.size() + 1);
}

}  // namespace kern
