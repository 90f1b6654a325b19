// A module that allocates with the C functions and knows nothing of the
// library: loaded into a program linked with the library, its malloc and
// free are the library's counting wrappers.
#include <malloc.h>
#include <stdlib.h>

#include <cstddef>

extern "C" {
__attribute__((visibility("default"))) char const* signature() { return "qvlplug_alloc test module"; }

// n malloc/free pairs of size bytes, then one calloc, realloc and free;
// answers the usable bytes handed out (and given back) by the pairs.
__attribute__((visibility("default"))) std::size_t qvlplug_churn(unsigned n, std::size_t size) {
    std::size_t usable = 0;
    for (unsigned i = 0; i < n; ++i) {
        void* const p = malloc(size);
        usable += malloc_usable_size(p);
        free(p);
    }
    free(realloc(calloc(1, size), 2 * size));
    return usable;
}
}
