// One of several distinct test modules built from this file; QVLPLUG_INDEX
// tells them apart.
#include <atomic>

namespace {
std::atomic<int> s_constructed(0);
__attribute__((constructor)) void on_load() { s_constructed.fetch_add(1); }
}  // namespace

extern "C" {
__attribute__((visibility("default"))) char const* signature() { return "qvlplug_multi test module"; }
__attribute__((visibility("default"))) int qvlplug_constructed() { return s_constructed.load(); }
__attribute__((visibility("default"))) int qvlplug_answer() { return QVLPLUG_INDEX; }
}
