// Entry of the Modbus slave drivers, TCP and RTU: dispatch. Runs on the service's threads, one command at a time.
#include <cstdint>
#include <cstring>

#include "slave.h"

namespace
{

std::int32_t Init(void** slot)
{
    if (*slot == nullptr) *slot = NewSlave();
    return *slot != nullptr ? PLC_DRV_OK : PLC_DRV_ERROR;
}

std::int32_t Destroy(void** slot)
{
    if (*slot == nullptr) return PLC_DRV_OK;
    FreeSlave(static_cast<Slave*>(*slot));
    *slot = nullptr;
    return PLC_DRV_OK;
}

std::int32_t Loop(Slave& slave, const ComInfoRecord* info, const UserOper* oper)
{
    if (info == nullptr || oper == nullptr || oper->read == nullptr || oper->write == nullptr) return PLC_DRV_ERROR;
    return SlaveTurn(slave, *info, *oper);
}

}  // namespace

// A slave has no PLC: "RdOne" and "WrOne" are refused, like any other command it does not know.
int32_t PlcDrvCmd(const char* command, void* target, void** args)
{
    if (command == nullptr || target == nullptr || args == nullptr) return PLC_DRV_ERROR;
    if (std::strcmp(command, "Loop") == 0)
        return Loop(*static_cast<Slave*>(target), static_cast<ComInfoRecord*>(args[0]),
                    static_cast<const UserOper*>(args[1]));
    if (std::strcmp(command, "Init") == 0) return Init(static_cast<void**>(target));
    if (std::strcmp(command, "Destroy") == 0) return Destroy(static_cast<void**>(target));
    return PLC_DRV_ERROR;
}
