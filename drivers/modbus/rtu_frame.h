// What came over a serial line: where a request is in it, how long an answer is. Pure functions.
#pragma once

#include <cstddef>
#include <cstdint>

inline constexpr std::size_t RtuMaxFrame = 256;

// The checksum that ends a frame; 0 over a whole frame with its own.
[[nodiscard]] std::uint16_t RtuCrc(const std::uint8_t* bytes, std::size_t count);

// The request to `station`, or to all (0), that ends with the last of the bytes: its length, 0 when there is none. What
// lies in front of it is the traffic of other stations, or a request too old to be answered.
[[nodiscard]] std::size_t FindRequest(const std::uint8_t* bytes, std::size_t count, std::uint8_t station);

// The length of the answer at `bytes`, of which the first three count; 0 when its function is none of the masters'.
[[nodiscard]] std::size_t AnswerLength(const std::uint8_t* bytes);
