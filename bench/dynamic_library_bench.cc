// Module cache against the bare loader, and the library's start-up cost.
//
//   cached_open_reset      dynamic_library_t on an enabled cache, then reset
//   uncached_open_reset    the same with the cache off: a dlopen and dlclose
//   dlopen_dlclose_cold    dlopen + dlclose of a module nobody holds (it is
//                          mapped and unmapped every time)
//   dlopen_dlclose_warm    dlopen + dlclose of a module held open elsewhere
//   spawn_bare / spawn_linked   posix_spawn + wait of an empty program,
//                          without and with the library linked in
//
// The test plug-ins are looked up in ../examples/plugins next to this
// program (or in $QVLKERN_PLUGIN_DIR); build the plug-in targets first.
#include <dlfcn.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <benchmark/benchmark.h>

#include <cerrno>
#include <climits>
#include <cstdlib>
#include <string>

#include "dynamic_library.h"

namespace {

namespace kc = kern::dynalib::cache;

std::string const& plugin_dir() {
    static std::string const dir = [] {
        if (char const* d = std::getenv("QVLKERN_PLUGIN_DIR")) return std::string(d);
        char exe[PATH_MAX];
        ssize_t const n = readlink("/proc/self/exe", exe, sizeof exe - 1);
        std::string path(exe, n > 0 ? static_cast<size_t>(n) : 0);
        return path.substr(0, path.rfind('/')) + "/../examples/plugins";
    }();
    return dir;
}

std::string const& module_file() {
    static std::string const file = plugin_dir() + "/libqvlplug_nosig.so";
    return file;
}

bool have_plugins(benchmark::State& state) {
    if (access(module_file().c_str(), R_OK) == 0) return true;
    state.SkipWithError("test plug-ins not built");
    return false;
}

void cached_open_reset(benchmark::State& state) {
    if (!have_plugins(state)) return;
    if (state.thread_index() == 0) {
        kc::set_enabled();
        dynamic_library_t("qvlplug_nosig", plugin_dir().c_str()).reset();  // now cached
    }
    for (auto _ : state) {
        dynamic_library_t lib("qvlplug_nosig", plugin_dir().c_str());
        benchmark::DoNotOptimize(lib.get_impl().get());
        lib.reset();
    }
    if (state.thread_index() == 0) kc::flush_all_now();
}
BENCHMARK(cached_open_reset)->ThreadRange(1, 2)->UseRealTime();

void uncached_open_reset(benchmark::State& state) {
    if (!have_plugins(state)) return;
    kc::flush_all_now();
    for (auto _ : state) {
        dynamic_library_t lib("qvlplug_nosig", plugin_dir().c_str());
        benchmark::DoNotOptimize(lib.get_impl().get());
        lib.reset();
    }
}
BENCHMARK(uncached_open_reset);

void dlopen_dlclose_cold(benchmark::State& state) {
    if (!have_plugins(state)) return;
    kc::flush_all_now();
    for (auto _ : state) {
        void* h = dlopen(module_file().c_str(), RTLD_NOW | RTLD_LOCAL);
        benchmark::DoNotOptimize(h);
        dlclose(h);
    }
}
BENCHMARK(dlopen_dlclose_cold);

void dlopen_dlclose_warm(benchmark::State& state) {
    if (!have_plugins(state)) return;
    void* const keep = dlopen(module_file().c_str(), RTLD_NOW | RTLD_LOCAL);
    for (auto _ : state) {
        void* h = dlopen(module_file().c_str(), RTLD_NOW | RTLD_LOCAL);
        benchmark::DoNotOptimize(h);
        dlclose(h);
    }
    dlclose(keep);
}
BENCHMARK(dlopen_dlclose_warm);

void spawn(benchmark::State& state, char const* program) {
    std::string const exe = plugin_dir() + "/" + program;
    if (access(exe.c_str(), X_OK) != 0) {
        state.SkipWithError("start-up probes not built");
        return;
    }
    char* argv[] = {const_cast<char*>(exe.c_str()), nullptr};
    for (auto _ : state) {
        pid_t pid;
        if (posix_spawn(&pid, exe.c_str(), nullptr, nullptr, argv, environ) != 0) {
            state.SkipWithError("posix_spawn failed");
            return;
        }
        int status;
        while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
        }
    }
}
BENCHMARK_CAPTURE(spawn, bare, "qvlkern_startup_bare")->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK_CAPTURE(spawn, linked, "qvlkern_startup_linked")->Unit(benchmark::kMicrosecond)->UseRealTime();

}  // namespace
