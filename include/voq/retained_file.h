// The operator's retained settings: a file of system words that the panel writes and the services read; who writes
// locks it as a whole. A slot of 100 bytes a port, at 400 + 100 x port number, whatever the port's link:
//
// offset size field     meaning
//  0     12   settings  serial settings, taken over when the port's change flag is raised
// 20     32   stations  switched-off PLC stations, one bit each: station s is bit s % 16 of word s / 16
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

inline constexpr char RetainedSettings[] = "/disk/hmi/rcp/srw.dat";
inline constexpr std::uint32_t RetainedFileBytes = 20000;  // of zeros, when it is made

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

constexpr std::uint32_t RetainedSlot(std::uint16_t portNo)
{
    return 400 + 100u * portNo;
}

using StationWords = std::uint16_t[16];

constexpr std::uint32_t RetainedStations(std::uint16_t portNo)
{
    return RetainedSlot(portNo) + 20;
}

constexpr bool StationIsOff(const StationWords& words, std::uint8_t station)
{
    return (words[station / 16] >> (station % 16) & 1) != 0;
}
