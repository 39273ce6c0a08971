// Operator changes, on the main thread.
#include "comm/com_monitor.h"

#include <cstdio>
#include <cstring>

#include "arch/box_path.h"
#include "arch/fs.h"
#include "arch/misc_device.h"
#include "arch/work_file.h"
#include "comm/plc_driver.h"
#include "comm/retained.h"
#include "state/counters.h"
#include "state/paths.h"

namespace
{
constexpr std::uint32_t FirstChangeFlag = 20;  // byte of port 0's change flag

void ApplyRetainedSettings()
{
    SerialSettings settings;
    if (CheckSRWComPara(&settings) != 1) return;
    {
        const MutexLock lock(DriverLock);
        Copy2ComInfo(settings);
        ShowPort(_cmd != nullptr);
    }
    COM_SetMode(ComInfo.portNo, ComInfo.lineMode);
}
}  // namespace

int CheckIfComChg(std::uint16_t portIndex)
{
    if (!FileExists(ChangeFlags)) return -1;
    WorkFile file;
    if (!file.OpenTrustedRW(ChangeFlags)) return -1;  // anybody may make one in /tmp
    const std::uint32_t flagAt = FirstChangeFlag + portIndex;
    std::uint8_t flag = 0;
    if (!file.ReadRecord(flagAt, flag) || flag == 0) return file.Close();
    std::printf("*VOQ*Cominfo need change!srb20=%d,ftell=%d\r\n", flag, static_cast<int>(flagAt + 1));
    ApplyRetainedSettings();
    // Which of the two the GUI raises depends on how the project numbers its ports; a flag left up would apply the
    // settings again on every check.
    const std::uint8_t clear = 0;
    static_cast<void>(file.WriteRecord(FirstChangeFlag + ComInfo.portNo, clear));
    if (portIndex != ComInfo.portNo) static_cast<void>(file.WriteRecord(flagAt, clear));
    file.Sync();
    return file.Close();
}

int CheckStaionEnable()
{
    if (!FileExists(RetainedSettings)) return -1;
    WorkFile file;
    if (!file.OpenRW(RetainedSettings)) return -1;
    const std::uint32_t words = RetainedStations(ComInfo.portNo);
    StationWords before;
    std::memcpy(before, StationDisable, sizeof before);
    if (file.Size() >= words) static_cast<void>(file.ReadSome(words, StationDisable, sizeof StationDisable));
    if (std::memcmp(before, StationDisable, sizeof before) != 0) ++SwitchChanges;
    return file.Close();
}

int CheckSlaveNo()
{
    if (!FileExists(SlaveNoName)) return -1;
    WorkFile file;
    if (!file.OpenRO(SlaveNoName)) return -1;
    std::uint16_t slaveNo;
    if (file.ReadRecord(0, slaveNo)) {
        const MutexLock lock(DriverLock);
        ComInfo.slaveNo = slaveNo;
    }
    file.Close();
    return RemoveFile(SlaveNoName);
}
