// Storage of the communication state. No code runs here but the choice between word and bit limits.
#include "state/com_state.h"

Mutex DriverLock;
ComInfoRecord ComInfo;
std::uint16_t sysByteOder;
std::uint32_t pack_disable;
std::uint32_t comIntervals;
char PlcDrvDir[DirNameBytes];
std::uint16_t isHmi;

PackLimits PortPackLimits(const RegKey& key)
{
    if (RegElemSize(&key) == 0) return {ComInfo.bitLimit, ComInfo.bitGap};
    return {ComInfo.wordLimit, ComInfo.wordGap};
}
