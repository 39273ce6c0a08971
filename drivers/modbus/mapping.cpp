// Translation of ranges and parameters to Modbus; no state, no I/O.
#include "mapping.h"

#include "voq/reg_range.h"

namespace
{

constexpr std::uint32_t AddressesPerArea = 65536;
constexpr const char* BeyondEnd = "it ends beyond address 65535";
constexpr std::uint16_t DefaultPort = 502;
constexpr std::uint16_t DefaultTimeoutMs = 500;

std::uint16_t Word(const std::uint8_t* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

bool ReadOnly(const RegKey& key)
{
    return key.regid == DISCRETE_INPUTS || key.regid == INPUT_REGISTERS;
}

const char* MapBits(const RegKey& key, Direction direction, Range& range)
{
    if (key.regid != COILS && key.regid != DISCRETE_INPUTS) return "bits are in areas 0 (coils) and 1 (discrete)";
    range.first = key.addr;
    range.count = key.width;
    range.step = direction == Direction::Read ? MaxReadBits : MaxWriteBits;
    range.bytes = 1;
    return nullptr;
}

// An address counts units of UnitBytes bytes and has to fall on a register. An element is never torn between two
// requests: its halves could be of different moments.
const char* MapRegisters(const RegKey& key, Direction direction, Range& range)
{
    if (key.regid != HOLDING_REGISTERS && key.regid != INPUT_REGISTERS)
        return "registers are in areas 3 (input) and 4 (holding)";
    const std::uint32_t size = ElemBytes(key);
    const std::uint64_t offset = std::uint64_t{key.addr} * UnitBytes(key);
    if (size != 2 && size != 4 && size != 6 && size != 8) return "elements are of 2, 4, 6 or 8 bytes";
    if (offset % 2 != 0) return "the address lies inside a register";
    if (offset / 2 >= AddressesPerArea) return BeyondEnd;
    const std::uint32_t most = direction == Direction::Read ? MaxReadRegisters : MaxWriteRegisters;
    range.first = static_cast<std::uint32_t>(offset / 2);
    range.count = key.width * (size / 2);
    range.step = most - most % (size / 2);
    range.bytes = 2;
    return nullptr;
}

}  // namespace

const char* MapRange(const RegKey& key, std::int32_t length, Direction direction, Range& range)
{
    const bool bits = RegElemSize(&key) == 0;
    if (const char* why = bits ? MapBits(key, direction, range) : MapRegisters(key, direction, range)) return why;
    if (direction == Direction::Write && ReadOnly(key)) return "the area is read-only";
    if (range.count == 0) return "it has no elements";
    if (length < 0 || static_cast<std::uint32_t>(length) != range.count * range.bytes) return "its length is another";
    const bool within = range.first < AddressesPerArea && range.count <= AddressesPerArea - range.first;
    return within ? nullptr : BeyondEnd;
}

Endpoint EndpointOf(const ComInfoRecord& info)
{
    const std::uint16_t port = Word(info.driverPara);
    return {info.baudOrAddress, port == 0 ? DefaultPort : port, RequestTimeoutMs(info)};
}

std::uint16_t RequestTimeoutMs(const ComInfoRecord& info)
{
    const std::uint16_t ms = Word(info.driverPara + 2);
    return ms == 0 ? DefaultTimeoutMs : ms;
}
