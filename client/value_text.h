// Values as text. Pure.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

#include "client/value_image.h"
#include "voq/stamp.h"

namespace voq
{

// The elements of a range, separated by spaces; packed BCD as its digits. At most `limit` elements; " ..." stands for
// the rest.
std::string ValueText(const ValueCoding& coding, std::span<const std::uint8_t> value, std::size_t limit);

// Lower-case hexadecimal, two digits a byte, no separators.
std::string Hex(std::span<const std::uint8_t> bytes);

// Microseconds since 1970; a stamp of garbage gives a garbage number, never an overflow.
std::int64_t StampMicroseconds(const Stamp& stamp);

// "850 ms", "12.3 s", "17 min", "5 h", "3 d"; "0 ms" for the future.
std::string AgeText(std::int64_t microseconds);

}  // namespace voq
