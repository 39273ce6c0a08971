// What the Modbus masters say of themselves to the tools that build project files. Pure; any thread.
#include <cstdio>

#include "connection.h"
#include "mapping.h"
#include "voq/plc_driver.h"
#include "voq/reg_range.h"

namespace
{

// As a request for the whole range is judged.
std::int32_t Check(const RegKey* key, char* reason, std::uint32_t size)
{
    if (key == nullptr || reason == nullptr) return PLC_DRV_ERROR;
    Range range;
    const auto length = static_cast<std::int32_t>(GetRegBuffLen(key));
    const char* why = ServesUnit(key->plcno) ? MapRange(*key, length, Direction::Read, range) : UnitsServed;
    if (why == nullptr) return PLC_DRV_OK;
    std::snprintf(reason, size, "%s", why);
    return PLC_DRV_REFUSED;
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
