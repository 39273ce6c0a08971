// Checks of the register geometry that hold at compile time.
#include "rdchgwr/geometry.h"

static_assert(nBytes(RegKey{0, 0, 0, 0, 0x00, 0, 10, 0, 0}) == 10);
static_assert(nBytes(RegKey{0, 0, 0, 0, 0x22, 0, 3, 0, 0}) == 6);
static_assert(nBytes(RegKey{0, 0, 0, 0, 0x29, 0, 3, 0, 0}) == 0);
