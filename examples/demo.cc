// demo.cc: a short tour of the qvlkern library, built against the installed
// package the way a daemon of the agent would be.
#include <qvlkern/kern.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

// A configuration text as a daemon might read it from its file.
char const k_config[] =
    "# agent settings\r\n"
    "name     = update-agent\n"
    "\n"
    "workers  = 4\n"
    "cache    = 3221225472\n"
    "log.dir  = /var/log/qvl\n"
    "peers    = alpha beta\tgamma\n";

void section(char const* title) { std::printf("\n== %s ==\n", title); }

// Cuts the text into lines, each line into key and value, and the value of
// "peers" into words: every step is a slice of the one buffer, nothing is
// copied until a value is kept.
void parse_config() {
    section("configuration");
    lstr_t text(k_config, sizeof(k_config) - 1);
    while (!text.empty()) {
        lstr_t line = text.word_by_eol(false).trim();
        if (line.empty() || line.starts("#")) continue;
        lstr_t key = line.word('=', false).trim();
        lstr_t value = line.trim();
        std::printf("  %-8.*s -> \"%.*s\"\n", int(key.length()), key.ptr(), int(value.length()),
                    value.ptr());
        if (key.eq("peers")) {
            std::vector<lstr_t> peers;
            value.words(peers, lstr_t());
            for (lstr_t const& p : peers) std::printf("           peer \"%.*s\"\n", int(p.length()), p.ptr());
        }
        if (key.eq("cache")) {
            std::string digits(value.ptr(), value.length());
            unsigned long bytes = std::stoul(digits);
            std::printf("           %s bytes = %s\n", kern::numbers::produce_triades(digits, 16).c_str(),
                        kilobytes(bytes, true).c_str());
        }
    }
}

void format_numbers() {
    section("numbers");
    std::string line = "pid ";
    line << 4711 << ", max " << 18446744073709551615ULL << ", min " << (-9223372036854775807LL - 1)
         << ", ratio " << 0.25 << ", at " << static_cast<void const*>(k_config);
    std::printf("  %s\n", line.c_str());
    unsigned long const sizes[] = {500, 1536, 2047, 3UL << 20, 5UL << 30};
    for (unsigned long s : sizes) {
        std::string digits;
        add_number_to_string(s, digits);
        std::printf("  %14s  %s\n", kern::numbers::produce_triades(digits, 14).c_str(), kilobytes(s, false).c_str());
    }
}

// A failure deep down, wrapped twice on its way up, as a daemon would see it.
void open_store(char const* path) {
    QVL_CALLSTACK_LABEL("open_store");
    QVL_THROW(noent_exception, "unable to open \"%s\" because of %s", path, "No such file or directory (errno=2)");
}

void load_module(char const* path) {
    QVL_CALLSTACK_LABEL("load_module");
    try {
        open_store(path);
    } catch (q_exception_t_shell_t& e) {
        QVL_THROW_CAUSE(io_error_exception, e.release(), "store of module %s cannot be read", "updater");
    }
}

void show_exceptions() {
    section("exceptions");
    try {
        try {
            load_module("/var/lib/qvl/updater.db");
        } catch (q_exception_t_shell_t& e) {
            QVL_THROW_CAUSE(q_exception_t, e.release(), "start-up of %s failed", "update-agent");
        }
    } catch (q_exception_t_shell_t const& e) {
        std::printf("  what:       %s\n", e.what());
        std::printf("  what_chain: %s\n", e.what_chain().c_str());
        std::printf("  one cause a line:\n%s\n", split_error(e.what_chain()).c_str());
        std::printf("  info:       %s\n", e.info());
        std::printf("  dump:\n");
        std::fflush(stdout);
        e.dump("    ", true);
    }
}

}  // namespace

int main() {
    std::printf("qvlkern demo\n");
    // Records copy the call-stack markers that are live at the throw.
    _q_exception_t::backtrace_enabled = true;
    parse_config();
    format_numbers();
    show_exceptions();
    return 0;
}
