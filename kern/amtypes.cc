// amtypes.cc: the string slice.
#include "amtypes.h"

#include <cstring>

#include "unicode-int.h"

if_root_t::~if_root_t() {}

// ASCII mappings until init_case() refines them; constant-initialised, so
// they are valid before any initialiser runs.
#define QVL_ROW16(base, f) f(base + 0), f(base + 1), f(base + 2), f(base + 3), f(base + 4), \
    f(base + 5), f(base + 6), f(base + 7), f(base + 8), f(base + 9), f(base + 10),          \
    f(base + 11), f(base + 12), f(base + 13), f(base + 14), f(base + 15)
#define QVL_TABLE256(f) QVL_ROW16(0, f), QVL_ROW16(16, f), QVL_ROW16(32, f), QVL_ROW16(48, f), \
    QVL_ROW16(64, f), QVL_ROW16(80, f), QVL_ROW16(96, f), QVL_ROW16(112, f), QVL_ROW16(128, f), \
    QVL_ROW16(144, f), QVL_ROW16(160, f), QVL_ROW16(176, f), QVL_ROW16(192, f),                 \
    QVL_ROW16(208, f), QVL_ROW16(224, f), QVL_ROW16(240, f)
#define QVL_ASCII_UP(c) static_cast<unsigned char>((c) >= 'a' && (c) <= 'z' ? (c) - 32 : (c))
#define QVL_ASCII_LO(c) static_cast<unsigned char>((c) >= 'A' && (c) <= 'Z' ? (c) + 32 : (c))

unsigned char lstr_t::upcase[256] = {QVL_TABLE256(QVL_ASCII_UP)};
unsigned char lstr_t::locase[256] = {QVL_TABLE256(QVL_ASCII_LO)};

#undef QVL_ASCII_LO
#undef QVL_ASCII_UP
#undef QVL_TABLE256
#undef QVL_ROW16

lstr_t const lstr_t::default_separators(" \r\n\t\f", 5);

namespace {

typedef unsigned char uchar;

inline uchar const* bytes(char const* p) noexcept { return reinterpret_cast<uchar const*>(p); }

// Membership of a byte in a separator set: 256 bits, built on the stack per
// call (32 bytes to clear, then one bit per byte of the set).
class byte_set_t {
public:
    constexpr byte_set_t() noexcept : bits_{0, 0, 0, 0} {}
    explicit byte_set_t(lstr_t const& set) noexcept : bits_{0, 0, 0, 0} {
        uchar const* s = bytes(set.ptr());
        for (unsigned long i = 0, n = set.length(); i < n; ++i) add(s[i]);
    }
    constexpr byte_set_t& add(uchar b) noexcept {
        bits_[b >> 6] |= std::uint64_t(1) << (b & 63);
        return *this;
    }
    bool has(uchar b) const noexcept { return (bits_[b >> 6] >> (b & 63)) & 1; }

private:
    std::uint64_t bits_[4];
};

constexpr byte_set_t eol_set() noexcept {
    byte_set_t s;
    s.add('\r').add('\n');
    return s;
}
constexpr byte_set_t k_eol = eol_set();

// Equality of n bytes through upcase.
inline bool eq_ic(uchar const* a, uchar const* b, unsigned long n) noexcept {
    uchar const* up = lstr_t::upcase;
    for (unsigned long i = 0; i < n; ++i)
        if (up[a[i]] != up[b[i]]) return false;
    return true;
}

// Index of the first occurrence of the non-empty needle s (n bytes) in the
// haystack h (len bytes), or npos.
unsigned long find_ic(uchar const* h, unsigned long len, uchar const* s, unsigned long n) noexcept {
    if (n > len) return lstr_t::npos;
    uchar const* up = lstr_t::upcase;
    uchar const first = up[s[0]];
    for (unsigned long i = 0, last = len - n; i <= last; ++i)
        if (up[h[i]] == first && eq_ic(h + i + 1, s + 1, n - 1)) return i;
    return lstr_t::npos;
}

unsigned long r_find_exact(uchar const* h, unsigned long len, uchar const* s, unsigned long n) noexcept {
    if (n > len) return lstr_t::npos;
    // Candidates start in [0, limit); each round narrows the limit to the
    // last position holding the first byte of the needle.
    unsigned long limit = len - n + 1;
    while (limit > 0) {
        void const* q = memrchr(h, s[0], limit);
        if (!q) break;
        unsigned long i = static_cast<unsigned long>(static_cast<uchar const*>(q) - h);
        if (std::memcmp(h + i, s, n) == 0) return i;
        limit = i;
    }
    return lstr_t::npos;
}

unsigned long r_find_ic(uchar const* h, unsigned long len, uchar const* s, unsigned long n) noexcept {
    if (n > len) return lstr_t::npos;
    uchar const* up = lstr_t::upcase;
    uchar const first = up[s[0]];
    for (unsigned long i = len - n + 1; i-- > 0;)
        if (up[h[i]] == first && eq_ic(h + i + 1, s + 1, n - 1)) return i;
    return lstr_t::npos;
}

inline int sign_of(int v) noexcept { return (v > 0) - (v < 0); }

int cmp_tail(unsigned long a, unsigned long b) noexcept { return a < b ? -1 : (a > b ? 1 : 0); }

// The tokenizer behind word(set), word_by_eol and words. A token is cut only
// when non-separator text follows the run of separators after it; at the end
// of the data strict keeps the token in s (without its trailing separators)
// and returns an empty slice.
inline lstr_t cut_set(lstr_t& s, byte_set_t const& set, bool strict) noexcept {
    unsigned long const len = s.length();
    if (len == 0) return lstr_t(s.ptr(), 0);
    char const* const p = s.ptr();
    uchar const* const b = bytes(p);
    unsigned long i = 0;
    while (i < len && !set.has(b[i])) ++i;
    unsigned long j = i;
    while (j < len && set.has(b[j])) ++j;
    if (j < len) {
        s.set(p + j, len - j);
        return lstr_t(p, i);
    }
    if (strict) {
        s.set(p, i);
        return lstr_t(p, 0);
    }
    s.set(p + len, 0);
    return lstr_t(p, i);
}

}  // namespace

lstr_t::lstr_t(char const* s) noexcept : len_(s ? std::strlen(s) : 0), ptr_(s) {}

// --- searching and testing -------------------------------------------------

bool lstr_t::contain(char c) const noexcept { return find(c) != npos; }

bool lstr_t::contain(lstr_t const& sub) const noexcept {
    if (sub.len_ == 0) return true;
    if (sub.len_ > len_) return false;
    if (sub.ptr_ == ptr_) return true;
    return find_word(sub) != npos;
}

bool lstr_t::contain_ic(lstr_t const& sub) const noexcept {
    if (sub.len_ == 0) return true;
    if (sub.len_ > len_) return false;
    if (sub.ptr_ == ptr_) return true;
    return find_word_ic(sub) != npos;
}

bool lstr_t::contain_one(lstr_t set) const noexcept {
    for (unsigned long i = 0; i < set.len_; ++i)
        if (contain(set.ptr_[i])) return true;
    return false;
}

unsigned long lstr_t::find(char c) const noexcept {
    if (len_ == 0) return npos;
    void const* q = std::memchr(ptr_, c, len_);
    return q ? static_cast<unsigned long>(static_cast<char const*>(q) - ptr_) : npos;
}

unsigned long lstr_t::r_find(char c) const noexcept {
    if (len_ == 0) return npos;
    void const* q = memrchr(ptr_, c, len_);
    return q ? static_cast<unsigned long>(static_cast<char const*>(q) - ptr_) : npos;
}

unsigned long lstr_t::find_word(lstr_t const& sub) const noexcept {
    if (sub.len_ == 0 || sub.len_ > len_) return npos;
    void const* q = memmem(ptr_, len_, sub.ptr_, sub.len_);
    return q ? static_cast<unsigned long>(static_cast<char const*>(q) - ptr_) : npos;
}

unsigned long lstr_t::find_word_ic(lstr_t const& sub) const noexcept {
    if (sub.len_ == 0) return npos;
    return find_ic(bytes(ptr_), len_, bytes(sub.ptr_), sub.len_);
}

bool lstr_t::starts(lstr_t const& p) const noexcept {
    if (p.len_ > len_) return false;
    if (p.len_ == 0 || p.ptr_ == ptr_) return true;
    return std::memcmp(ptr_, p.ptr_, p.len_) == 0;
}

bool lstr_t::ends(lstr_t const& s) const noexcept {
    if (s.len_ > len_) return false;
    if (s.len_ == 0 || s.ptr_ == ptr_) return true;
    return std::memcmp(ptr_ + (len_ - s.len_), s.ptr_, s.len_) == 0;
}

bool lstr_t::starts_ic(lstr_t const& p) const noexcept {
    if (p.len_ > len_) return false;
    if (p.len_ == 0 || p.ptr_ == ptr_) return true;
    return eq_ic(bytes(ptr_), bytes(p.ptr_), p.len_);
}

bool lstr_t::ends_ic(lstr_t const& s) const noexcept {
    if (s.len_ > len_) return false;
    if (s.len_ == 0 || s.ptr_ == ptr_) return true;
    return eq_ic(bytes(ptr_ + (len_ - s.len_)), bytes(s.ptr_), s.len_);
}

// --- comparison ------------------------------------------------------------

int lstr_t::cmp(lstr_t const& o) const noexcept {
    unsigned long const n = len_ < o.len_ ? len_ : o.len_;
    if (n != 0 && ptr_ != o.ptr_) {
        int r = std::memcmp(ptr_, o.ptr_, n);  // compares as unsigned char
        if (r != 0) return sign_of(r);
    }
    return cmp_tail(len_, o.len_);
}

int lstr_t::ic_cmp(lstr_t const& o) const noexcept {
    unsigned long const n = len_ < o.len_ ? len_ : o.len_;
    if (ptr_ != o.ptr_) {
        uchar const* a = bytes(ptr_);
        uchar const* b = bytes(o.ptr_);
        for (unsigned long i = 0; i < n; ++i) {
            uchar ca = upcase[a[i]], cb = upcase[b[i]];
            if (ca != cb) return ca < cb ? -1 : 1;
        }
    }
    return cmp_tail(len_, o.len_);
}

bool lstr_t::eq(lstr_t const& o) const noexcept {
    if (len_ != o.len_) return false;
    if (len_ == 0 || ptr_ == o.ptr_) return true;
    return std::memcmp(ptr_, o.ptr_, len_) == 0;
}

bool lstr_t::ic_eq(lstr_t const& o) const noexcept {
    if (len_ != o.len_) return false;
    if (len_ == 0 || ptr_ == o.ptr_) return true;
    return eq_ic(bytes(ptr_), bytes(o.ptr_), len_);
}

bool lstr_t::lt(lstr_t const& o) const noexcept { return cmp(o) < 0; }

bool lstr_t::ic_lt(lstr_t const& o) const noexcept { return ic_cmp(o) < 0; }

int lstr_t::strcasecmp(char const* a, char const* b) noexcept {
    return strncasecmp(a, b, npos);
}

int lstr_t::strncasecmp(char const* a, char const* b, unsigned long n) noexcept {
    // A null pointer reads as an empty string.
    uchar const* x = bytes(a ? a : "");
    uchar const* y = bytes(b ? b : "");
    for (unsigned long i = 0; i < n; ++i) {
        if (x[i] == 0) return y[i] == 0 ? 0 : -1;
        if (y[i] == 0) return 1;
        uchar cx = upcase[x[i]], cy = upcase[y[i]];
        if (cx != cy) return cx < cy ? -1 : 1;
    }
    return 0;
}

// --- trimming ----------------------------------------------------------------

lstr_t& lstr_t::drop(char c) noexcept {
    unsigned long i = 0;
    while (i < len_ && ptr_[i] == c) ++i;
    ptr_ += i;
    len_ -= i;
    return *this;
}

lstr_t& lstr_t::drop(lstr_t const& set) noexcept {
    if (len_ == 0) return *this;
    byte_set_t const in(set);
    uchar const* b = bytes(ptr_);
    unsigned long i = 0;
    while (i < len_ && in.has(b[i])) ++i;
    ptr_ += i;
    len_ -= i;
    return *this;
}

lstr_t& lstr_t::r_drop(char c) noexcept {
    while (len_ > 0 && ptr_[len_ - 1] == c) --len_;
    return *this;
}

lstr_t& lstr_t::r_drop(lstr_t const& set) noexcept {
    if (len_ == 0) return *this;
    byte_set_t const in(set);
    uchar const* b = bytes(ptr_);
    while (len_ > 0 && in.has(b[len_ - 1])) --len_;
    return *this;
}

lstr_t lstr_t::trim() const noexcept {
    lstr_t r(*this);
    r.drop(default_separators).r_drop(default_separators);
    return r;
}

// --- token cutting -----------------------------------------------------------

lstr_t lstr_t::word(unsigned long k) noexcept {
    unsigned long const n = k < len_ ? k : len_;
    lstr_t token(ptr_, n);
    ptr_ += n;
    len_ -= n;
    return token;
}

// Exactly one c is consumed, so 'a,,b' gives 'a', '' and 'b'; a c at the very
// end still cuts its token.
lstr_t lstr_t::word(char c, bool strict) noexcept {
    unsigned long const i = find(c);
    if (i == npos) {
        if (strict) return lstr_t(ptr_, 0);
        lstr_t token(*this);
        ptr_ += len_;
        len_ = 0;
        return token;
    }
    lstr_t token(ptr_, i);
    ptr_ += i + 1;
    len_ -= i + 1;
    return token;
}

lstr_t lstr_t::word(lstr_t const& set, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    return cut_set(*this, byte_set_t(set), strict);
}

lstr_t lstr_t::r_word(char c, bool strict) noexcept {
    unsigned long const i = r_find(c);
    if (i == npos) {
        if (strict) return lstr_t(ptr_, 0);
        lstr_t token(*this);
        len_ = 0;
        return token;
    }
    lstr_t token(ptr_ + i + 1, len_ - i - 1);
    len_ = i;
    return token;
}

// Mirror of cut_set: the run of separators before the token goes with it,
// and strict keeps the first token of the data in this.
lstr_t lstr_t::r_word(lstr_t const& set, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    byte_set_t const in(set);
    uchar const* b = bytes(ptr_);
    unsigned long i = len_;  // the token is [i, len_)
    while (i > 0 && !in.has(b[i - 1])) --i;
    unsigned long j = i;  // separators are [j, i)
    while (j > 0 && in.has(b[j - 1])) --j;
    lstr_t token(ptr_ + i, len_ - i);
    if (j > 0) {
        len_ = j;
        return token;
    }
    if (strict) {
        *this = token;
        return lstr_t(ptr_, 0);
    }
    len_ = 0;
    return token;
}

// Any mix of CR and LF after a line is consumed, so empty lines are skipped.
lstr_t lstr_t::word_by_eol(bool strict) noexcept { return cut_set(*this, k_eol, strict); }

// The separator-string cuts share their end-of-data rules; only the search
// differs. i is the separator's index in s, or npos.
namespace {

lstr_t cut_front_at(lstr_t& s, unsigned long i, unsigned long sep_len, bool strict) noexcept {
    if (i == lstr_t::npos) {
        if (strict && sep_len != 0) return lstr_t(s.ptr(), 0);
        lstr_t const token(s);
        s.remove_prefix(s.length());
        return token;
    }
    lstr_t const token(s.ptr(), i);
    s.remove_prefix(i + sep_len);
    return token;
}

lstr_t cut_back_at(lstr_t& s, unsigned long i, unsigned long sep_len, bool strict) noexcept {
    if (i == lstr_t::npos) {
        if (strict && sep_len != 0) return lstr_t(s.ptr(), 0);
        lstr_t const token(s);
        s.clear();
        return token;
    }
    lstr_t const token(s.ptr() + i + sep_len, s.length() - i - sep_len);
    s.remove_suffix(s.length() - i);
    return token;
}

}  // namespace

lstr_t lstr_t::word_word(lstr_t const& sep, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    return cut_front_at(*this, sep.len_ == 0 ? npos : find_word(sep), sep.len_, strict);
}

lstr_t lstr_t::word_word_ic(lstr_t const& sep, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    unsigned long const i = sep.len_ == 0 ? npos : find_ic(bytes(ptr_), len_, bytes(sep.ptr_), sep.len_);
    return cut_front_at(*this, i, sep.len_, strict);
}

lstr_t lstr_t::r_word_word(lstr_t const& sep, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    unsigned long const i = sep.len_ == 0 ? npos : r_find_exact(bytes(ptr_), len_, bytes(sep.ptr_), sep.len_);
    return cut_back_at(*this, i, sep.len_, strict);
}

lstr_t lstr_t::r_word_word_ic(lstr_t const& sep, bool strict) noexcept {
    if (len_ == 0) return lstr_t(ptr_, 0);
    unsigned long const i = sep.len_ == 0 ? npos : r_find_ic(bytes(ptr_), len_, bytes(sep.ptr_), sep.len_);
    return cut_back_at(*this, i, sep.len_, strict);
}

lstr_t& lstr_t::skip_words(unsigned long k, char c) noexcept {
    while (k-- > 0 && len_ > 0) {
        drop(c);
        word(c, false);
    }
    return *this;
}

// --- counting and splitting --------------------------------------------------

unsigned long lstr_t::words(lstr_t sep) const noexcept {
    byte_set_t const in(sep.len_ ? sep : default_separators);
    lstr_t rest(*this);
    unsigned long n = 0;
    while (rest.len_ > 0) {
        cut_set(rest, in, false);
        ++n;
    }
    return n;
}

unsigned long lstr_t::words(std::vector<lstr_t>& out, lstr_t sep) const {
    byte_set_t const in(sep.len_ ? sep : default_separators);
    lstr_t rest(*this);
    unsigned long n = 0;
    while (rest.len_ > 0) {
        out.push_back(cut_set(rest, in, false));
        ++n;
    }
    return n;
}

// --- conversion --------------------------------------------------------------

std::string lstr_t::to_string() const {
    if (ptr_ == nullptr || len_ == 0) return std::string();
    return std::string(ptr_, len_);
}

namespace {

std::string mapped(uchar const* b, unsigned long n, unsigned char const* table) {
    std::string r(n, '\0');
    for (unsigned long i = 0; i < n; ++i) r[i] = static_cast<char>(table[b[i]]);
    return r;
}

// h = first byte, then h * 31 + byte, wrapping in H; 0 for no bytes.
template <class H>
H hash31(uchar const* b, unsigned long n) noexcept {
    if (n == 0) return 0;
    H h = b[0];
    for (unsigned long i = 1; i < n; ++i) h = h * 31 + b[i];
    return h;
}

}  // namespace

std::string lstr_t::to_lower_string() const { return mapped(bytes(ptr_), len_, locase); }
std::string lstr_t::to_upper_string() const { return mapped(bytes(ptr_), len_, upcase); }
q_uint32_t lstr_t::calc_hash32() const noexcept { return hash31<q_uint32_t>(bytes(ptr_), len_); }
q_uint64_t lstr_t::calc_hash64() const noexcept { return hash31<q_uint64_t>(bytes(ptr_), len_); }

// Each byte is mapped as a one-byte string in the process's code page; a
// mapping that changes the length (a multi-byte sequence, "SS" for a sharp s)
// or that the Unicode services refuse leaves the ASCII entry in place.
void lstr_t::init_case() { kern_n::detail::fill_case_tables(upcase, locase); }

// ---------------------------------------------------------------------------
// Number conversion: base 10 goes to the library's decimal scanner, other
// bases to the C library's strtol family through cvt.
// ---------------------------------------------------------------------------

#include <cerrno>
#include <cstdlib>

#include "exceptions.h"
#include "numstrings-int.h"
#include "numstrings.h"

namespace kern {
namespace lstr {

template <typename R, typename T>
R cvt(lstr_t const& s, unsigned int base, T (*fn)(char const*, char**, int)) {
    unsigned long const n = s.length();
    if (n == 0) QVL_THROW(number_format_exception, "scanned number empty");
    if (n >= 65)
        QVL_THROW(number_format_exception, "too long scanned number \"%.*s\"", static_cast<int>(n),
                  s.ptr());
    char buffer[65];
    std::memcpy(buffer, s.ptr(), n);
    buffer[n] = '\0';
    char* end = nullptr;
    errno = 0;
    T const value = fn(buffer, &end, static_cast<int>(base));
    if (errno == ERANGE) QVL_THROW(number_format_exception, "scanned number \"%s\" out of range", buffer);
    if (errno == EINVAL) QVL_THROW(number_format_exception, "number \"%s\" conversion error", buffer);
    // Compared with the copy's own end, so that a NUL inside the slice is
    // refused like any other stray byte.
    if (end != buffer + n)
        QVL_THROW(number_format_exception,
                  "invalid symbol \\x%02X in scanned number \"%s\" at position #%lu",
                  static_cast<unsigned char>(*end), buffer,
                  static_cast<unsigned long>(end - buffer + 1));
    return static_cast<R>(value);
}

template int cvt<int, long>(lstr_t const&, unsigned int, long (*)(char const*, char**, int));
template unsigned long cvt<unsigned long, unsigned long>(lstr_t const&, unsigned int,
                                                         unsigned long (*)(char const*, char**, int));
template unsigned long cvt<unsigned long, unsigned long long>(
    lstr_t const&, unsigned int, unsigned long long (*)(char const*, char**, int));
template long cvt<long, long long>(lstr_t const&, unsigned int, long long (*)(char const*, char**, int));

}  // namespace lstr
}  // namespace kern

int lstr_t::toi(unsigned int base) const {
    if (base == 10) return kern_n::string_to_number<int>(*this, true, true);
    return kern::lstr::cvt<int, long>(*this, base, ::strtol);
}

unsigned long lstr_t::toul(unsigned int base) const {
    if (base == 10) return kern_n::string_to_number<unsigned long>(*this, true, true);
    return kern::lstr::cvt<unsigned long, unsigned long>(*this, base, ::strtoul);
}

q_uint64_t lstr_t::tou64(unsigned int base) const {
    if (base == 10) return kern_n::string_to_number<unsigned long>(*this, true, true);
    return kern::lstr::cvt<unsigned long, unsigned long long>(*this, base, ::strtoull);
}

q_int64_t lstr_t::to64(unsigned int base) const {
    if (base == 10) return kern_n::string_to_number<long>(*this, true, true);
    return kern::lstr::cvt<long, long long>(*this, base, ::strtoll);
}

double lstr_t::tod() const { return string_to_double(*this); }
