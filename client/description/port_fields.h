// What the reader and the writer of project descriptions both know of a port record's fields.
#pragma once

#include <algorithm>
#include <cstdint>
#include <vector>

#include "voq/com_info.h"
#include "voq/reg_key.h"

namespace voq
{

inline constexpr std::uint32_t PackingBits = 3u << 17;
inline constexpr std::uint32_t PackingOff = 1u << 17;
inline constexpr const char* ParityNames[] = {"none", "odd", "even"};
inline constexpr const char* ModeNames[] = {"master", "slave"};
// At the place of the order of value/shuffle.h that they stand for in values of four bytes.
inline constexpr const char* ByteOrderNames[] = {"low-byte-first", "low-word-first", "swapped", "high-word-first"};

// A link's own limits; other links keep these bytes for purposes of their own.
constexpr std::uint32_t DataBitsLow(std::uint8_t link)
{
    return link == LINK_SERIAL ? 7 : 0;
}
constexpr std::uint32_t DataBitsHigh(std::uint8_t link)
{
    return link == LINK_SERIAL ? 8 : 255;
}
constexpr std::uint32_t StopBitsLow(std::uint8_t link)
{
    return link == LINK_SERIAL ? 1 : 0;
}
constexpr std::uint32_t StopBitsHigh(std::uint8_t link)
{
    return link == LINK_SERIAL ? 2 : 255;
}

inline bool KnownPort(const std::vector<ComInfoRecord>& ports, std::uint32_t number)
{
    const auto matches = [&](const ComInfoRecord& port) { return port.portNo == number; };
    return number == REG_PORT_LOCAL || std::any_of(ports.begin(), ports.end(), matches);
}

}  // namespace voq
