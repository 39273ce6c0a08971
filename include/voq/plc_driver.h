/* The whole calling interface between the service and a PLC driver. Plain C; a driver needs nothing else.
 *
 * A driver is a shared library that exports PlcDrvCmd, and PlcDrvInfo if it likes (below). The service calls PlcDrvCmd
 * with a command name, a target and an array of pointers:
 *
 * command    target                     args
 * "Init"     address of the instance    { ComInfoRecord* }                             create the instance, store it
 * "Destroy"  address of the instance    { ComInfoRecord* }                             release the instance
 * "Loop"     the instance               { ComInfoRecord*, const UserOper* }            slave mode: one turn
 * "RdOne"    the instance               { PlcRequest*, ComInfoRecord*, const UserOper* }
 * "WrOne"    the instance               { PlcRequest*, ComInfoRecord*, const UserOper* }
 *
 * "RdOne" and "WrOne" return PLC_DRV_OK, PLC_DRV_TIMEOUT, PLC_DRV_REFUSED when the device answered that it does not
 * know the range, or anything else for a communication error. The instance may be null when "Init" failed; the service
 * calls "Init" again before the next operation. The argument array and the request live only for the call; the
 * ComInfoRecord is live, its values may change between calls. Commands are never issued by two threads at once. */
#ifndef VOQ_PLC_DRIVER_H
#define VOQ_PLC_DRIVER_H

#include <stdint.h>

#include "voq/com_info.h"
#include "voq/reg_key.h"

#ifdef __cplusplus
extern "C" {
#endif

enum { PLC_DRV_OK = 0, PLC_DRV_TIMEOUT = 2, PLC_DRV_ERROR = 3, PLC_DRV_REFUSED = 5 };

/* One read or write. `data` holds `length` bytes in the PLC's own byte order: filled by "RdOne", sent by "WrOne".
 * `length` is width times the bytes per element; a bit register takes one byte per bit. */
typedef struct PlcRequest {
    RegKey* key;
    int32_t length;
    void* data;
} PlcRequest;

/* Access to the panel's own registers from inside "Loop", "RdOne" and "WrOne". `name` is "LB", "LW", "RW" or "SRW";
 * `addr` counts bits or words; `width` is the number of elements, one byte per bit, two per word; bit 0 of `bcd` marks
 * a BCD value. Result: 1 done, 3 refused (range too large, or the file cannot be used; the buffer is untouched). */
typedef struct UserOper {
    void* reserved; /* always null */
    int (*read)(const char* name, uint32_t addr, uint16_t width, void* buf, int bcd);
    int (*write)(const char* name, uint32_t addr, uint16_t width, const void* data, int bcd);
} UserOper;

typedef int32_t (*PlcDrvCmdFn)(const char* command, void* target, void** args);

#define PLC_DRV_ENTRY "PlcDrvCmd"

/* Every driver defines this with default visibility. */
__attribute__((visibility("default"))) int32_t PlcDrvCmd(const char* command, void* target, void** args);

/* The second entry point, optional: what a driver says of itself to the tools that build project files. The service
 * never calls it. It is called without an instance, in any process, on any thread; it neither opens nor prints
 * anything. */
#define PLC_DRV_INFO "PlcDrvInfo"

typedef struct PlcDriverInfo {
    uint32_t size;    /* sizeof(PlcDriverInfo); tools read no field beyond it */
    const char* name; /* the library's name without ".so" */
    /* What suits the driver where a project description says nothing. */
    uint8_t linkType;
    uint8_t wordGap;
    uint8_t bitGap;
    uint8_t reserved; /* 0 */
    uint16_t byteOrder;
    uint16_t wordLimit;
    uint16_t bitLimit;
    /* 0 when the driver can read the range. Else anything else, and `reason` holds why, in words that follow "NAME: ":
     * at most `size` bytes, the zero at the end included. The range is a whole one, longer than the port's limits, too.
     */
    int32_t (*check)(const RegKey* key, char* reason, uint32_t size);
} PlcDriverInfo;

typedef const PlcDriverInfo* (*PlcDrvInfoFn)(void);

/* Defined with default visibility by the drivers that have it; the result stays valid. */
__attribute__((visibility("default"))) const PlcDriverInfo* PlcDrvInfo(void);

#ifdef __cplusplus
}
#endif

#endif
