// Translation of ranges and parameters to Modbus; no state, no I/O.
#include "mapping.h"

#include "voq/reg_range.h"

namespace
{

constexpr std::uint32_t AddressesPerArea = 65536;
constexpr std::uint16_t DefaultPort = 502;
constexpr std::uint16_t DefaultTimeoutMs = 500;

std::uint16_t Word(const std::uint8_t* bytes)
{
    return static_cast<std::uint16_t>(bytes[0] | bytes[1] << 8);
}

bool MapBits(const RegKey& key, Direction direction, Range& range)
{
    if (key.regid != COILS && (key.regid != DISCRETE_INPUTS || direction == Direction::Write)) return false;
    range.first = key.addr;
    range.count = key.width;
    range.step = direction == Direction::Read ? MaxReadBits : MaxWriteBits;
    range.bytes = 1;
    return true;
}

// An address counts units of UnitBytes bytes and has to fall on a register. An element is never torn between two
// requests: its halves could be of different moments.
bool MapRegisters(const RegKey& key, Direction direction, Range& range)
{
    if (key.regid != HOLDING_REGISTERS && (key.regid != INPUT_REGISTERS || direction == Direction::Write)) return false;
    const std::uint32_t size = ElemBytes(key);
    const std::uint64_t offset = std::uint64_t{key.addr} * UnitBytes(key);
    if ((size != 2 && size != 4 && size != 6 && size != 8) || offset % 2 != 0) return false;
    if (offset / 2 >= AddressesPerArea) return false;
    const std::uint32_t most = direction == Direction::Read ? MaxReadRegisters : MaxWriteRegisters;
    range.first = static_cast<std::uint32_t>(offset / 2);
    range.count = key.width * (size / 2);
    range.step = most - most % (size / 2);
    range.bytes = 2;
    return true;
}

}  // namespace

bool MapRange(const RegKey& key, std::int32_t length, Direction direction, Range& range)
{
    const bool known = RegElemSize(&key) == 0 ? MapBits(key, direction, range) : MapRegisters(key, direction, range);
    if (!known || range.count == 0 || length < 0) return false;
    if (static_cast<std::uint32_t>(length) != range.count * range.bytes) return false;
    return range.first < AddressesPerArea && range.count <= AddressesPerArea - range.first;
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
