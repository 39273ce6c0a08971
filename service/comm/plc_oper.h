// PLC reads and writes: one request in chunks of the port's size, retries, result codes, failure markers.
// Main thread only. Waits for the driver, for the retry pauses and, after a write, for the register database.
#pragma once

#include <cstdint>

#include "arch/scoped_flag.h"
#include "voq/reg_key.h"
#include "voq/rt_item.h"

// Modes of PlcOper. Any other mode makes no driver call and succeeds.
inline constexpr int PLC_READ_ONCE = 0;    // one attempt per chunk
inline constexpr int PLC_WRITE = 1;        // up to three attempts per chunk
inline constexpr int PLC_READ_RETRY = 2;   // up to three attempts per chunk
inline constexpr int PLC_READ_JOINED = 3;  // the same, but a refusal ends it at once

// While one lives, a failed access counts for nothing and makes no marker: no client asked for it. Main thread.
inline bool FailuresUncounted = false;
using UncountedFailures = ScopedFlag<FailuresUncounted>;

// The last driver access ended with a refusal by the device, an answer although it counts as a failure. Main thread.
inline bool LastRefused = false;

// Each takes a range and a buffer of GetRegBuffLen(key) bytes and returns PLC_SUCCESS, PLC_TIMEOUT or PLC_ERROR (also
// when no driver is loaded). A chunk that fails ends the operation; earlier chunks' bytes stay in the buffer.
int PlcOper(RegKey key, void* buffer, int mode);
int PlcDrvRead(RegKey key, void* buffer);       // one driver read
int PlcDrvWrite(RegKey key, void* buffer);      // one driver write; carries the value into the register database
int PlcDrvReadPack(RegKey key, void* buffer);   // chunks, one attempt each
int PlcDrvWritePack(RegKey key, void* buffer);  // chunks, one attempt each
