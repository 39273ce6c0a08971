// Read-change-write of one register. The device is reached only through the functions handed in.
// Main thread; takes no lock. Waits as long as the device does.
#pragma once

#include <cstdint>
#include <span>

#include "rdchgwr/drv_ops.h"
#include "voq/reg_key.h"

// Serves one request by the CMD_ flags of chg_desc.h: a pulse, a change, or else a write of `data` as it is. `data`:
// change descriptor or value image. `pulseTime`: the request's own, 0 when no pulse runs. Returns PLC_SUCCESS,
// RT_PENDING (not finished), a failure code of the device, or PLC_ERROR before the device is touched when `data` is
// shorter than the request needs, or the register is too large to be changed. The result of a change has CMD_REVERSED
// added when that is the direction of the next one.
int DoRdChgWr(RegKey key, std::uint32_t cmdFlags, std::span<unsigned char> data, std::uint32_t* pulseTime,
              std::uint32_t nowMs, const DrvOps& ops);

// Reads what a change does not overwrite: the whole register, or of a bit field's elements the first and the last.
// `buf` holds MaxRegionBytes, cleared; the register takes at most MaxChangeBytes.
int DoRead(unsigned char* buf, std::span<const unsigned char> desc, RegKey key, const DrvOps& ops);

// 1 when `interval` has passed since `last`, which is then set to `now`; else 0. Wraps with the clock.
int CheckTm(std::uint32_t* last, std::uint32_t now, std::uint32_t interval);
