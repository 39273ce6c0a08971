// What the simulated PLC says of itself to the tools that build project files. Pure; any thread.
#include <cstdio>

#include "voq/plc_driver.h"
#include "voq/reg_range.h"

namespace
{

constexpr unsigned LargestElement = 8;  // bytes

// Every station, area and address is there: all wrap around.
std::int32_t Check(const RegKey* key, char* reason, std::uint32_t size)
{
    if (key == nullptr || reason == nullptr) return PLC_DRV_ERROR;
    if (RegElemSize(key) <= LargestElement) return PLC_DRV_OK;
    std::snprintf(reason, size, "an element of %u bytes is larger than %u", RegElemSize(key), LargestElement);
    return PLC_DRV_ERROR;
}

}  // namespace

const PlcDriverInfo* PlcDrvInfo(void)
{
    static const PlcDriverInfo info = {sizeof(PlcDriverInfo), "sim", LINK_ETHERNET, 16, 64, 0, 0, 64, 128, Check};
    return &info;
}
