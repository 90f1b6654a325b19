// A test environment module whose create() fails: a standard exception when
// given a callback, something else without one.
#include <stdexcept>

#include <qvlkern/dynamic_library.h>

extern "C" __attribute__((visibility("default"))) kern_n::if_environment_t* create(
    kern_n::if_environment_t::if_progress_cb_t* cb) {
    if (cb) throw std::runtime_error("qvlplug_throw refuses to create");
    throw 42;
}
