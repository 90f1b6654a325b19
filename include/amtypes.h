// amtypes.h: the library's basic types and its string slice. The export
// markers and the integer names are in kern-config.h.
//
// lstr_t is a non-owning view of a run of bytes: a length and a pointer into
// memory that somebody else owns. Every text service of the library takes and
// returns lstr_t values. The bytes are not NUL-terminated and may contain
// NUL. The "word" operations form a small tokenizer: each call cuts one
// token off the front (or back) and moves the slice past it, so a parser is
// a loop of such calls on a local copy of its input.
//
// Thread safety: a slice is a value; distinct slices need no locking. The
// case tables are written once at library start-up, before other threads
// can use the library, and are read-only afterwards.
//
// Choices left open elsewhere and made here:
//  - an empty result slice keeps the pointer where the cut happened (or
//    whatever the source pointer was); only its length is meaningful;
//  - the strict argument of the cutting operations has no default, so that
//    every call site states which end-of-data rule it wants.
#ifndef QVLKERN_AMTYPES_H
#define QVLKERN_AMTYPES_H

#include <cstddef>
#include <string>
#include <vector>

#include "kern-config.h"

// Root of the library's interface classes: a virtual destructor only.
// Interfaces derive from it virtually.
class QVL_API if_root_t {
public:
    virtual ~if_root_t();
};

// Forbids copying of the classes that derive from it.
class QVL_API noncopyable_t {
protected:
    noncopyable_t() = default;
    ~noncopyable_t() = default;

public:
    noncopyable_t(noncopyable_t const&) = delete;
    noncopyable_t& operator=(noncopyable_t const&) = delete;
};

class QVL_API lstr_t {
public:
    static constexpr unsigned long npos = ~0UL;

    // Case tables indexed by an unsigned byte. They start as ASCII mappings,
    // so case-insensitive operations work before start-up; init_case()
    // refines them from the locale's case mapping once at start-up.
    static unsigned char upcase[256];
    static unsigned char locase[256];

    constexpr lstr_t() noexcept : len_(0), ptr_(nullptr) {}
    // A null C string gives an empty slice.
    lstr_t(char const* s) noexcept;  // NOLINT: implicit by design, text literals are slices
    constexpr lstr_t(char const* p, unsigned long n) noexcept : len_(n), ptr_(p) {}
    lstr_t(std::string const& s) noexcept : len_(s.size()), ptr_(s.data()) {}  // NOLINT

    unsigned long length() const noexcept { return len_; }
    unsigned long size() const noexcept { return len_; }
    char const* ptr() const noexcept { return ptr_; }
    char const* data() const noexcept { return ptr_; }
    bool empty() const noexcept { return len_ == 0; }
    char operator[](unsigned long i) const noexcept { return ptr_[i]; }
    char const* begin() const noexcept { return ptr_; }
    char const* end() const noexcept { return ptr_ + len_; }

    void set(char const* p, unsigned long n) noexcept { ptr_ = p; len_ = n; }
    void clear() noexcept { len_ = 0; }
    // Drops n bytes from the front / back; n must not exceed length().
    void remove_prefix(unsigned long n) noexcept { ptr_ += n; len_ -= n; }
    void remove_suffix(unsigned long n) noexcept { len_ -= n; }

    // --- searching and testing -------------------------------------------
    bool contain(char c) const noexcept;
    bool contain(lstr_t const& sub) const noexcept;
    bool contain_ic(lstr_t const& sub) const noexcept;
    bool contain_one(lstr_t set) const noexcept;
    unsigned long find(char c) const noexcept;
    unsigned long r_find(char c) const noexcept;
    unsigned long find_word(lstr_t const& sub) const noexcept;
    unsigned long find_word_ic(lstr_t const& sub) const noexcept;
    // A suffix test that also succeeds for a shorter slice beginning at this
    // slice's own pointer; callers rely on that short-cut.
    bool starts(lstr_t const& p) const noexcept;
    bool ends(lstr_t const& s) const noexcept;
    bool starts_ic(lstr_t const& p) const noexcept;
    bool ends_ic(lstr_t const& s) const noexcept;

    // --- comparison, always on unsigned bytes ------------------------------
    int cmp(lstr_t const& o) const noexcept;
    int ic_cmp(lstr_t const& o) const noexcept;
    bool eq(lstr_t const& o) const noexcept;
    bool ic_eq(lstr_t const& o) const noexcept;
    bool lt(lstr_t const& o) const noexcept;
    bool ic_lt(lstr_t const& o) const noexcept;

    // Case-insensitive comparison of NUL-terminated strings through upcase.
    static int strcasecmp(char const* a, char const* b) noexcept;
    static int strncasecmp(char const* a, char const* b, unsigned long n) noexcept;

    // --- trimming (mutating, chainable) -------------------------------------
    lstr_t& drop(char c) noexcept;
    lstr_t& drop(lstr_t const& set) noexcept;
    lstr_t& r_drop(char c) noexcept;
    lstr_t& r_drop(lstr_t const& set) noexcept;
    // Copy without leading and trailing blanks, CR, LF, tab and form feed.
    lstr_t trim() const noexcept;

    // --- token cutting (mutating: the token is returned, this keeps the rest)
    // In strict mode a token is only cut when more text follows it; the last
    // token stays in this for the caller. See the source for each form.
    lstr_t word(unsigned long k) noexcept;
    lstr_t word(char c, bool strict) noexcept;
    lstr_t word(lstr_t const& set, bool strict) noexcept;
    lstr_t r_word(char c, bool strict) noexcept;
    lstr_t r_word(lstr_t const& set, bool strict) noexcept;
    lstr_t word_by_eol(bool strict) noexcept;
    lstr_t word_word(lstr_t const& sep, bool strict) noexcept;
    lstr_t r_word_word(lstr_t const& sep, bool strict) noexcept;
    lstr_t word_word_ic(lstr_t const& sep, bool strict) noexcept;
    lstr_t r_word_word_ic(lstr_t const& sep, bool strict) noexcept;
    lstr_t& skip_words(unsigned long k, char c) noexcept;

    // --- counting and splitting (an empty sep means the default set) -------
    unsigned long words(lstr_t sep) const noexcept;
    unsigned long words(std::vector<lstr_t>& out, lstr_t sep) const;

    // --- conversion ----------------------------------------------------------
    std::string to_string() const;
    std::string to_lower_string() const;
    std::string to_upper_string() const;
    q_uint32_t calc_hash32() const noexcept;
    q_uint64_t calc_hash64() const noexcept;

    // Numbers: base 10 goes through the library's strict decimal scanner,
    // other bases through the C library's strtol family. All failures throw
    // number_format_exception_shell_t.
    int toi(unsigned int base) const;
    unsigned long toul(unsigned int base) const;
    q_uint64_t tou64(unsigned int base) const;
    q_int64_t to64(unsigned int base) const;
    double tod() const;

    // Refines the case tables from the locale's case mapping; called once at
    // library start-up.
    static void init_case();

    // The default separator set: blank, CR, LF, tab, form feed.
    static lstr_t const default_separators;

private:
    unsigned long len_;
    char const* ptr_;
};

inline bool operator==(lstr_t const& a, lstr_t const& b) noexcept { return a.eq(b); }
inline bool operator!=(lstr_t const& a, lstr_t const& b) noexcept { return !a.eq(b); }
inline bool operator<(lstr_t const& a, lstr_t const& b) noexcept { return a.lt(b); }

namespace kern {
namespace lstr {

// Reads s with fn (strtol, strtoul, strtoull or strtoll) in the given base
// from a NUL-terminated stack copy of at most 64 bytes; the whole slice must
// be the number. fn's result is converted to R unchecked. Instances:
// <int, long>, <unsigned long, unsigned long>, <unsigned long, unsigned long
// long>, <long, long long>. Throws number_format_exception_shell_t.
template <typename R, typename T>
QVL_API R cvt(lstr_t const& s, unsigned int base, T (*fn)(char const*, char**, int));

}  // namespace lstr
}  // namespace kern

#endif  // QVLKERN_AMTYPES_H
