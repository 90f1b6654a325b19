// consumer.cc: a program built against the installed library the way a
// daemon of the agent is, by pkg-config or by find_package(qvlkern). It
// uses what crosses the boundary: plain and C++ names, Boost types in the
// interface, an exception thrown inside the library and caught here by its
// exported type, an explicitly instantiated template, a thread. Prints
// "consumer ok <library file>" and exits 0.
#include <qvlkern/kern.h>

#include <dlfcn.h>

#include <atomic>
#include <cstdio>
#include <cstring>
#include <string>

int main() {
    char const* const banner = kern_signature();
    if (std::strncmp(banner, "Quarvel OS Abstraction Layer Version ", 37) != 0) return 1;

    std::string text;
    text << "answer " << 42;
    if (text != "answer 42") return 2;

    try {
        kern_n::string_to_number<int>(lstr_t("4x2"), true, true);
        return 3;
    } catch (number_format_exception_shell_t const&) {  // thrown by value as the family shell
    }

    boost::posix_time::ptime const epoch(boost::gregorian::date(1970, 1, 1));
    if (qstime_to_ptime(ptime_to_qstime(epoch)) != epoch) return 4;

    std::atomic<int> ran{0};
    lwp_t::shared const worker = lwp_t::start("consumer", [&ran] { ran = 1; }, false);
    if (!worker->join(timegap_t::infinite()) || ran != 1) return 5;

    Dl_info where;
    if (!dladdr(reinterpret_cast<void*>(&kern_signature), &where) || !where.dli_fname) return 6;
    std::printf("consumer ok %s\n", where.dli_fname);
    return 0;
}
