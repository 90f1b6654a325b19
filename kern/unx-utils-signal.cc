// unx-utils-signal.cc: the fatal-signal report, signal names and the
// do-not-wait switch. Everything the handler reaches is async-signal-safe:
// see the header for why and how.
#include "unx-utils-signal.h"

#include <dlfcn.h>
#include <elf.h>
#include <errno.h>
#include <execinfo.h>
#include <link.h>
#include <string.h>
#include <time.h>
#include <ucontext.h>
#include <unistd.h>

#include <cstdint>

kern_n::seh_translator_t::dumper_t kern_n::seh_translator_t::dumper = nullptr;

namespace {

// The signals the report is installed for.
int const k_signals[] = {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSTKFLT, SIGXCPU, SIGXFSZ, SIGPWR, SIGSYS};

std::atomic<bool> s_with_stack(false);
// 0 before any report, 1 while one thread writes it, 2 once it is out and the
// default actions are back. Lock-free, so safe in a handler.
std::atomic<int> s_report(0);
static_assert(std::atomic<int>::is_always_lock_free, "the report state must be async-signal-safe");

// The buffer of q_signalname's "SIG#%u".
char s_unknown_name[16];

// Formats text without allocating. Writing to a descriptor, it flushes
// whenever its buffer fills, so texts of any length pass; writing into a
// caller's buffer, it keeps what fits and counts the rest.
class out_t {
public:
    // To descriptor fd, through a buffer of this object's.
    explicit out_t(int fd) noexcept : fd_(fd), buf_(own_), cap_(sizeof own_) {}
    // Into out[0, size), NUL-terminated by finish().
    out_t(char* out, std::size_t size) noexcept : fd_(-1), buf_(out), cap_(size) {}

    out_t& put(char c) noexcept {
        if (fd_ >= 0 && used_ == cap_) flush();
        if (fd_ >= 0 || used_ + 1 < cap_) buf_[used_++] = c;
        ++total_;
        return *this;
    }
    out_t& text(char const* s) noexcept {
        while (*s) put(*s++);
        return *this;
    }
    out_t& dec(unsigned long long v) noexcept {
        char digits[20];
        int n = 0;
        do digits[n++] = static_cast<char>('0' + v % 10); while ((v /= 10) != 0);
        while (n) put(digits[--n]);
        return *this;
    }
    out_t& sdec(long long v) noexcept {
        if (v < 0) put('-');
        return dec(v < 0 ? 0ULL - static_cast<unsigned long long>(v) : static_cast<unsigned long long>(v));
    }
    // Lower-case hexadecimal, at least width digits ("%016llx" with 16).
    out_t& hex(unsigned long long v, int width = 1) noexcept {
        char digits[16];
        int n = 0;
        do digits[n++] = "0123456789abcdef"[v & 0xF]; while ((v >>= 4) != 0);
        while (n < width) digits[n++] = '0';
        while (n) put(digits[--n]);
        return *this;
    }
    // "%p": "0x" and the digits, "(nil)" for null.
    out_t& ptr(std::uintptr_t v) noexcept { return v ? text("0x").hex(v) : text("(nil)"); }

    // Writes what is buffered to the descriptor, retrying interruptions and
    // partial writes; a failed write loses the rest of this piece only.
    void flush() noexcept {
        char const* p = buf_;
        std::size_t left = used_;
        while (left > 0) {
            ssize_t const n = ::write(fd_, p, left);
            if (n > 0) {
                p += n;
                left -= static_cast<std::size_t>(n);
            } else if (n < 0 && errno == EINTR) {
                continue;
            } else {
                break;
            }
        }
        used_ = 0;
    }
    // Ends the text: flushed to the descriptor, or NUL-terminated.
    std::size_t finish() noexcept {
        if (fd_ >= 0)
            flush();
        else if (cap_ > 0)
            buf_[used_] = '\0';
        return total_;
    }

private:
    int const fd_;
    char own_[256];
    char* const buf_;
    std::size_t const cap_;
    std::size_t used_ = 0;
    std::size_t total_ = 0;
};

// The C library's description of signo, or null when its table has none.
char const* described(int signo) noexcept { return signo >= 0 && signo < 65 ? sigdescr_np(signo) : nullptr; }

// --- frame texts --------------------------------------------------------------------

// A dynamic-section address: relocated in place by the loader for ordinary
// modules, left as an offset in read-only ones such as the vDSO.
std::uintptr_t dyn_address(ElfW(Addr) value, std::uintptr_t base) noexcept {
    return value < base ? value + base : value;
}

// The exported symbol of map nearest below address, by the rules dladdr
// follows: defined, not absolute, not thread-local, and either containing
// the address or, without a size, starting exactly at it; of several, the
// one starting last. Reads only the module's mapped tables.
ElfW(Sym) const* nearest_symbol(link_map const* map, std::uintptr_t address, char const*& strtab) noexcept {
    std::uintptr_t const base = map->l_addr;
    ElfW(Sym) const* symtab = nullptr;
    std::uint32_t const* gnu_hash = nullptr;
    ElfW(Word) const* sysv_hash = nullptr;
    std::size_t strsz = 0;
    strtab = nullptr;
    for (ElfW(Dyn) const* d = map->l_ld; d && d->d_tag != DT_NULL; ++d) {
        switch (d->d_tag) {
        case DT_SYMTAB: symtab = reinterpret_cast<ElfW(Sym) const*>(dyn_address(d->d_un.d_ptr, base)); break;
        case DT_STRTAB: strtab = reinterpret_cast<char const*>(dyn_address(d->d_un.d_ptr, base)); break;
        case DT_STRSZ: strsz = d->d_un.d_val; break;
        case DT_GNU_HASH: gnu_hash = reinterpret_cast<std::uint32_t const*>(dyn_address(d->d_un.d_ptr, base)); break;
        case DT_HASH: sysv_hash = reinterpret_cast<ElfW(Word) const*>(dyn_address(d->d_un.d_ptr, base)); break;
        default: break;
        }
    }
    if (!symtab || !strtab) return nullptr;
    ElfW(Sym) const* match = nullptr;
    auto consider = [&](ElfW(Sym) const& s) {
        if ((s.st_shndx == SHN_UNDEF && s.st_value == 0) || s.st_shndx == SHN_ABS) return;
        if (ELF64_ST_TYPE(s.st_info) == STT_TLS || s.st_name >= strsz) return;
        std::uintptr_t const start = base + s.st_value;
        if (address < start) return;
        bool const inside = ((s.st_shndx == SHN_UNDEF || s.st_size == 0) && address == start) ||
                            address < start + s.st_size;
        if (inside && (!match || match->st_value < s.st_value)) match = &s;
    };
    if (gnu_hash) {
        // nbuckets, symoffset, bloom words, bloom shift; the bloom filter;
        // the buckets; the chains, whose last entry has bit 0 set. The table
        // lists the exported symbols only.
        std::uint32_t const nbuckets = gnu_hash[0], symoffset = gnu_hash[1], bloom_size = gnu_hash[2];
        auto const* buckets =
            reinterpret_cast<std::uint32_t const*>(reinterpret_cast<ElfW(Addr) const*>(gnu_hash + 4) + bloom_size);
        std::uint32_t const* const chains = buckets + nbuckets;
        for (std::uint32_t b = 0; b < nbuckets; ++b) {
            std::uint32_t i = buckets[b];
            if (i < symoffset) continue;
            do consider(symtab[i]); while ((chains[i++ - symoffset] & 1u) == 0);
        }
    } else if (sysv_hash) {
        // The old table counts the symbols but lists local ones too.
        for (ElfW(Word) i = 0; i < sysv_hash[1]; ++i) {
            ElfW(Sym) const& s = symtab[i];
            unsigned const bind = ELF64_ST_BIND(s.st_info), vis = ELF64_ST_VISIBILITY(s.st_other);
            if ((bind == STB_GLOBAL || bind == STB_WEAK) && vis != STV_HIDDEN && vis != STV_INTERNAL) consider(s);
        }
    }
    return match;
}

void put_frame(out_t& out, void const* address) noexcept {
    auto const at = reinterpret_cast<std::uintptr_t>(address);
    dl_find_object found;
    link_map const* map = nullptr;
    if (_dl_find_object(const_cast<void*>(address), &found) == 0) map = found.dlfo_link_map;
    char const* file = map ? map->l_name : nullptr;
    if (file && !*file) file = program_invocation_name;  // the main program, as dladdr names it
    if (!file || !*file) {
        out.put('[').ptr(at).put(']');
        return;
    }
    char const* strtab = nullptr;
    ElfW(Sym) const* const sym = nearest_symbol(map, at, strtab);
    // Without a symbol the frame is placed relative to the load bias.
    std::uintptr_t const start = sym ? map->l_addr + sym->st_value : map->l_addr;
    out.text(file).put('(');
    if (sym) out.text(strtab + sym->st_name);
    if (sym || start != 0) {
        std::uintptr_t const offset = at >= start ? at - start : start - at;
        out.put(at >= start ? '+' : '-');
        if (offset) out.text("0x");
        out.hex(offset);  // "%#tx": a zero offset has no "0x"
    }
    out.text(") [").ptr(at).put(']');
}

// --- the report ---------------------------------------------------------------------

char const* sender(int code, char* buf, std::size_t size) noexcept {
    switch (code) {
    case SI_USER: return "kill()";
    case SI_QUEUE: return "sigqueue()";
    case SI_TIMER: return "timer";
    case SI_MESGQ: return "msg arrived";
    case SI_ASYNCIO: return "async I/O";
    case SI_SIGIO: return "queued SIGIO";
    case SI_ASYNCNL: return "asynch name lookup";
    case SI_KERNEL: return "kernel";
    default: break;
    }
    out_t o(buf, size);
    o.text(code < 0 ? "kernel" : "unknown").text(" #").sdec(code);
    o.finish();
    return buf;
}

// The meaning of a fault's code, or null for a signal that has none.
char const* meaning(int signo, int code) noexcept {
    static char const* const ill[] = {"illegal opcode", "illegal operand", "illegal addressing mode", "illegal trap",
                                      "privileged opcode", "privileged register", "co-processor", "bad stack"};
    static char const* const trap[] = {"breakpoint trap", "trace trap"};
    static char const* const bus[] = {"invalid address alignment", "bon-existent physical address",
                                      "object specific hardware error"};
    static char const* const fpe[] = {"integer divide by zero", "integer overflow", "floating point divide by zero",
                                      "floating point overflow", "floating point underflow",
                                      "floating point inexact result", "invalid floating point operation",
                                      "dubscript out of range"};
    static char const* const segv[] = {"address not mapped to object", "invalid permissions"};
    auto pick = [code](char const* const* names, int count) -> char const* {
        return code >= 1 && code <= count ? names[code - 1] : "";
    };
    switch (signo) {
    case SIGILL: return pick(ill, 8);
    case SIGTRAP: return pick(trap, 2);
    case SIGBUS: return pick(bus, 3);
    case SIGFPE: return pick(fpe, 8);
    case SIGSEGV: return pick(segv, 2);
    default: return nullptr;
    }
}

// The "unknown ... #code" text of a fault code without a name.
char const* unknown_meaning(int signo) noexcept {
    switch (signo) {
    case SIGILL: return "unknown SIGILL #";
    case SIGTRAP: return "unknown trap #";
    case SIGBUS: return "unknown SIGBUS #";
    case SIGFPE: return "unknown SIGFPE #";
    default: return "unknown SIGSEGV #";
    }
}

// Whether the information of this code names a sending process; for the
// other codes the same bytes hold other fields (a fault's address).
bool has_sender(int code) noexcept {
    return code == SI_USER || code == SI_QUEUE || code == SI_TKILL || code == SI_MESGQ;
}

void write_signal(out_t& out, int signo, siginfo_t const* info) noexcept {
    char name_buf[16];
    out_t name(name_buf, sizeof name_buf);
    char const* const text = described(signo);
    if (!text) name.text("SIG#").dec(static_cast<unsigned>(signo));
    name.finish();
    out.text("pid ").dec(static_cast<unsigned long>(::getpid())).text(" \"").text(text ? text : name_buf).put('"');
    if (!info) {
        out.text(" - zero siginfo_t\n");
        return;
    }
    out.put('\n');
    char from[32];
    out.text("signo=").sdec(info->si_signo).text(" errno=").sdec(info->si_errno).text(" code=").sdec(info->si_code);
    out.text(" from ").text(sender(info->si_code, from, sizeof from)).put('\n');
    if (has_sender(info->si_code) && info->si_pid != 0) {
        out.text("signal from PID ").dec(static_cast<unsigned long>(info->si_pid));
        out.text(" UID ").dec(static_cast<unsigned long>(info->si_uid)).text(", value ");
        out.hex(reinterpret_cast<std::uintptr_t>(info->si_value.sival_ptr), 16).put(':');
        out.dec(static_cast<unsigned>(info->si_value.sival_int)).put('\n');
    }
    if (char const* const m = meaning(signo, info->si_code)) {
        out.put('"');
        if (*m)
            out.text(m);
        else
            out.text(unknown_meaning(signo)).sdec(info->si_code);
        out.text("\" ocurred at address ").hex(reinterpret_cast<std::uintptr_t>(info->si_addr), 16).put('\n');
    } else {
        out.text("no more information about unknown signal #").dec(static_cast<unsigned long>(signo)).put('\n');
    }
}

void write_registers(out_t& out, ucontext_t const* uc) noexcept {
    greg_t const* const r = uc->uc_mcontext.gregs;
    auto reg = [&out](char const* label, unsigned long long v) -> out_t& { return out.text(label).hex(v, 16); };
    reg("Flags=", uc->uc_flags);
    reg(" Link=", reinterpret_cast<std::uintptr_t>(uc->uc_link));
    reg(" CR2=", r[REG_CR2]);
    reg(" OMS=", r[REG_OLDMASK]).put('\n');
    int const rows[4][4] = {{REG_RAX, REG_RBX, REG_RCX, REG_RDX},
                            {REG_RDI, REG_RSI, REG_RBP, REG_RSP},
                            {REG_R8, REG_R9, REG_R10, REG_R11},
                            {REG_R12, REG_R13, REG_R14, REG_R15}};
    char const* const names[4][4] = {{"  RAX=", "  RBX=", " RCX=", " RDX="},
                                     {"  RDI=", "  RSI=", " RBP=", " RSP="},
                                     {"  R08=", "  R09=", " R10=", " R11="},
                                     {"  R12=", "  R13=", " R14=", " R15="}};
    for (int row = 0; row < 4; ++row) {
        for (int col = 0; col < 4; ++col) reg(names[row][col], r[rows[row][col]]);
        out.put('\n');
    }
    reg(" TRAP=", r[REG_TRAPNO]);
    reg("  ERR=", r[REG_ERR]);
    reg(" EFL=", r[REG_EFL]).put('\n');
    reg("  RIP=", r[REG_RIP]).put('\n');
}

void write_stack(out_t& out) noexcept {
    void* frames[128];
    int const n = ::backtrace(frames, 128);
    out.text("Stack contains:\n");
    for (int i = 0; i < n; ++i) {
        out.put(' ');
        put_frame(out, frames[i]);
        out.put('\n');
    }
}

void restore_defaults() noexcept {
    struct sigaction dfl;
    memset(&dfl, 0, sizeof dfl);
    dfl.sa_handler = SIG_DFL;
    sigemptyset(&dfl.sa_mask);
    for (int s : k_signals) ::sigaction(s, &dfl, nullptr);
}

void report(int signo, siginfo_t* info, void* context) {
    int expected = 0;
    if (!s_report.compare_exchange_strong(expected, 1)) {
        // Another thread reports: let it finish and restore the defaults,
        // then meet them (a fault strikes again, a sent signal is lost but
        // the reporting one ends the process).
        timespec const tick = {0, 1000000};
        while (s_report.load() != 2) ::nanosleep(&tick, nullptr);
        return;
    }
    int const saved_errno = errno;
    if (kern_n::seh_translator_t::dumper) kern_n::seh_translator_t::dumper(info, context);
    out_t out(STDERR_FILENO);
    write_signal(out, signo, info);
    if (context) write_registers(out, static_cast<ucontext_t const*>(context));
    if (s_with_stack.load()) write_stack(out);
    out.finish();
    restore_defaults();
    s_report.store(2);
    // Pending until the handler returns, then fatal: a sent signal would not
    // come again by itself, and a fault meets this copy first.
    ::raise(signo);
    errno = saved_errno;
}

}  // namespace

int unixtrap(bool with_stack) {
    s_with_stack.store(with_stack);
    // Loads the unwinder now (the C library dlopens it on first use) and
    // binds the handler's calls, so that a fault finds them ready.
    void* frames[4];
    char text[256];
    int const n = ::backtrace(frames, 4);
    if (n > 0) kern::signal::frame_text(frames[0], text, sizeof text);
    struct sigaction sa;
    memset(&sa, 0, sizeof sa);
    sa.sa_sigaction = report;
    sa.sa_flags = SA_SIGINFO | SA_ONSTACK;
    sigfillset(&sa.sa_mask);
    int rc = 0;
    for (int s : k_signals) rc = ::sigaction(s, &sa, nullptr);
    rc = ::sigaction(SIGABRT, &sa, nullptr);
    return rc;
}

char const* q_signalname(int signo) {
    if (char const* const text = described(signo)) return text;
    out_t out(s_unknown_name, sizeof s_unknown_name);
    out.text("SIG#").dec(static_cast<unsigned>(signo));
    out.finish();
    return s_unknown_name;
}

std::size_t kern::signal::frame_text(void const* address, char* out, std::size_t size) noexcept {
    out_t o(out, size);
    put_frame(o, address);
    return o.finish();
}

// --- the do-not-wait switch ---------------------------------------------------------------

kern::signal::do_not_wait_on_sigchild::do_not_wait_on_sigchild() noexcept { ignore_sigchild.fetch_add(1); }

kern::signal::do_not_wait_on_sigchild::~do_not_wait_on_sigchild() {
    if (ignore_sigchild.fetch_sub(1) == 1) ::kill(::getpid(), SIGCHLD);
}

bool kern::signal::do_not_wait_on_sigchild::enabled() noexcept { return ignore_sigchild.load() == 0; }
