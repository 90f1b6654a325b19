// A test module that exports a banner: counts how often it is mapped and how
// often its banner is asked for.
#include <atomic>

namespace {
std::atomic<int> s_constructed(0);
std::atomic<int> s_signature_calls(0);

__attribute__((constructor)) void on_load() { s_constructed.fetch_add(1); }
}  // namespace

extern "C" {

__attribute__((visibility("default"))) char const* signature() {
    s_signature_calls.fetch_add(1);
    return "qvlplug_sig test module 1.0";
}

// Runs of the module's initialiser since it was mapped: 1 unless the loader
// mapped it twice.
__attribute__((visibility("default"))) int qvlplug_constructed() { return s_constructed.load(); }

__attribute__((visibility("default"))) int qvlplug_signature_calls() { return s_signature_calls.load(); }

__attribute__((visibility("default"))) int qvlplug_answer() { return 42; }
}
