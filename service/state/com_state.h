// The port's communication parameters and what follows from them.
#pragma once

#include <cstdint>

#include "arch/lock.h"
#include "voq/com_info.h"
#include "voq/reg_key.h"

inline constexpr int DirNameBytes = 64;

// Orders every driver command, and every replacement of a ComInfo field, between the main thread and the GUI service
// thread (reload frame). The first lock to take.
inline Mutex DriverLock;

// Loaded at start-up; later replaced field by field under the driver lock, by the main thread (line settings) and the
// GUI service thread (reload frame). The driver reads it through a pointer, inside its commands.
inline ComInfoRecord ComInfo;
inline std::uint16_t sysByteOder;     // the panel's byte-order word; set at start-up
inline std::uint32_t pack_disable;    // 0 packed passes, else unpacked; set at start-up
inline std::uint32_t comIntervals;    // pause between main-loop turns, ms; set at start-up, main thread
inline char PlcDrvDir[DirNameBytes];  // directory of the driver libraries; set at start-up
inline std::uint16_t isHmi;           // 1 panel, 0 gateway box; set and read by the main thread

// Limits of one driver request and of packing, in elements.
struct PackLimits {
    std::uint32_t length;
    std::uint32_t gap;
};

// The port's limits for word registers (elemsize not 0) or bit registers.
inline PackLimits PortPackLimits(const RegKey& key)
{
    if (RegElemSize(&key) == 0) return {ComInfo.bitLimit, ComInfo.bitGap};
    return {ComInfo.wordLimit, ComInfo.wordGap};
}
