// amtypes.cc: the string slice.
#include "amtypes.h"

if_root_t::~if_root_t() {}
