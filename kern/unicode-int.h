// unicode-int.h: Unicode helpers shared inside the library, not exported.
#ifndef QVLKERN_UNICODE_INT_H
#define QVLKERN_UNICODE_INT_H

namespace kern_n {
namespace detail {

// Refines the two 256-byte case tables from the locale's case mapping with
// one converter for all bytes: an entry changes only when its byte converts
// and maps to exactly one byte. Never throws, so that start-up does not pay
// for an exception per unmappable byte (every byte above 127 in UTF-8).
void fill_case_tables(unsigned char* upcase, unsigned char* locase) noexcept;

}  // namespace detail
}  // namespace kern_n

#endif  // QVLKERN_UNICODE_INT_H
