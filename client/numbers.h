// Values and the bytes they lie in, as numbers. Pure; any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "client/bytes.h"
#include "client/value_image.h"

namespace voq
{

// The elements of an image, as many as both have; returns how many. Packed BCD that is none is not a number (NaN).
// Throws Error for raw elements.
std::size_t DecodeNumbers(const ValueCoding& coding, std::span<const std::uint8_t> image, std::span<double> values);
// The same without loss; throws Error for floats too, and Damaged for packed BCD that is none.
std::size_t DecodeIntegers(const ValueCoding& coding, std::span<const std::uint8_t> image,
                           std::span<std::int64_t> values);

// The image of elements. Throws Error when one does not fit the type; integers take whole numbers only.
Bytes EncodeNumbers(const ValueCoding& coding, std::span<const double> values);
Bytes EncodeIntegers(const ValueCoding& coding, std::span<const std::int64_t> values);

}  // namespace voq
