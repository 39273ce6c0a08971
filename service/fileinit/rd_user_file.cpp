// The configuration step, on the main thread before any other thread exists.
#include "fileinit/rd_user_file.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arch/fs.h"
#include "arch/life_lock.h"
#include "arch/regular_file.h"
#include "arch/system_error.h"
#include "comm/com_monitor.h"
#include "comm/plc_driver.h"
#include "fileinit/database_files.h"
#include "fileinit/get_com_info.h"
#include "fileinit/working_paths.h"
#include "list/fast_list.h"
#include "list/rt_file.h"
#include "list/rt_list.h"
#include "oper/org_pass.h"
#include "oper/pulse_notes.h"
#include "state/com_state.h"
#include "state/counters.h"
#include "state/paths.h"
#include "stats/heartbeat.h"
#include "stats/stats_file.h"

namespace
{
constexpr std::size_t MostPayloads = 100000;  // names looked at

[[noreturn]] void ConfigurationFailed()
{
    std::puts("Get cominfo failed. Need relanch. exit...");
    std::exit(EXIT_SUCCESS);
}

// Two services on one port directory would write the same files and share the clients' frames between them.
void HoldPort()
{
    char path[2 * PathBytes];
    std::snprintf(path, sizeof path, "%slock", DataDir);
    const LifeLock lock = LockForLife(path);
    if (lock == LifeLock::None) {
        std::printf("*VOQ*%s cannot be locked, a second service on this port would not be noticed\r\n", path);
        PrintSystemError("lock:");
    }
    if (lock != LifeLock::HeldElsewhere) return;
    std::printf("*VOQ*%s is held: another service serves this port\r\n", path);
    std::exit(EXIT_FAILURE);
}

void SetAside(const char* path)
{
    char kept[PathBytes + 16];
    std::snprintf(kept, sizeof kept, "%s.bad", path);
    if (RenameFile(path, kept)) {
        std::printf("*VOQ*%s was no FIFO, kept as %s\r\n", path, kept);
    } else {
        std::printf("*VOQ*%s could not be kept as %s\r\n", path, kept);
    }
}

void MakeClientFifo(const char* path, const char* failure)
{
    const FileKind kind = KindOf(path);
    if (kind == FileKind::Fifo) return;
    if (kind != FileKind::None) SetAside(path);
    if (!MakeFifo(path)) std::printf(failure, path);
}

void MakeClientFifos()
{
    MakeClientFifo(GuiFifo, "*VOQ*Could not create gui fifo %s\n\r\n");
    MakeClientFifo(MekFifo, "*VOQ*Could not create mek fifo %s\n\r\n");
}

// What an earlier run had listed is forgotten.
void RemovePayloads()
{
    RemoveFilesByPrefix(DataDir, PayloadPrefix, MostPayloads);
}

void ResetSharedState()
{
    ResetFastList();
    ResetRtList();
    LogOnAmount.store(0, std::memory_order_relaxed);
    LoopReStart = 0;
    GlobeTimeout.store(0, std::memory_order_relaxed);
    std::memset(StationDisable, 0, sizeof StationDisable);
}
}  // namespace

int RdUserFile(const char* projectPath, const char* userDir, std::uint16_t portIndex)
{
    if (GetComInfo(projectPath, portIndex) != 0) ConfigurationFailed();
    char portDirectory[PathBytes];
    if (!PortDirectory(portDirectory)) {
        std::printf("*VOQ*link type %d is neither serial, CAN nor Ethernet\r\n", ComInfo.linkType);
        ConfigurationFailed();
    }
    PlcDrvSet();

    DownloadPaths download;
    BuildDataPaths(userDir, portDirectory, &download);
    MakeDirectory(DataDir);
    HoldPort();
    BuildLocalPaths(userDir);
    BuildPortPaths();
    StartStats(StatsName, portIndex);
    StartHeartbeat();
    if (ComInfo.masterSlaveMode == MODE_SLAVE) {
        BuildSlavePath();
    } else {
        MakeClientFifos();
    }
    RemovePayloads();
    ResetSharedState();
    // A station that is switched off is not to be asked for the bits of its pulses.
    if (ComInfo.masterSlaveMode != MODE_SLAVE && TakeOverPulseNotes()) CheckStaionEnable();
    return PrepareDatabase(projectPath, download);
}
