// demo.cc: a tour of the qvlkern library.
#include <qvlkern/kern.h>

int main() { return 0; }
