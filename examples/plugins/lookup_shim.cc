// A preloaded fault injector for the allocation wrappers' tests: every
// lookup of malloc, realloc, memalign or free fails as for a missing symbol,
// so that the library's first allocation ends the process with its fatal
// message. Other lookups pass through (relative to this module, which is
// enough for a process that ends at its first allocation).
#include <dlfcn.h>

#include <cstring>
#include <initializer_list>

namespace {

typedef void* (*dlsym_t)(void*, char const*);

dlsym_t real_dlsym() {
    static dlsym_t const fn = reinterpret_cast<dlsym_t>(dlvsym(RTLD_NEXT, "dlsym", "GLIBC_2.34"));
    return fn;
}

}  // namespace

extern "C" __attribute__((visibility("default"))) void* dlsym(void* handle, char const* name) noexcept {
    for (char const* wrapped : {"malloc", "realloc", "memalign", "free"})
        if (std::strcmp(name, wrapped) == 0) return real_dlsym()(handle, "qvlshim_missing_symbol");
    return real_dlsym()(handle, name);
}
