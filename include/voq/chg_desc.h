// The change descriptor: the operand of a read-change-write or pulse request, after the u16 count and two bytes that
// head its payload. The operands begin behind the 8 bytes below.
//
// offset size field      meaning
//  0     2    operation  see ChangeOp
//  2     1    bit        bit number: ToggleBit, SetBit, Pulse
//  3     1    reserved   not read
//  4     2    format     bits 0-3: value type (see OperandType), of SetBit and Pulse the bit value; bit 14: bounce at a
//                        limit; bit 15: wrap around at a limit
//  6     2    size       bytes of one operand; of a Pulse its length in units of 100 ms
//
// operands   Add, Subtract            step, minimum, maximum, each of `size` bytes
//            And, Or, Xor             mask of `size` bytes
//            DigitUp, DigitDown       digit position of `size` bytes, 1 is the units digit
//            BitField                 u16 first bit, u16 number of bits, then the new bits packed into u32 words
//
// All integers are little-endian.
#pragma once

#include <cstddef>
#include <cstdint>
#include <type_traits>

struct ChgDesc {
    std::uint16_t operation;
    std::uint8_t bit;
    std::uint8_t reserved;
    std::uint16_t format;
    std::uint16_t size;
};

static_assert(sizeof(ChgDesc) == 8 && std::is_trivially_copyable_v<ChgDesc>);
static_assert(offsetof(ChgDesc, operation) == 0 && offsetof(ChgDesc, bit) == 2 && offsetof(ChgDesc, reserved) == 3);
static_assert(offsetof(ChgDesc, format) == 4 && offsetof(ChgDesc, size) == 6);

enum class ChangeOp : std::uint16_t {
    Add = 1,
    Subtract = 2,
    And = 3,
    Or = 4,
    Xor = 5,
    Not = 6,
    ToggleBit = 10,
    SetBit = 11,
    Pulse = 12,
    DigitUp = 0x101,
    DigitDown = 0x102,
    BitField = 0x1001,
};

enum class OperandType : std::uint8_t { Signed = 1, Unsigned = 2, Float = 3, Double = 4 };

inline constexpr std::uint16_t CHG_TYPE_MASK = 0x000F;
inline constexpr std::uint16_t CHG_BOUNCE = 0x4000;
inline constexpr std::uint16_t CHG_WRAP = 0x8000;

// A request's flags as the change sees them: its subcmd in the high byte.
inline constexpr std::uint32_t CMD_PULSE = 0x2000;
inline constexpr std::uint32_t CMD_REVERSED = 0x4000;  // Add acts as Subtract and the reverse
inline constexpr std::uint32_t CMD_CHANGE = 0x8000;

inline constexpr std::uint32_t MaxChangeBytes = 4000;  // largest value image that can be changed
inline constexpr std::uint32_t MaxPulseBytes = 4;      // largest image of a register whose bit is set or pulsed
