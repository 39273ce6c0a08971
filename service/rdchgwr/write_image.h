// The write that ends every change and pulse: tried again at once, without a pause. Main thread.
#pragma once

#include "rdchgwr/drv_ops.h"

// Up to three attempts, ended by the first success; `failed`, when given, is told of each failure. The last result.
int WriteImage(RegKey key, unsigned char* image, const DrvOps& ops, void (*failed)(int result));
