// Loads the library with dlopen, uses it and unloads it with dlclose, again
// and again; the library's start-up and teardown must survive that. Prints
// "ok <rounds> <banner>" and exits 0, or names the failed step and exits 1.
//
//   qvlkern_dlopen_cycle [rounds [library-file]]
#include <dlfcn.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

namespace {

int fail(int round, char const* step) {
    char const* const why = dlerror();
    std::fprintf(stderr, "round %d: %s failed: %s\n", round, step, why ? why : "-");
    return 1;
}

}  // namespace

int main(int argc, char** argv) {
    int const rounds = argc > 1 ? std::atoi(argv[1]) : 20;
    char const* const file = argc > 2 ? argv[2] : QVLKERN_LIBRARY_FILE;
    std::string banner;
    for (int round = 0; round < rounds; ++round) {
        void* const lib = dlopen(file, RTLD_NOW | RTLD_LOCAL);
        if (!lib) return fail(round, "dlopen");

        auto const signature = reinterpret_cast<char const* (*)()>(dlsym(lib, "kern_signature"));
        if (!signature) return fail(round, "kern_signature look-up");
        // env_get_number(char const*, unsigned long) and
        // set_envvar(char const*, char const*) have C++ names.
        auto const get_number =
            reinterpret_cast<unsigned long (*)(char const*, unsigned long)>(dlsym(lib, "_Z14env_get_numberPKcm"));
        auto const set_var = reinterpret_cast<int (*)(char const*, char const*)>(dlsym(lib, "_Z10set_envvarPKcS0_"));
        if (!get_number || !set_var) return fail(round, "env_get_number look-up");

        char const* const text = signature();
        if (!text || std::strncmp(text, "Quarvel OS Abstraction Layer Version ", 37) != 0) {
            std::fprintf(stderr, "round %d: bad banner \"%s\"\n", round, text ? text : "(null)");
            return 1;
        }
        if (round == 0) banner = text;
        if (banner != text) {
            std::fprintf(stderr, "round %d: banner changed to \"%s\"\n", round, text);
            return 1;
        }
        char value[32];
        std::snprintf(value, sizeof value, "%dk", round + 1);
        if (set_var("QVLKERN_CYCLE_NUMBER", value) != 0 ||
            get_number("QVLKERN_CYCLE_NUMBER", 7) != static_cast<unsigned long>(round + 1) * 1024) {
            std::fprintf(stderr, "round %d: env_get_number did not read \"%s\"\n", round, value);
            return 1;
        }
        if (dlclose(lib) != 0) return fail(round, "dlclose");
    }
    std::printf("ok %d %s\n", rounds, banner.c_str());
    return 0;
}
