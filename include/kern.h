// kern.h: the whole public interface of the qvlkern library.
#ifndef QVLKERN_KERN_H
#define QVLKERN_KERN_H

#include "amtypes.h"
#include "exceptions.h"
#include "numstrings.h"
#include "unicode.h"

#endif  // QVLKERN_KERN_H
