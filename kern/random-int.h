// random-int.h: the identifier generator's state, shared inside the
// library (built by start-up, used by random.cc), not exported.
#ifndef QVLKERN_RANDOM_INT_H
#define QVLKERN_RANDOM_INT_H

#include <atomic>

#include "amtypes.h"
#include "syncers.h"

namespace kern {
namespace uuid {

struct state_t {
    mutex_t guard;             // over the four fields below
    q_uint32_t clock_seq = 0;  // advanced by every internal identifier; 16 bits shown
    q_uint64_t last_time = 0;  // time value of the previous identifier
    q_uint32_t adjust = 0;     // added to the time value; read as signed
    unsigned char node[6] = {};
    std::atomic<q_uint64_t> read_failures{0};  // of the kernel file
};

// Built at library start-up, before init_int_uuid runs.
extern state_t state;

}  // namespace uuid
}  // namespace kern

#endif  // QVLKERN_RANDOM_INT_H
