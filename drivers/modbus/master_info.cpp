// What the Modbus masters say of themselves to the tools that build project files. Pure; any thread.
#include <cstdarg>
#include <cstdio>

#include "mapping.h"
#include "voq/plc_driver.h"
#include "voq/reg_range.h"

namespace
{

constexpr std::uint32_t AddressesPerArea = 65536;

// Station 0 of a serial line is all of them, and none answers; a TCP device takes 0 or 255 for itself.
constexpr unsigned LastStation = 247;
#ifdef VOQ_MODBUS_RTU
constexpr unsigned FirstStation = 1, OtherStation = LastStation;
#else
constexpr unsigned FirstStation = 0, OtherStation = 255;
#endif

bool AreaOf(const RegKey& key, bool& bits)
{
    bits = key.regid == COILS || key.regid == DISCRETE_INPUTS;
    return bits || key.regid == INPUT_REGISTERS || key.regid == HOLDING_REGISTERS;
}

[[gnu::format(printf, 3, 4)]] std::int32_t Refuse(char* reason, std::uint32_t size, const char* format, ...)
{
    va_list args;
    va_start(args, format);
    std::vsnprintf(reason, size, format, args);
    va_end(args);
    return PLC_DRV_ERROR;
}

// MapRange has the last word; what stands before it gives its refusals a name.
std::int32_t Check(const RegKey* key, char* reason, std::uint32_t size)
{
    if (key == nullptr || reason == nullptr) return PLC_DRV_ERROR;
    bool bits = false;
    const unsigned area = key->regid, bytes = RegElemSize(key);
    const unsigned station = key->plcno;
    if (station < FirstStation || (station > LastStation && station != OtherStation)) {
        return Refuse(reason, size, "there is no station %u, the last one is %u", station, LastStation);
    }
    if (!AreaOf(*key, bits))
        return Refuse(reason, size, "area %u is none of 0 (coils), 1 (discrete), 3 (input), 4 (holding)", area);
    if (bits && bytes != 0)
        return Refuse(reason, size, "area %u holds bits, the register's type has %u bytes", area, bytes);
    if (!bits && bytes == 0) return Refuse(reason, size, "area %u holds words, the register's type is bit", area);
    if (bytes > 8 || bytes % 2 != 0)
        return Refuse(reason, size, "an element of %u bytes is no whole number of words up to 4", bytes);
    const std::uint64_t first = bits ? key->addr : std::uint64_t{key->addr} * UnitBytes(*key) / 2;
    if (!bits && std::uint64_t{key->addr} * UnitBytes(*key) % 2 != 0) {
        return Refuse(reason, size, "byte address %lu lies within a word", static_cast<unsigned long>(key->addr));
    }
    const std::uint64_t last = first + (bits ? key->width : std::uint64_t{key->width} * (bytes / 2)) - 1;
    if (last >= AddressesPerArea) {
        return Refuse(reason, size, "the range ends at address %llu, the last one is 65535",
                      static_cast<unsigned long long>(last));
    }
    Range range;
    const auto length = static_cast<std::int32_t>(GetRegBuffLen(key));
    return MapRange(*key, length, Direction::Read, range) ? PLC_DRV_OK
                                                          : Refuse(reason, size, "the range is none of Modbus");
}

}  // namespace

const PlcDriverInfo* PlcDrvInfo(void)
{
    // High byte first, high word first; the most that one request carries; short holes cost less than a request more.
    static constexpr std::uint16_t highFirst = 0x331;
#ifdef VOQ_MODBUS_RTU
    static const PlcDriverInfo info = {sizeof(PlcDriverInfo), "modbus_rtu", LINK_SERIAL, 8, 32, 0, highFirst,
                                       MaxReadRegisters,      MaxReadBits,  Check};
#else
    static const PlcDriverInfo info = {sizeof(PlcDriverInfo), "modbus_tcp", LINK_ETHERNET, 16, 64, 0, highFirst,
                                       MaxReadRegisters,      MaxReadBits,  Check};
#endif
    return &info;
}
