// The way to the device for changes and pulses: whoever serves a request hands in the two operations. Main thread; they
// wait as long as the device does.
#pragma once

#include "voq/reg_key.h"

// Read or write a register's whole value image. 1 on success, else the failure code.
struct DrvOps {
    int (*read)(RegKey key, void* buf);
    int (*write)(RegKey key, void* data);
};
