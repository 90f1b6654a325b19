// kern-config.h: the library's build configuration, included by every
// header: the markers of the exported interface, the attributes the
// declarations carry and the fixed-width integer names. It depends on
// nothing of the library, so that any header can use these without pulling
// in another part (the string slice and the exceptions, say).
//
//   class QVL_API timer_t { ... };
//   QVL_API void q_format(std::string& out, char const* fmt, ...) QVL_PRINTF(2, 3);
//
// Thread safety: definitions only.
#ifndef QVLKERN_KERN_CONFIG_H
#define QVLKERN_KERN_CONFIG_H

#include <cstdint>

// Marks the library's exported interface; everything else is hidden.
#define QVL_API __attribute__((visibility("default")))

// Keeps a member of an exported class out of the exported interface.
#define QVL_HIDDEN __attribute__((visibility("hidden")))

// printf-style argument checking for formatting functions.
#define QVL_PRINTF(fmt_index, first_arg) __attribute__((format(printf, fmt_index, first_arg)))

typedef std::uint32_t q_uint32_t;
typedef std::int64_t q_int64_t;
typedef std::uint64_t q_uint64_t;

#endif  // QVLKERN_KERN_CONFIG_H
