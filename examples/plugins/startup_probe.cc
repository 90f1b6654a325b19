// Does nothing, to time process start-up: built once on its own and once
// linked with the library (QVLKERN_PROBE_LINKED), whose start-up then runs
// before main.
#ifdef QVLKERN_PROBE_LINKED
#include <qvlkern/_kern.h>
#endif

int main() {
#ifdef QVLKERN_PROBE_LINKED
    // keeps the library among the program's needed objects
    return kern_signature()[0] == 'Q' ? 0 : 1;
#else
    return 0;
#endif
}
