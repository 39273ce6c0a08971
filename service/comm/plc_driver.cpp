// The port's driver. Main thread, and the GUI service thread for a restart; a command lasts as long as the driver
// takes.
#include "comm/plc_driver.h"

#include <atomic>
#include <cstdio>

#include "arch/dll.h"
#include "comm/local_reg.h"
#include "rdchgwr/geometry.h"
#include "stats/driver_stats.h"

PlcDrvCmdFn _cmd = nullptr;
void* _thiz = nullptr;

namespace
{
// A pointer as the log shows it: its low 32 bits.
unsigned Low32(const void* pointer)
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(pointer));
}
unsigned Low32(PlcDrvCmdFn entry)
{
    return static_cast<unsigned>(reinterpret_cast<std::uintptr_t>(entry));
}

void InstanceCommand(const char* command) VOQ_REQUIRES(DriverLock)
{
    const Waiting waiting(StatsWait::Driver);
    void* args[] = {&ComInfo};
    _cmd(command, &_thiz, args);
}
}  // namespace

int loadDrvName(char path[DrvPathBytes])
{
    const char* directory = "";
    if (ComInfo.masterSlaveMode == 0) {
        if (ComInfo.linkType == LINK_SERIAL) directory = "/Serial/";
        if (ComInfo.linkType == LINK_ETHERNET) directory = "/Ethernet/";
    } else if (ComInfo.masterSlaveMode == MODE_SLAVE) {
        if (ComInfo.linkType == LINK_SERIAL) directory = "/Service/Serial/";
        if (ComInfo.linkType == LINK_ETHERNET) directory = "/Service/Ethernet/";
    }
    std::snprintf(path, DrvPathBytes, "%s%sdrv_%d", PlcDrvDir, directory, ComInfo.portNo);
    return 1;
}

int PlcDrvSet()
{
    if (_cmd != nullptr) return 1;
    char path[DrvPathBytes];
    loadDrvName(path);
    void* library = loadDll(path);
    if (library == nullptr) return 0;
    _cmd = reinterpret_cast<PlcDrvCmdFn>(getDllApi(library, PLC_DRV_ENTRY));
    std::printf("*VOQ*drv:%s, dllHand:%p, _cmd:%p\r\n", path, library, reinterpret_cast<void*>(_cmd));
    return 1;
}

void* PlcDrvThiz()
{
    if (_thiz == nullptr && _cmd != nullptr) {
        InstanceCommand("Init");
        std::printf("*VOQ*PlcDrvThiz:: Init PLC drv thiz=%x\r\n", Low32(_thiz));
    }
    return _thiz;
}

void PlcDrvInit()
{
    std::printf("*VOQ*--==>PLC init!_cmd=%x thiz=%d\r\n", Low32(_cmd), static_cast<int>(Low32(_thiz)));
    if (_cmd == nullptr || _thiz != nullptr) return;
    InstanceCommand("Init");
    std::printf("*VOQ*Init PLC drv thiz=%x\r\n", Low32(_thiz));
}

void PlcDestroy()
{
    std::printf("*VOQ*PLC destroy!_cmd=%x thiz=%d\r\n", Low32(_cmd), static_cast<int>(Low32(_thiz)));
    if (_cmd == nullptr || _thiz == nullptr) return;
    const unsigned handle = Low32(_thiz);
    InstanceCommand("Destroy");
    std::printf("*VOQ*Destroy PLC drv=%x\r\n", handle);
}

int PlcDrvLoop()
{
    if (_cmd == nullptr) return 3;
    const MutexLock lock(DriverLock);
    void* args[] = {&ComInfo, const_cast<UserOper*>(GetUserOper())};
    void* const driver = PlcDrvThiz();
    const Waiting waiting(StatsWait::Driver);
    return _cmd("Loop", driver, args);
}

void ReloadDriver(const ComInfoRecord& image)
{
    const MutexLock lock(DriverLock);
    // Single bytes and one aligned word: a driver that reads them in the middle sees the old or the new value.
    std::atomic_ref(ComInfo.dataBits).store(image.dataBits, std::memory_order_relaxed);
    std::atomic_ref(ComInfo.parity).store(image.parity, std::memory_order_relaxed);
    std::atomic_ref(ComInfo.baudOrAddress).store(image.baudOrAddress, std::memory_order_relaxed);
    ShowPort(_cmd != nullptr);
    PlcDestroy();
    _thiz = nullptr;
    PlcDrvInit();
}

std::uint32_t PlcGetBytes(const RegKey& key)
{
    return key.width * ((uBits(key) + 7) / 8);
}

std::int32_t DriverTransfer(TimedCall::Kind kind, RegKey key, void* buffer)
{
    const MutexLock lock(DriverLock);
    PlcRequest request = {&key, static_cast<std::int32_t>(PlcGetBytes(key)), buffer};
    void* args[] = {&request, &ComInfo, const_cast<UserOper*>(GetUserOper())};
    void* const driver = PlcDrvThiz();
    // The driver may write to the key that it is handed.
    const RegKey asked = key;
    TimedCall call(kind, asked);
    const std::int32_t result = _cmd(kind == TimedCall::Kind::Read ? "RdOne" : "WrOne", driver, args);
    call.Ended(result);
    return result;
}
