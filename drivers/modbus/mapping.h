// How a register range and the port's parameters translate to Modbus. Pure functions; they know nothing of libmodbus.
#pragma once

#include <cstdint>

#include "voq/com_info.h"
#include "voq/reg_key.h"

// Values of regid.
enum Area : std::uint16_t { COILS = 0, DISCRETE_INPUTS = 1, INPUT_REGISTERS = 3, HOLDING_REGISTERS = 4 };

enum class Direction { Read, Write };

// The protocol's own limits for one request.
inline constexpr std::uint32_t MaxReadBits = 2000;
inline constexpr std::uint32_t MaxWriteBits = 1968;
inline constexpr std::uint32_t MaxReadRegisters = 125;
inline constexpr std::uint32_t MaxWriteRegisters = 123;

// A range in Modbus terms: coils or registers `first` to `first + count - 1`, all below 65536.
struct Range {
    std::uint32_t first;
    std::uint32_t count;
    std::uint32_t step;   // the most of them in one request; a whole number of elements
    std::uint32_t bytes;  // bytes that each takes in the service's buffer: 1 per bit, 2 per register
};

// Null, or why no request can serve the key: the area, the kind of element, the address or the direction is not one of
// Modbus, or `length` is not the length of the range's value.
[[nodiscard]] const char* MapRange(const RegKey& key, std::int32_t length, Direction direction, Range& range);

// Where the PLC is. Read anew at every call: the parameters are live.
struct Endpoint {
    std::uint32_t address;  // most significant byte first: 0x7F000001 is 127.0.0.1; 0 means none
    std::uint16_t port;
    std::uint16_t timeoutMs;  // for one request, connecting included
};
Endpoint EndpointOf(const ComInfoRecord& info);

// The time a station has for its answer, in milliseconds.
std::uint16_t RequestTimeoutMs(const ComInfoRecord& info);
