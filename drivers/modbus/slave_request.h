// What an outside master asks for, in terms of the panel's own registers. Pure functions; no I/O.
//
// Modbus table       addresses        panel register       functions
// coils              0 - 65535        LB 0 - 65535         1, 5, 15
// discrete inputs    0 - 65535        LB 0 - 65535         2
// holding registers  0 - 32767        LW 0 - 32767         3, 6, 16
//                    32768 - 65535    RW 0 - 32767         3, 6, 16
// input registers    0 - 9999         SRW 0 - 9999         4
//                    10000 - 19999    SRW 10000 - 19999    4
//
// A request lies in one row. The functions that read and write in one (22, 23) are unsupported like all others: between
// the two accesses that they would take, another process could change the register.
#pragma once

#include <cstddef>
#include <cstdint>

// Values are those of the Modbus exceptions.
enum class Refusal : std::uint8_t { None = 0, Function = 1, Address = 2, Value = 3, Failure = 4, Gateway = 11 };

struct SlaveRequest {
    const char* name;     // of the panel register, as the call-backs know it
    std::uint32_t addr;   // in that register
    std::uint16_t first;  // as the master counts
    std::uint16_t count;
    bool bits;
    bool write;
};

// `pdu` holds `length` bytes: the function code and what follows it.
[[nodiscard]] Refusal ParseRequest(const std::uint8_t* pdu, std::size_t length, SlaveRequest& request);

// A number from the wire, high byte first.
constexpr std::uint16_t WireWord(const std::uint8_t* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] << 8 | bytes[1]);
}
