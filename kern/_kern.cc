// _kern.cc: library start-up.
//
// Every process-wide object of the library is defined in this one file, in
// the order in which it must be built; C++ constructs the statics of one
// translation unit in definition order and destroys them in reverse, and
// each registers its teardown right after it is built. To add a start-up
// object, define it at its place in this list. This file is linked last so
// that the constant tables of the other sources are in place first.
#include <cstdio>
#include <cstdlib>

#include "amtypes.h"
#include "exceptions.h"

namespace {

// Case tables of the string slice.
struct case_tables_t {
    case_tables_t() { lstr_t::init_case(); }
} const s_case_tables;

}  // namespace

// The thread-specific slot holding each thread's exception call stack.
pthread_key_t callstack_t::key = qexception_initializer();
