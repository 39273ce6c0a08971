// Finding a request in what came over a serial line. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t RtuMaxFrame = 256;

// The checksum that ends a frame; 0 over a whole frame with its own.
[[nodiscard]] std::uint16_t RtuCrc(const std::uint8_t* bytes, std::size_t count);

// The request to `station`, or to all (0), that ends with the last of the bytes: its length, 0 when there is none. What
// lies in front of it is the traffic of other stations, or a request too old to be answered.
[[nodiscard]] std::size_t FindRequest(const std::uint8_t* bytes, std::size_t count, std::uint8_t station);
