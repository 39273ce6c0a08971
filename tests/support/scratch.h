// A folder of its own, on the memory file system unless told otherwise, with the working paths of the service pointing
// into it, an empty register database, and a driver that records what it is asked. For tests, fuzz targets and
// benchmarks.
#pragma once

#include <unistd.h>

#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "comm/plc_driver.h"
#include "list/fast_list.h"
#include "state/counters.h"
#include "state/paths.h"
#include "voq/org_record.h"

inline void SetWorkingPaths(const std::string& folder)
{
    const std::pair<char*, const char*> paths[] = {
        {DataDir, ""},         {LBName, "lb.dat"},         {LWName, "lw.dat"},       {SRWName, "srw0.dat"},
        {SRBName, "srb0.dat"}, {RWName, "rw.dat"},         {vSRWName, "srw.dat"},    {vSRBName, "srb.dat"},
        {OrgFileName, "org"},  {DataFileName, "data"},     {IndexFileName, "index"}, {TimeoutName, "timeout"},
        {GuiFifo, "guififo"},  {ComErrorName, "comerror"}, {MekFifo, "mekfifo"},     {SlaveNoName, "slaveno"},
        {PulsesName, "pulses"}};
    for (const auto& [path, name] : paths) std::strcpy(path, (folder + name).c_str());
}

class Scratch
{
public:
    explicit Scratch(const std::string& parent = "/dev/shm")
    {
        std::string unique = parent + "/voqXXXXXX";
        if (mkdtemp(unique.data()) == nullptr) std::abort();
        folder_ = unique + "/";
        SetWorkingPaths(folder_);
        ResetDatabase();
    }
    ~Scratch() { std::filesystem::remove_all(folder_); }
    Scratch(const Scratch&) = delete;
    Scratch& operator=(const Scratch&) = delete;

    [[nodiscard]] const std::string& Folder() const { return folder_; }

    // An empty org list, index and data file, an empty fast list, no failures counted.
    static void ResetDatabase()
    {
        std::ofstream(OrgFileName, std::ios::binary) << std::string(sizeof(OrgHeader), '\0');
        std::ofstream(DataFileName, std::ios::binary | std::ios::trunc);
        std::ofstream(IndexFileName, std::ios::binary | std::ios::trunc);
        ResetFastList();
        GlobeTimeout = 0;
        GlobeComError = 0;
        LogOnAmount = 0;
        std::memset(StationDisable, 0, sizeof StationDisable);
    }

private:
    std::string folder_;
};

inline SlotListHead FastHead()
{
    const ReadLock lock(fast_rwlock);
    return OrgFastListHead;
}

inline std::string FileBytes(const std::string& path)
{
    std::ifstream stream(path, std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(stream), {});
}

inline OrgNode ReadOrgNode(const std::string& org, std::uint32_t offset)
{
    OrgNode node{};
    if (offset + sizeof node <= org.size()) std::memcpy(&node, org.data() + offset, sizeof node);
    return node;
}

struct DriverCall {
    std::string command;
    std::int32_t length;  // of RdOne and WrOne
};

// A driver that says yes to everything and leaves buffers alone; what it was asked is recorded.
struct FakeDriver {
    static inline std::vector<DriverCall> Calls;

    static std::int32_t Command(const char* command, void* target, void** args)
    {
        static int instance;
        const bool transfer = std::strcmp(command, "RdOne") == 0 || std::strcmp(command, "WrOne") == 0;
        if (std::strcmp(command, "Init") == 0) *static_cast<void**>(target) = &instance;
        Calls.push_back({command, transfer ? static_cast<PlcRequest*>(args[0])->length : 0});
        return PLC_DRV_OK;
    }

    // No instance, nothing recorded; the entry point is this driver's.
    static void Use()
    {
        const MutexLock lock(DriverLock);
        _cmd = Command;
        _thiz = nullptr;
        Calls.clear();
    }
};

inline RegKey WordKey(std::uint32_t addr, std::uint16_t width, std::uint8_t layout = 0x22)
{
    return {1u << REG_FLAG_PRIORITY_SHIFT, 0, 1, 1, layout, 16, width, addr, 0};
}
