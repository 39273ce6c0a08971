// A register range as people write it: a value type, an address and a few options, made into a RegKey.
//
// An expression is one of
//   [pPORT:]sSTATION:aAREA:TYPE@ADDR[*COUNT][,option...]     s1:a4:u16@100*10,big_endian
//   key=value,...                                            station=1,area=4,type=u16,addr=100,count=10
// Options are key=value too: unit, subaddr, priority, flag, convpara, big_endian, bcd (the last two also alone).
// Numbers are decimal, or hexadecimal behind 0x.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "voq/reg_key.h"

namespace voq
{

enum class ValueKind : std::uint8_t { Bit, U16, S16, U32, S32, Float, Double, Raw };

struct ValueType {
    ValueKind kind = ValueKind::U16;
    std::uint8_t elemSize = 2;  // bytes per element, 0 for a bit
};

constexpr bool IsFloating(ValueKind kind)
{
    return kind == ValueKind::Float || kind == ValueKind::Double;
}

// "bit", "u16", "s16", "u32", "s32", "float", "double", "raw:N" with N from 1 to 15.
std::optional<ValueType> TypeFromName(std::string_view name);
std::string TypeName(const ValueType& type);
// The type shown for a key of which nothing else is known.
ValueType TypeOfSize(unsigned elemSize);

// Bytes per PLC address unit when nothing else is said: 0 for bits, 1 for single bytes, else 2 (word addresses).
unsigned DefaultUnit(const ValueType& type);

struct RegisterFields {
    std::optional<std::uint32_t> port;
    std::optional<std::uint32_t> station;
    std::optional<std::uint32_t> area;
    std::optional<ValueType> type;
    std::optional<std::uint32_t> addr;
    std::uint32_t count = 1;
    std::optional<std::uint32_t> unit;
    std::uint32_t subaddr = 0;
    std::optional<std::uint32_t> priority;  // 0, 1, 3 or 10
    bool bigEndian = false;
    bool bcd = false;
    std::uint32_t flag = 0;  // further flag bits
    std::uint32_t convpara = 0;
};

struct Register {
    RegKey key = {};
    ValueType type;
    std::optional<int> order =
        std::nullopt;  // its own order of value/shuffle.h, whatever its port says; of numbers only
};

// Throws Error that names the field which is missing or out of range. `port` stands in for a missing port field.
Register MakeRegister(const RegisterFields& fields, std::optional<std::uint16_t> port);

// Parses an expression; throws Error that names the part at fault.
Register ParseExpression(std::string_view text, std::optional<std::uint16_t> port);

// True for text that is an expression rather than a name.
bool LooksLikeExpression(std::string_view text);

// The compact form of a range.
std::string Expression(const Register& reg);

// 0 for "each", or the number itself; only 0, 1, 3 and 10 name a priority class.
bool ValidPriority(std::uint32_t value);

}  // namespace voq
