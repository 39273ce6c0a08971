// The operator's retained serial settings, and how they reach the communication parameters.
// Main thread: at start-up, and when the change flag is raised.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

#include "state/com_state.h"

// A port's record in the retained settings file, 12 bytes at 400 + 100 x port number.
struct SerialSettings {
    std::uint32_t baud;      // bits per second; 0: the record holds no settings
    std::uint16_t dataBits;  // 7 or 8
    std::uint16_t stopBits;  // 1 or 2
    std::uint16_t parity;    // 0 to 2
    std::uint16_t lineMode;  // 0 to 2
};

static_assert(sizeof(SerialSettings) == 12 && std::is_trivially_copyable_v<SerialSettings>);
static_assert(offsetof(SerialSettings, dataBits) == 4 && offsetof(SerialSettings, stopBits) == 6);
static_assert(offsetof(SerialSettings, parity) == 8 && offsetof(SerialSettings, lineMode) == 10);

// Offset of the port's 100-byte slot in the retained settings file.
inline std::uint32_t RetainedSlot(std::uint16_t portNo)
{
    return 400 + 100u * portNo;
}

// Reads the record of ComInfo's port number. 1 when it holds settings, else 0.
int CheckSRWComPara(SerialSettings* settings);

// Copies each field that lies in its range into ComInfo; the others keep their value.
void Copy2ComInfo(const SerialSettings& settings) VOQ_REQUIRES(DriverLock);
