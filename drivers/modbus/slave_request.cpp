// Requests of an outside master; no state, no I/O.
#include "slave_request.h"

#include "mapping.h"

namespace
{

struct Window {
    const char* name;
    std::uint32_t first;  // as the master counts
    std::uint32_t last;
    std::uint32_t addr;  // of the first one in the panel register
};

constexpr Window Bits[] = {{"LB", 0, 65535, 0}};
constexpr Window Holding[] = {{"LW", 0, 32767, 0}, {"RW", 32768, 65535, 0}};
constexpr Window Input[] = {{"SRW", 0, 9999, 0}, {"SRW", 10000, 19999, 10000}};

struct Function {
    std::uint8_t code;
    bool bits;
    bool write;
    std::uint32_t most;  // in one request; 1 for the functions that write one and carry no count
    const Window* windows;
    std::size_t windowCount;
};

constexpr Function Functions[] = {
    {1, true, false, MaxReadBits, Bits, 1},
    {2, true, false, MaxReadBits, Bits, 1},
    {3, false, false, MaxReadRegisters, Holding, 2},
    {4, false, false, MaxReadRegisters, Input, 2},
    {5, true, true, 1, Bits, 1},
    {6, false, true, 1, Holding, 2},
    {15, true, true, MaxWriteBits, Bits, 1},
    {16, false, true, MaxWriteRegisters, Holding, 2},
};

constexpr std::uint16_t CoilOn = 0xFF00;
constexpr std::size_t ShortBytes = 5;   // function, address, count or value
constexpr std::size_t HeaderBytes = 6;  // of a multiple write, in front of the values

const Function* FindFunction(std::uint8_t code)
{
    for (const Function& function : Functions)
        if (function.code == code) return &function;
    return nullptr;
}

bool RightLength(const Function& function, std::uint32_t count, const std::uint8_t* pdu, std::size_t length)
{
    if (!function.write || function.most == 1) return length == ShortBytes;
    const std::size_t bytes = function.bits ? (count + 7) / 8 : 2 * count;
    return length == HeaderBytes + bytes && pdu[HeaderBytes - 1] == bytes;
}

}  // namespace

Refusal ParseRequest(const std::uint8_t* pdu, std::size_t length, SlaveRequest& request)
{
    const Function* function = length == 0 ? nullptr : FindFunction(pdu[0]);
    if (function == nullptr) return Refusal::Function;
    if (length < ShortBytes) return Refusal::Value;
    const std::uint32_t first = WireWord(pdu + 1);
    const std::uint16_t second = WireWord(pdu + 3);
    const std::uint16_t count = function->most == 1 ? 1 : second;
    if (count == 0 || count > function->most || !RightLength(*function, count, pdu, length)) return Refusal::Value;
    if (function->most == 1 && function->bits && second != 0 && second != CoilOn) return Refusal::Value;
    for (std::size_t i = 0; i < function->windowCount; i++) {
        const Window& window = function->windows[i];
        if (first < window.first || first > window.last) continue;
        if (first + count - 1 > window.last) return Refusal::Address;
        request = {window.name,
                   window.addr + first - window.first,
                   static_cast<std::uint16_t>(first),
                   count,
                   function->bits,
                   function->write};
        return Refusal::None;
    }
    return Refusal::Address;
}
