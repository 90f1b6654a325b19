// demo.cc: a short tour of the qvlkern library, built against the installed
// package the way a daemon of the agent would be.
#include <qvlkern/kern.h>

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
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

// --- command line -------------------------------------------------------

struct options_t {
    int verbose = 0;
    long lines = 12;
    char const* name = "update-agent";
    bool help = false;
};

cmd_switch_t const k_switches[] = {
    {"verbose", cmd_switch_t::logical},
    {"lines", cmd_switch_t::signed_number},
    {"name", cmd_switch_t::string},
    {"help", cmd_switch_t::action},
};
char const* const k_switch_help[] = {
    "--[no-]verbose     print more (yes/no/on/off/true/false/1/0 as value)",
    "--lines=N          number of log lines to write",
    "--name=TEXT        the agent name shown in the output",
    "--help             this list",
};

void on_switch(void* ctx, int code, unsigned long index, char const* name, void* value) {
    options_t& o = *static_cast<options_t*>(ctx);
    if (code != cmd_switch_t::ok) {
        std::fprintf(stderr, "switch %s: %s\n", name ? name : "?", cmd_switch_t::error(code));
        return;
    }
    switch (index) {
        case 0: o.verbose = *static_cast<int*>(value); break;
        case 1: o.lines = *static_cast<long*>(value); break;
        case 2: o.name = static_cast<char const*>(value); break;
        case 3: o.help = true; break;
    }
}

// Returns false when the program should stop (help shown or a bad switch).
bool parse_command_line(int argc, char** argv, options_t& o) {
    unsigned long const n = sizeof(k_switches) / sizeof(k_switches[0]);
    int rc = cmd_switch_t::parse(on_switch, &o, argc, argv, n, k_switches, "--", "=");
    if (rc < 0 || o.help) {
        std::printf("usage: qvlkern_demo [switches]\n");
        for (char const* line : k_switch_help) std::printf("  %s\n", line);
        return false;
    }
    return true;
}

// --- time ----------------------------------------------------------------

void show_time() {
    section("time");
    timestamp_t now = kern::time::now();
    std::string rfc, local;
    now.rfc1123_date(rfc);
    localtime_t(now).rfc1123_date(local);
    std::printf("  17 digits:  %s\n", std::string(now).c_str());
    std::printf("  RFC 1123:   %s\n", rfc.c_str());
    std::printf("  local:      %s\n", local.c_str());
    std::printf("  readable:   %s (UTC)\n", now.toReadableString().c_str());
    timestamp_t back{std::string(now)};
    std::printf("  read back:  %s, weekday %s\n", back.toReadableString().c_str(), wday_to_string(back.weekday()));
    std::string uptime;
    format_uptime(timegap_t(3 * 86400 + 5 * 3600 + 42, 0), uptime);
    std::printf("  an uptime:  %s\n", uptime.c_str());
}

// --- quoting -------------------------------------------------------------

void show_quoting() {
    section("quoting");
    std::string const line = "user=alice, host=db 1\tstatus=50%, done\r\n";
    std::string quoted, back;
    quote_string(line.data(), line.size(), quoted);
    dequote_string(quoted, back);
    std::printf("  quoted:     %s\n", quoted.c_str());
    std::printf("  round trip: %s\n", back == line ? "identical" : "DIFFERENT");
}

// --- multilingual text ---------------------------------------------------

void show_unicode() {
    section("multilingual text");
    for (char const* word : {"Stra\u00dfe", "\u039f\u0394\u039f\u03a3 \u03a3\u039f\u03a6\u039f\u03a3"}) {
        std::string up, low;
        upper_string_uc(word, up);
        lower_string_uc(word, low);
        std::printf("  %s: upper %s, lower %s\n", word, up.c_str(), low.c_str());
    }
    // a family joined by zero-width joiners, a flag, an e with its accent apart
    std::string const text = "\U0001F468\u200D\U0001F469\u200D\U0001F467 \U0001F1E9\U0001F1EA e\u0301";
    std::vector<lstr_t> glyphs;
    break_glyph(text, glyphs);
    std::printf("  %s: %zu bytes, %zu glyphs\n", text.c_str(), text.size(), glyphs.size());
    char const* const hello = "\u041f\u0440\u0438\u0432\u0435\u0442";
    std::string cp1251, back;
    utf8_2_local(hello, cp1251, "windows-1251");
    local_2_utf8(cp1251, back, "windows-1251");
    std::printf("  %s in windows-1251: %s, back to UTF-8: %s\n", hello,
                hex_dump_just_mem(cp1251.data(), cp1251.size()).c_str(), back.c_str());
}

// --- identifiers and files ---------------------------------------------

// A session record named by a random identifier, written whole (private,
// its directory created on the way) and read back.
void identifiers_and_files() {
    section("identifiers and files");
    char uuid[37];
    get_uuid(uuid);
    std::string session;
    random_string(session, 12, 16);
    std::printf("  machine uuid: %s%s\n", uuid, kern::uuid::use_internal_generator ? " (internal)" : "");
    std::printf("  session id:   %s (%zu characters)\n", session.c_str(), session.size());
    std::string const path = "demo-state/sessions/" + session;
    std::string const record = "uuid=" + std::string(uuid) + "\nsession=" + session + "\n";
    lstr2file(path, record, kern::file::create_path | kern::file::private_mode | kern::file::sync);
    std::string back;
    read_entire_file(back, path.c_str());
    std::printf("  wrote %s: %zu bytes, read back %s\n", path.c_str(), record.size(),
                back == record ? "identical" : "DIFFERENT");
    q_uint64_t avail = 0;
    if (kern_n::fs_stat(path.c_str(), &avail, nullptr))
        std::printf("  free there:   %s\n", kilobytes(avail, true).c_str());
    try {
        read_entire_file(back, "demo-state/missing");
    } catch (io_error_exception_shell_t const& e) {
        std::printf("  a missing one: %s\n", e.what());
    }
}

// --- logging -------------------------------------------------------------

// The second logger of the chain, on a file of the demo's own.
if_logger_t* g_file_log = nullptr;

// Lines go to standard error and, through a chain, to a second descriptor
// logger on a file of the demo's own.
int start_logging(int verbose) {
    section("logging (see standard error and demo-chain.log)");
    init_logger(verbose ? "DEBUG" : "INFO", "-", nullptr, nullptr);
    int fd = ::open("demo-chain.log", O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd >= 0) chain_logger_t::add(g_file_log = fd_logger_t::create(fd));
    std::string shape;
    chain_logger_t::collect_info(shape);
    std::printf("  chain: %s\n", shape.c_str());

    if_logger_t* log = if_logger_t::Log;
    log->log_NOTICE("%s", kern_signature());
    log->log_INFO("agent starting, %d workers", 3);
    log->log_WARNING("cache directory %s is not on a local disk", "/var/cache/qvl");
    log->log_DEBUG("shown with --verbose only");
    for (int i = 0; i < 3; ++i) log->log_INFO("heartbeat");  // folded into one line and a summary
    log->log_INFO("heartbeats done");
    return fd;
}

// A file log that rotates every 2 KiB and keeps two compressed older files.
void rotating_log() {
    section("rotating file log (demo-rotating.log)");
    if_logger_t* rot = file_logger_t::create("demo-rotating.log", "3z,2k", "[Demo] rotating log opened");
    // The file logger's own notices are formatted by the process logger, so
    // for this stretch it is the process logger.
    if_logger_t* const saved = if_logger_t::Log;
    if_logger_t::Log = rot;
    for (int i = 0; i < 120; ++i) rot->log_INFO("demo line %d of the rotating log", i);
    if_logger_t::Log = saved;
    auto* file = dynamic_cast<file_logger_impl_t*>(rot);
    if (file) {
        file->wait_compression();  // the newest .gz is complete
        std::printf("  current: %s\n", file->file_name().c_str());
        for (unsigned n = 1; n < file->count(); ++n) {
            for (bool gz : {true, false}) {
                std::string kept;
                file_logger_impl_t::suffix(kept, file->file_name(), n, gz);
                if (::access(kept.c_str(), F_OK) == 0) std::printf("  kept:    %s\n", kept.c_str());
            }
        }
    }
    delete rot;
}

// --- threads -------------------------------------------------------------

void log_resources(char const* when) {
    if_logger_t* log = if_logger_t::Log;
    kern_n::runnable_t::show_threads();
    q_uint64_t user = 0, sys = 0, minor = 0, major = 0, swaps = 0;
    kern_n::runnable_t::cpu_usage(&user, &sys);
    kern_n::runnable_t::paging_usage(&minor, &major, &swaps);
    kern_n::vminfo_t vm = {};
    kern_n::runnable_t::vm_usage(&vm);
    log->log_INFO("%s: cpu %s user %s system, %llu minor faults, vm %s rss %s, %u handles", when,
                  elapsed_time(timegap_t(static_cast<long>(user), -8)).c_str(),
                  elapsed_time(timegap_t(static_cast<long>(sys), -8)).c_str(),
                  static_cast<unsigned long long>(minor), kilobytes(vm.vm_size, true).c_str(),
                  kilobytes(vm.vm_rss, true).c_str(), kern_n::runnable_t::handles_count());
}

void run_workers() {
    section("threads");
    log_resources("before workers");
    std::vector<lwp_t::shared> workers;
    for (char const* name : {"fetcher", "checker", "reporter"}) {
        workers.push_back(lwp_t::start(
            name,
            [name] {
                volatile unsigned long sum = 0;
                for (unsigned long i = 0; i < 20000000; ++i) sum = sum + i;
                if_logger_t::Log->log_INFO("%s done", name);
            },
            false));
    }
    kern_n::runnable_t::show_threads();
    for (lwp_t::shared const& w : workers) {
        bool joined = w->join(timegap_t(10, 0));
        std::printf("  %-8s joined: %s\n", w->name.c_str(), joined ? "yes" : "timed out");
    }
    workers.clear();  // an entry stays listed while its object lives
    log_resources("after workers");
}

// --- a daemon's life -------------------------------------------------------

// The waiter is built before the worker, which inherits its blocked signals
// and stops on its token; the demo then stops itself with SIGTERM, as
// "systemctl stop" would. The notifications do nothing outside systemd.
void daemon_life() {
    section("daemon: termination waiter, stop token, service manager");
    kern::daemon::termination_waiter_t waiter;  // SIGHUP would re-open the log files
    kern::daemon::stop_token_t const stop = waiter.token();
    lwp_t::shared ticker = lwp_t::start(
        "ticker",
        [stop] {
            while (!stop.wait(timegap_t(10, -3))) continue;  // a piece of work every 10 ms would go here
            if_logger_t::Log->log_INFO("ticker stops: signal %d", stop.reason());
        },
        false);
    bool const managed = kern::daemon::notify_ready();
    kern::daemon::notify_status("demo working");
    std::string dog = "none";
    try {
        timegap_t const interval = kern::daemon::watchdog_interval();
        if (interval.ticks() != 0) dog = "every " + elapsed_time(interval) + " s";
    } catch (q_exception_t_shell_t const& e) {
        dog = e.what();
    }
    std::printf("  service manager: %s, watchdog: %s\n", managed ? "notified" : "none", dog.c_str());
    int const first = waiter.wait(timegap_t(50, -3));
    bool const timed_out = first == kern::daemon::termination_waiter_t::timed_out;
    std::printf("  waited 50 ms: %s\n", timed_out ? "timed out" : "stopped");
    ::kill(::getpid(), SIGTERM);
    int const sig = waiter.wait();
    kern::daemon::notify_stopping();
    bool const joined = ticker->join(timegap_t(10, 0));
    std::printf("  stopped by signal %d (%s); ticker joined: %s\n", sig, q_signalname(sig),
                joined ? "yes" : "timed out");
}

// --- commands ------------------------------------------------------------

// A helper program run to its end, then one left running and collected
// later, as a daemon runs scripts on events.
void run_commands() {
    section("commands");
    std::printf("  execute(\"sh\", \"-c exit\") = %d\n", execute("sh", "-c exit", true));
    std::printf("  execute(\"false\", \"\") = %d\n", execute("false", "", true));
    int const pid = execute("sleep", "0.1", false);
    int status = 0;
    if (pid > 0 && ::waitpid(pid, &status, 0) == pid)
        std::printf("  execute(\"sleep\", \"0.1\") asynchronously: pid %d, exit %d\n", pid, WEXITSTATUS(status));
}

// --- modules -------------------------------------------------------------

class progress_t : public kern_n::if_environment_t::if_progress_cb_t {
public:
    void progress(int percent, char const* what) override {
        std::printf("  module says %3d%% %s\n", percent, what);
    }
};

void load_modules() {
    section("modules");
    std::printf("  %s\n", kern_signature());
    std::printf("  time to live %lu s (QVLSRV_DYNALIB_TTL)\n", env_get_number("QVLSRV_DYNALIB_TTL", 60));
    kern::dynalib::cache::set_enabled();
    progress_t cb;
    {
        kern_n::if_environment_t::factory_t env("qvlplug_env", QVLKERN_DEMO_PLUGIN_DIR, &cb);
        if (env.get_env())
            std::printf("  execute(21) = %d\n", env.get_env()->execute(21, nullptr));
        else
            std::printf("  factory failed: %s\n", env.get_error().c_str());
    }
    auto cached = [] {
        xlocker_t<mutex_t> guard(kern::dynalib::cache::s_storage_guard);
        return kern::dynalib::cache::s_storage ? kern::dynalib::cache::s_storage->count : 0u;
    };
    std::printf("  released; modules cached: %u\n", cached());
    try {
        dynamic_library_t bad("qvlplug_unresolved", QVLKERN_DEMO_PLUGIN_DIR);
    } catch (q_exception_t_shell_t const& e) {
        std::printf("  as expected: %s\n", e.what());
    }
    ::sleep(static_cast<unsigned>(env_get_number("QVLSRV_DYNALIB_TTL", 60)) + 1);
    kern::dynalib::cache::flush_if_need();
    std::printf("  after the time to live: modules cached: %u\n", cached());
}

// Every malloc and free of the process went through the library's counters.
void show_allocations() {
    namespace as = kern::alloc::stat;
    if (!kern::alloc::wrapped()) {
        std::printf("\nallocations: not counted (built without the allocation wrappers)\n");
        return;
    }
    typedef unsigned long long ull;
    std::printf("\nallocations: %llu malloc, %llu realloc, %llu memalign, %llu free; %s handed out, %s given back\n",
                ull(as::malloc::calls), ull(as::realloc::calls), ull(as::memalign::calls), ull(as::free::calls),
                kilobytes(as::malloc::size + as::memalign::size, true).c_str(),
                kilobytes(as::free::size, true).c_str());
}

// Every counter above, as node_exporter's textfile collector reads it.
void export_metrics() {
    char const* const path = "demo-state/qvlkern.prom";
    kern::metrics::write_textfile(path);
    std::string body;
    read_entire_file(body, path);
    std::printf("metrics: %zu bytes of Prometheus text in %s\n", body.size(), path);
}

}  // namespace

int main(int argc, char** argv) {
    // Settings are read once, when the library is loaded: to show the module
    // cache dropping an idle module without waiting a minute, the demo starts
    // itself again with a short time to live.
    if (!std::getenv("QVLSRV_DYNALIB_TTL")) {
        ::setenv("QVLSRV_DYNALIB_TTL", "1", 1);
        ::execv("/proc/self/exe", argv);
    }
    // A fault from here on leaves its report, with the stack, on stderr.
    unixtrap(true);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);  // keep stdout in step with the log on stderr
    kern_n::runnable_t::set_self_name("main");  // log lines show "main", not "noname"
    options_t opts;
    if (!parse_command_line(argc, argv, opts)) return opts.help ? 0 : 2;
    kern::runtime::exec_time_t timer;
    std::string account;
    unx_get_user_and_group(getuid(), getgid(), account);
    std::printf("qvlkern demo, run by %s\n", account.c_str());
    // Records copy the call-stack markers that are live at the throw.
    _q_exception_t::backtrace_enabled = true;
    parse_config();
    format_numbers();
    show_exceptions();
    show_time();
    show_quoting();
    show_unicode();
    identifiers_and_files();
    int chain_fd = start_logging(opts.verbose);
    // The start-up report: host, system, account, load and this command line.
    platform_t::base.info(argc, argv, nullptr);
    rotating_log();
    run_workers();
    daemon_life();
    run_commands();
    load_modules();
    log_syncers_stat();
    show_allocations();
    export_metrics();
    if (g_file_log) {
        chain_logger_t::remove(g_file_log);  // the chain hands the logger back
        delete g_file_log;
        ::close(chain_fd);
    }
    std::printf("\n%s: demo took %s\n", opts.name, timer.format().c_str());
    return 0;
}
