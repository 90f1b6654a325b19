// unicode.cc: the locale and code page of the Unicode services, and the ICU
// objects each thread keeps for them. The services themselves are in
// unicode-convert.cc (validation, conversions) and unicode-text.cc (case,
// collation, breaking).
#include "unicode.h"

#include <atomic>
#include <clocale>
#include <cstdlib>
#include <cstring>

#include <unicode/uloc.h>
#include <unicode/ustring.h>

#include "exceptions.h"
#include "unicode-int.h"

namespace {

// The library's locale and code page. Written only by ICU_ctor and
// ICU_setlocale, at start-up; zero until then, which ICU reads as its own
// defaults.
struct settings_t {
    // Empty: ICU's default converter, which Linux builds of ICU hardwire to
    // UTF-8 (they ignore ucnv_setDefaultName, hence a name of our own).
    char codepage[64];
    char locale[ULOC_FULLNAME_CAPACITY];
    bool ascii_case_special;
};
settings_t s_settings;

// Counts the changes of s_settings, so that every thread renews its ICU
// objects at its next call.
std::atomic<unsigned> s_generation{1};

char const* locale_arg() noexcept { return s_settings.locale[0] ? s_settings.locale : nullptr; }

bool is_c_locale(char const* name) noexcept {
    return std::strcmp(name, "C") == 0 || std::strcmp(name, "POSIX") == 0;
}

// Whether "i" and "I" map to each other plainly under locale (they do not in
// Turkish and Azeri); ICU's case properties are built in, so this loads no
// data.
bool ascii_case_special(char const* locale) noexcept {
    UChar out[4];
    UErrorCode st = U_ZERO_ERROR;
    int32_t const up = u_strToUpper(out, 4, u"i", 1, locale, &st);
    bool const up_plain = U_SUCCESS(st) && up == 1 && out[0] == u'I';
    int32_t const low = u_strToLower(out, 4, u"I", 1, locale, &st);
    return !(up_plain && U_SUCCESS(st) && low == 1 && out[0] == u'i');
}

// The ICU objects of one thread, for the locale of one generation.
struct thread_icu_t {
    unsigned generation = 0;
    UCaseMap* casemap = nullptr;
    UCollator* collator = nullptr;
    UBreakIterator* breaker[UBRK_SENTENCE + 1] = {};

    ~thread_icu_t() { reset(); }

    void reset() noexcept {
        ucasemap_close(casemap);
        casemap = nullptr;
        if (collator) ucol_close(collator);
        collator = nullptr;
        for (UBreakIterator*& b : breaker) {
            if (b) ubrk_close(b);
            b = nullptr;
        }
    }

    thread_icu_t& fresh() noexcept {
        unsigned const g = s_generation.load(std::memory_order_acquire);
        if (g != generation) {
            reset();
            generation = g;
        }
        return *this;
    }
};

thread_local thread_icu_t t_icu;

template <class T>
T* opened(T* obj, UErrorCode const& st, char const* what) {  // st by reference: read after obj is made
    if (U_FAILURE(st))
        QVL_THROW(icu_exception, "unable to open the %s of locale \"%s\" because of %s", what,
                  locale_arg() ? locale_arg() : uloc_getDefault(), u_errorName(st));
    return obj;
}

}  // namespace

namespace kern_n {
namespace detail {

UConverter* open_converter(char const* codepage) {
    char const* const name = codepage ? codepage : (s_settings.codepage[0] ? s_settings.codepage : nullptr);
    UErrorCode st = U_ZERO_ERROR;
    UConverter* cnv = ucnv_open(name, &st);
    if (U_SUCCESS(st)) ucnv_setToUCallBack(cnv, UCNV_TO_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &st);
    if (U_SUCCESS(st)) ucnv_setFromUCallBack(cnv, UCNV_FROM_U_CALLBACK_STOP, nullptr, nullptr, nullptr, &st);
    if (U_FAILURE(st)) {
        if (cnv) ucnv_close(cnv);
        QVL_THROW(icu_exception, "unable to open the converter of \"%s\" because of %s", codepage_name(codepage),
                  u_errorName(st));
    }
    return cnv;
}

char const* codepage_name(char const* codepage) noexcept {
    if (codepage) return codepage;
    return s_settings.codepage[0] ? s_settings.codepage : ucnv_getDefaultName();
}

char const* locale_id() noexcept { return s_settings.locale; }

bool ascii_case_plain() noexcept { return !s_settings.ascii_case_special; }

int32_t icu_length(std::size_t n, char const* what) {
    if (n > static_cast<std::size_t>(INT32_MAX))
        QVL_THROW(icu_exception, "%s of %zu units is too long for ICU because of %s", what, n,
                  u_errorName(U_INDEX_OUTOFBOUNDS_ERROR));
    return static_cast<int32_t>(n);
}

void check_utf8(lstr_t const& s, char const* what, std::size_t checked) {
    std::size_t const bad = utf8_invalid_at(s.ptr() + checked, s.length() - checked);
    if (bad != lstr_t::npos)
        QVL_THROW(icu_exception, "%s is not valid UTF-8 at byte %zu because of %s", what, checked + bad,
                  u_errorName(U_INVALID_CHAR_FOUND));
}

UCaseMap* thread_casemap() {
    thread_icu_t& t = t_icu.fresh();
    if (!t.casemap) {
        UErrorCode st = U_ZERO_ERROR;
        // Folding keeps the Turkic dotted and dotless i apart where they
        // are letters of their own.
        uint32_t const options = s_settings.ascii_case_special ? U_FOLD_CASE_EXCLUDE_SPECIAL_I : 0;
        t.casemap = opened(ucasemap_open(locale_arg(), options, &st), st, "case mapping");
    }
    return t.casemap;
}

UCollator* thread_collator() {
    thread_icu_t& t = t_icu.fresh();
    if (!t.collator) {
        UErrorCode st = U_ZERO_ERROR;
        t.collator = opened(ucol_open(locale_arg(), &st), st, "collation");
    }
    return t.collator;
}

UBreakIterator* thread_breaker(UBreakIteratorType type) {
    thread_icu_t& t = t_icu.fresh();
    UBreakIterator*& b = t.breaker[type];
    if (!b) {
        UErrorCode st = U_ZERO_ERROR;
        b = opened(ubrk_open(type, locale_arg(), nullptr, 0, &st), st, "break rules");
    }
    return b;
}

void fill_case_tables(unsigned char* upcase, unsigned char* locase) noexcept {
    UConverter* cnv;
    try {
        cnv = open_converter(nullptr);  // the only step that can throw: once, not per byte
    } catch (...) {
        return;  // no converter for the code page: the tables keep what they hold
    }
    typedef int32_t (*case_map_t)(UChar*, int32_t, UChar const*, int32_t, char const*, UErrorCode*);
    for (unsigned v = 0; v < 256; ++v) {
        char const in = static_cast<char>(v);
        UChar wide[8];
        UErrorCode st = U_ZERO_ERROR;
        // ucnv_toUChars and ucnv_fromUChars reset the converter themselves.
        int32_t const wide_len = ucnv_toUChars(cnv, wide, 8, &in, 1, &st);
        if (U_FAILURE(st)) continue;
        struct {
            case_map_t mapper;
            unsigned char* table;
        } const maps[] = {{u_strToUpper, upcase}, {u_strToLower, locase}};
        for (auto const& m : maps) {
            UChar mapped[8];
            char out[8];
            st = U_ZERO_ERROR;
            int32_t const mapped_len = m.mapper(mapped, 8, wide, wide_len, locale_arg(), &st);
            if (U_FAILURE(st)) continue;
            int32_t const out_len = ucnv_fromUChars(cnv, out, 8, mapped, mapped_len, &st);
            if (U_SUCCESS(st) && out_len == 1) m.table[v] = static_cast<unsigned char>(out[0]);
        }
    }
    ucnv_close(cnv);
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
    if (name != nullptr) {
        try {
            ICU_setlocale(name);
            return;
        } catch (...) {
            // ICU keeps the defaults it derived itself.
        }
    }
    // Pinned, so that a later change of ICU's default by someone else does
    // not change what the library's services do half-way.
    std::strncpy(s_settings.locale, uloc_getDefault(), sizeof s_settings.locale - 1);
    s_settings.ascii_case_special = ascii_case_special(s_settings.locale);
    s_generation.fetch_add(1, std::memory_order_release);
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

    if (codeset.size() >= sizeof s_settings.codepage)
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
    std::memcpy(s_settings.codepage, codeset.c_str(), codeset.size() + 1);
    std::memcpy(s_settings.locale, id, sizeof id);
    s_settings.ascii_case_special = ascii_case_special(id);
    s_generation.fetch_add(1, std::memory_order_release);
}

}  // namespace kern
