// A preloaded fault injector for the library's start-up tests. QVLSHIM_FAIL
// names one call to fail, and only when the library's start-up code makes it:
//   mutexattr_init     pthread_mutexattr_init from mutex_t::init_t (ENOMEM)
//   mutexattr_settype  pthread_mutexattr_settype from mutex_t::init_t (EINVAL)
//   exception_key      pthread_key_create from qexception_initializer (EAGAIN)
// A failing call also registers an exit handler that writes "<shim-fini>" to
// standard error, so a test can tell an immediate _exit from an exit that
// ran the handlers.
#include <dlfcn.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

void on_exit_marker() {
    static char const text[] = "<shim-fini>";
    ssize_t const rc = write(2, text, sizeof text - 1);
    (void)rc;
}

// True when QVLSHIM_FAIL is what and the caller's code lies in a function
// whose symbol contains in_function.
bool should_fail(char const* what, void const* caller, char const* in_function) {
    char const* const fail = std::getenv("QVLSHIM_FAIL");
    if (!fail || std::strcmp(fail, what) != 0) return false;
    Dl_info info;
    if (!dladdr(caller, &info) || !info.dli_sname || !std::strstr(info.dli_sname, in_function)) return false;
    std::atexit(on_exit_marker);
    return true;
}

template <class F>
F next(char const* name) {
    return reinterpret_cast<F>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

__attribute__((visibility("default"))) int pthread_mutexattr_init(pthread_mutexattr_t* a) noexcept {
    if (should_fail("mutexattr_init", __builtin_return_address(0), "init_t")) return ENOMEM;
    return next<int (*)(pthread_mutexattr_t*)>("pthread_mutexattr_init")(a);
}

__attribute__((visibility("default"))) int pthread_mutexattr_settype(pthread_mutexattr_t* a, int kind) noexcept {
    if (should_fail("mutexattr_settype", __builtin_return_address(0), "init_t")) return EINVAL;
    return next<int (*)(pthread_mutexattr_t*, int)>("pthread_mutexattr_settype")(a, kind);
}

__attribute__((visibility("default"))) int pthread_key_create(pthread_key_t* key, void (*dtor)(void*)) noexcept {
    if (should_fail("exception_key", __builtin_return_address(0), "qexception_initializer")) return EAGAIN;
    return next<int (*)(pthread_key_t*, void (*)(void*))>("pthread_key_create")(key, dtor);
}
}
