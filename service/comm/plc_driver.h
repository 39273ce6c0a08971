// The port's driver: the library, its entry point and the one instance.
// Main thread, and the GUI service thread for a restart; every command runs under the driver lock.
#pragma once

#include <cstdint>

#include "state/com_state.h"
#include "stats/driver_stats.h"
#include "voq/plc_driver.h"

extern PlcDrvCmdFn _cmd;                        // entry point, null while no driver is loaded; set once at start-up
extern void* _thiz VOQ_GUARDED_BY(DriverLock);  // driver instance, null while none exists

inline constexpr int DrvPathBytes = 256;

// Writes the library path without extension, chosen by master/slave mode, link type and port number. Returns 1.
int loadDrvName(char path[DrvPathBytes]);

// Loads the library once. 1 when a library is loaded, 0 when not; the entry point may still be missing.
int PlcDrvSet();

// The instance, created when there is none and an entry point exists.
void* PlcDrvThiz() VOQ_REQUIRES(DriverLock);

void PlcDrvInit() VOQ_REQUIRES(DriverLock);
void PlcDestroy() VOQ_REQUIRES(DriverLock);

// Slave mode: one turn of the driver's own loop. Its result, or 3 without a driver.
int PlcDrvLoop() VOQ_EXCLUDES(DriverLock);

// Takes over the address fields of a reload frame and restarts the driver with them. GUI service thread.
void ReloadDriver(const ComInfoRecord& image) VOQ_EXCLUDES(DriverLock);

// Byte length of a request's data; 0 for the element sizes that name none.
std::uint32_t PlcGetBytes(const RegKey& key);

// Issues "RdOne" or "WrOne" on an ensured instance. The driver's own result.
std::int32_t DriverTransfer(TimedCall::Kind kind, RegKey key, void* buffer) VOQ_EXCLUDES(DriverLock);
