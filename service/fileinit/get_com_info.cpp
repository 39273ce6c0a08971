// Reader of the communication parameters, on the main thread during start-up.
#include "fileinit/get_com_info.h"

#include <cstdio>

#include "arch/box_path.h"
#include "arch/fs.h"
#include "arch/work_file.h"
#include "comm/retained.h"
#include "fileinit/project_file.h"
#include "state/com_state.h"
#include "voq/project_file.h"

namespace
{
constexpr std::uint16_t KindSerial = 0;
constexpr std::uint16_t KindEthernet = 2;
constexpr std::uint32_t PackingShift = 17;
constexpr std::uint32_t PackingMask = 3;

struct PortIndexEntry {
    std::uint16_t kind;
    std::uint16_t number;
};

int OpenProject(ProjectFile& project, const char* path)
{
    if (!project.Open(path)) {
        std::puts("open ophmi.bin error");
        return -1;
    }
    if (project.Size() < ProjectMinBytes) {
        std::puts("ophmi.bin size <200 byte");
        return -1;
    }
    return 0;
}

int ReadPanelParameters(const char* path, std::uint16_t portIndex)
{
    ProjectFile project;
    if (OpenProject(project, path) != 0) return -1;
    std::uint32_t table, system, comm, ports, record;
    if (!project.Read(ProjectSegmentTable, table, "segment table")) return -1;
    if (!project.Read(std::uint64_t{table} + SegmentSystem, system, "system segment")) return -1;
    if (!project.Read(std::uint64_t{system} + SystemByteOrder, sysByteOder, "system byte order")) return -1;
    std::printf("*VOQ*sys byte oder=%x\r\n", sysByteOder);
    if (!project.Read(std::uint64_t{table} + SegmentComm, comm, "communication segment")) return -1;
    if (!project.Read(comm, ports, "number of ports")) return -1;
    if (portIndex >= ports) {
        std::printf("Port not find,ComPorts=%d,ComSegIndex=%d\n", static_cast<int>(ports), portIndex);
        return -1;
    }
    const MutexLock lock(DriverLock);
    if (!project.Read(std::uint64_t{comm} + 4 + 4u * portIndex, record, "port offset")) return -1;
    return project.Read(std::uint64_t{comm} + record, ComInfo, "port record") ? 0 : -1;
}

void ApplyRetainedSettings()
{
    if (ComInfo.linkType != LINK_SERIAL) return;
    SerialSettings settings;
    if (CheckSRWComPara(&settings) != 1) return;
    const MutexLock lock(DriverLock);
    Copy2ComInfo(settings);
}

// Finds the port's entry in the gateway box's port index.
int ReadPortIndex(std::uint16_t portIndex, PortIndexEntry& entry)
{
    WorkFile index;
    if (!index.OpenGiven(TarnPortIndex)) {
        std::puts("open ophmi.bin error");
        return -1;
    }
    std::uint16_t ports = 0;
    if (!index.ReadRecord(0, ports)) ports = 0;
    if (portIndex >= ports) {
        std::printf("Port not find,TarnPorts=%d,ComSegIndex=%d\n", ports, portIndex);
        return -1;
    }
    if (!index.ReadRecord(2 + 4u * portIndex, entry)) {
        std::printf("*VOQ*%s too short for port %d\r\n", TarnPortIndex, portIndex);
        return -1;
    }
    return 0;
}

int ReadGatewayParameters(std::uint16_t portIndex)
{
    std::puts("*VOQ*tarn portindex find...loading...\r");
    PortIndexEntry entry;
    if (ReadPortIndex(portIndex, entry) != 0) return -1;
    if (entry.kind != KindSerial && entry.kind != KindEthernet) {
        std::printf("*VOQ*%s: port %d has unknown link kind %d\r\n", TarnPortIndex, portIndex, entry.kind);
        return -1;
    }
    char path[64];
    std::snprintf(path, sizeof path, entry.kind == KindSerial ? TarnSerialConfig : TarnTcpConfig, entry.number);
    std::printf("*VOQ*Read config form %s\r\n", path);
    WorkFile config;
    if (!config.OpenGiven(path)) {
        std::printf("open %s error\n", path);
        return -1;
    }
    const MutexLock lock(DriverLock);
    if (config.ReadRecord(0, ComInfo)) return 0;
    std::printf("*VOQ*%s is shorter than a port record\r\n", path);
    return -1;
}
}  // namespace

int GetComInfo(const char* projectPath, std::uint16_t portIndex)
{
    if (FileSurelyExists(TarnPortIndex)) {
        if (ReadGatewayParameters(portIndex) != 0) return -1;
    } else {
        if (ReadPanelParameters(projectPath, portIndex) != 0) return -1;
        ApplyRetainedSettings();
    }
    pack_disable = ComInfo.flags >> PackingShift & PackingMask;
    std::printf("*VOQ*-----------------------------&&&&&&&&&&&pack=%d\r\n", static_cast<int>(pack_disable));
    return 0;
}
