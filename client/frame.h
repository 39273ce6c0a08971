// Request frames. Pure.
#pragma once

#include <cstdint>
#include <span>

#include "client/bytes.h"
#include "voq/request.h"

namespace voq
{

// Subscribes a range. With `orgoffset` 0 the service finds or creates the range's record and counts the log-on in it; a
// known record offset goes straight to the list of subscribed ranges. A log-off must use the same form.
Bytes LogOnFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset = 0);
Bytes LogOffFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset = 0);

Bytes ReadFrame(const RegKey& key, std::uint16_t fileno);

// `value` is the whole range, in the PLC's byte order. Throws Error when its length is not the range's, or when the
// frame would be longer than its 16-bit length field can say.
Bytes WriteFrame(const RegKey& key, std::uint16_t fileno, std::span<const std::uint8_t> value);

// `operand` is the change descriptor, or the value image when `subcmd` names neither a pulse nor a change.
Bytes ReadChangeWriteFrame(const RegKey& key, std::uint8_t subcmd, std::uint16_t fileno,
                           std::span<const std::uint8_t> operand);

}  // namespace voq
