// Requests that change a register in place or pulse one of its bits, from operands as people write them. Pure.
// Bits are numbered in the value, bit 0 the lowest; they are moved to where they lie in the image. A request for some
// elements of a range names only those. Every function throws Error for what cannot be asked of the service.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "client/bytes.h"
#include "client/register.h"

namespace voq
{

// A read-change-write request: the frame's range, subcmd and operand.
struct ChangeRequest {
    RegKey key = {};
    std::uint8_t subcmd = 0;
    Bytes operand;
};

struct ChangeText {
    // add, sub STEP; and, or, xor MASK; not; toggle, set, clear BIT; digit-up, digit-down POSITION;
    // field FIRST COUNT VALUE
    std::string operation;
    std::vector<std::string> operands;
    std::optional<std::string> minimum, maximum;  // of add and sub; the type's own when absent
    bool wrap = false;
    bool bounce = false;
    bool reversed = false;  // add as sub and the reverse: the direction that a bounce left
};

// "OPERATION [OPERAND...] [min VALUE] [max VALUE] [wrap] [bounce] [reversed]", words separated by spaces. Only the
// words are told apart here.
ChangeText ParseChange(std::string_view text);

ChangeRequest BuildChange(const Register& reg, std::uint16_t byteOrder, const ChangeText& change);

// Sets a bit to `value` and, after a time in steps of 100 ms, to the opposite. The bit may be left out where the range
// is a single bit.
inline constexpr std::uint32_t PulseStepMs = 100;
inline constexpr std::uint32_t MaxPulseMs = PulseStepMs * 0xFFFF;
ChangeRequest BuildPulse(const Register& reg, std::uint16_t byteOrder, std::optional<std::uint32_t> bit, bool value,
                         std::uint32_t milliseconds);

}  // namespace voq
