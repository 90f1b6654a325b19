// kern.h: the whole public interface of the qvlkern library.
#ifndef QVLKERN_KERN_H
#define QVLKERN_KERN_H

#include "_kern.h"
#include "amtypes.h"
#include "code-exec-time.h"
#include "common-utils.h"
#include "dynamic_library.h"
#include "exceptions.h"
#include "filestr.h"
#include "fs-stat.h"
#include "kern-config.h"
#include "loggers.h"
#include "lwp.h"
#include "metrics.h"
#include "numstrings-int.h"
#include "numstrings.h"
#include "numeric-triades.h"
#include "platform.h"
#include "quote-utils.h"
#include "random.h"
#include "runnable.h"
#include "syncers.h"
#include "time-objs.h"
#include "unicode.h"
#include "unx-utils-alloc.h"
#include "unx-utils-daemon.h"
#include "unx-utils-signal.h"
#include "unx-utils.h"
#include "utilities-exec.h"
#include "utilities.h"

#endif  // QVLKERN_KERN_H
