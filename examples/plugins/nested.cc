// A test module whose initialiser opens another module, qvlplug_multi_3,
// through the module cache while its own load is still under way. The two
// names share a name lock, so the nested load must not wait for the lock
// its own thread holds. qvlplug_answer gives the inner module's answer (3),
// or -1 when the nested load failed.
#include <dlfcn.h>

#include <qvlkern/dynamic_library.h>
#include <string>

namespace {

int s_answer = -1;

__attribute__((constructor)) void on_load() {
    Dl_info self;
    if (!dladdr(reinterpret_cast<void*>(&on_load), &self) || !self.dli_fname) return;
    std::string dir(self.dli_fname);
    dir.erase(dir.find_last_of('/') + 1);  // the inner module lies beside this one
    try {
        dynamic_library_t inner("qvlplug_multi_3", dir.c_str());
        if (auto const answer = reinterpret_cast<int (*)()>(inner.get_symbol("qvlplug_answer"))) s_answer = answer();
    } catch (...) {
        // nothing may leave an initialiser; -1 tells the failure
    }
}

}  // namespace

extern "C" __attribute__((visibility("default"))) int qvlplug_answer() { return s_answer; }
