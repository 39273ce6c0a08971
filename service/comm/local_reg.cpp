// Local register files. Runs on the thread that issued the driver command; may wait for another process's file lock.
#include "comm/local_reg.h"

#include <cstdio>
#include <cstring>

#include "arch/fs.h"
#include "arch/regular_file.h"
#include "arch/work_file.h"
#include "state/com_state.h"
#include "state/paths.h"

Mutex LocalRegLock;

namespace
{
constexpr std::uint16_t RegIdRW = 253;
constexpr std::uint16_t RegIdLB = 254;
constexpr std::uint16_t RegIdLW = 255;
constexpr std::uint16_t RegIdSRW = 256;
constexpr std::uint16_t RegIdSRB = 257;

constexpr std::uint64_t LastEndRW = 799999;
constexpr std::uint64_t EndLimit = 0x200000;
constexpr std::uint32_t SecondFileFrom = 10000;
constexpr std::uint32_t WordFileBytes = 131070;
constexpr std::uint32_t BitFileBytes = 65535;
constexpr std::uint32_t SRBFileBytes = 10000;
constexpr std::uint32_t KeyFlagPlain = 6;
constexpr std::uint32_t KeyFlagBcd = REG_FLAG_BCD | 6;

constexpr int Done = 1;
constexpr int Refused = 3;

constexpr char LwMissing[] = "*VOQ*Lw.DAT not find,build one \r";
constexpr char RwMissing[] = "*VOQ*RW.DAT not find,build one \r";

// Where a range lies.
struct Place {
    const char* path;
    std::uint32_t unitBytes;
    std::uint32_t createBytes;
    bool grows;
    const char* growthRead;   // message of a read that grows the file
    const char* missingRead;  // message of a missing file, null: the one that names the path
    const char* missingWrite;
    std::uint32_t addr;  // within the file
};

bool FindPlace(const RegKey& key, Place* place)
{
    const bool second = key.addr >= SecondFileFrom;
    const std::uint32_t rest = second ? key.addr - SecondFileFrom : key.addr;
    switch (key.regid) {
        case RegIdRW:
            *place = {RWName, 2, WordFileBytes, true, "*VOQ*RW need add len=%d\r\n", LwMissing, RwMissing, key.addr};
            return true;
        case RegIdLB:
            *place = {LBName, 1, BitFileBytes, true, "*VOQ*LB need add len=%d\r\n", LwMissing, LwMissing, key.addr};
            return true;
        case RegIdLW:
            *place = {LWName, 2, WordFileBytes, true, "*VOQ*LW need add len=%d\r\n", LwMissing, LwMissing, key.addr};
            return true;
        case RegIdSRW:
            *place = {second ? vSRWName : SRWName, 2, SRWFileBytes, false, nullptr, nullptr, nullptr, rest};
            return true;
        case RegIdSRB:
            *place = {second ? vSRBName : SRBName, 1, SRBFileBytes, false, nullptr, nullptr, nullptr, rest};
            return true;
        default:
            return false;
    }
}

bool RangeTooLarge(const RegKey& key)
{
    const std::uint64_t end = std::uint64_t{key.addr} + key.width;
    return key.regid == RegIdRW ? end > LastEndRW : end >= EndLimit;
}

void CreateIfMissing(const Place& place, const char* message) VOQ_REQUIRES(LocalRegLock)
{
    if (FileExists(place.path)) return;
    if (message != nullptr) {
        std::puts(message);
    } else {
        std::printf("*VOQ*%s not find,build one \r\n", place.path);
    }
    if (place.path == SRWName) {
        CreateSystemWords();
        return;
    }
    WorkFile file;
    if (file.Create(place.path)) static_cast<void>(file.AppendZeros(place.createBytes));
}

// Bytes missing for the file to reach one element past the end of the range.
std::uint32_t MissingBytes(const Place& place, std::uint16_t width, std::uint32_t size)
{
    const std::uint32_t end = place.addr + width;
    if (!place.grows || size > place.unitBytes * end) return 0;
    return place.unitBytes * (end + 1) - size;
}

void Grow(const WorkFile& file, std::uint32_t bytes, const char* message)
{
    std::printf(message, bytes);
    static_cast<void>(file.AppendZeros(bytes));
}

// A read grows the file under an exclusive lock of its own, between the two shared ones.
bool GrowForRead(const Place& place, std::uint16_t width) VOQ_REQUIRES(LocalRegLock)
{
    WorkFile file;
    if (!file.OpenRO(place.path)) return false;
    const bool enough = MissingBytes(place, width, file.Size()) == 0;
    file.Close();
    if (enough) return true;
    if (!file.OpenRW(place.path)) return false;
    const std::uint32_t missing = MissingBytes(place, width, file.Size());
    if (missing != 0) Grow(file, missing, place.growthRead);
    return true;
}

// True when the file already holds the words: a repeated write of the retained words spares the flash.
bool HoldsWords(const WorkFile& file, std::uint32_t offset, const void* data, std::uint32_t bytes)
    VOQ_REQUIRES(LocalRegLock)
{
    static unsigned char held[WordFileBytes];
    return file.ReadAt(offset, held, bytes) && std::memcmp(held, data, bytes) == 0;
}

constexpr UserOper Table = {nullptr, LocalOperRead, LocalOperWrite};
}  // namespace

const UserOper* GetUserOper()
{
    return &Table;
}

void MakeLocReg(RegKey* key, const char* name, std::uint32_t addr, std::uint16_t width, int bcd)
{
    *key = {};
    key->flag = (bcd & 1) != 0 ? KeyFlagBcd : KeyFlagPlain;
    key->portno = REG_PORT_LOCAL;
    key->layout = 0x22;
    key->regid = RegIdLW;
    if (std::strcmp(name, "LB") == 0) {
        key->layout = 0;
        key->regid = RegIdLB;
    } else if (std::strcmp(name, "RW") == 0) {
        key->regid = RegIdRW;
    } else if (std::strcmp(name, "SRW") == 0) {
        key->regid = RegIdSRW;
    }
    key->width = width;
    key->addr = addr;
    key->subaddr = 0xFFFFFFFF;
}

int LocalOperRead(const char* name, std::uint32_t addr, std::uint16_t width, void* buf, int bcd)
{
    RegKey key;
    MakeLocReg(&key, name, addr, width, bcd);
    return ReadLocal(key, buf);
}

int LocalOperWrite(const char* name, std::uint32_t addr, std::uint16_t width, const void* data, int bcd)
{
    RegKey key;
    MakeLocReg(&key, name, addr, width, bcd);
    return WriteLocal(key, data);
}

int ReadLocal(const RegKey& key, void* buf)
{
    if (RangeTooLarge(key)) return Refused;
    Place place;
    if (!FindPlace(key, &place)) return Done;

    const MutexLock lock(LocalRegLock);
    CreateIfMissing(place, place.missingRead);
    if (place.grows && !GrowForRead(place, key.width)) return Refused;
    WorkFile file;
    if (!file.OpenRO(place.path)) return Refused;
    // Short behind the end of a file that does not grow: the rest of the buffer stays the caller's.
    static_cast<void>(file.ReadSome(place.addr * place.unitBytes, buf, key.width * place.unitBytes));
    return Done;
}

int WriteLocal(const RegKey& key, const void* data)
{
    if (RangeTooLarge(key)) return Refused;
    Place place;
    if (!FindPlace(key, &place)) return Done;

    const MutexLock lock(LocalRegLock);
    CreateIfMissing(place, place.missingWrite);
    WorkFile file;
    if (!file.OpenRW(place.path)) return Refused;
    const std::uint32_t missing = MissingBytes(place, key.width, file.Size());
    if (missing != 0) Grow(file, missing, "*VOQ*need add len=%d\r\n");
    const std::uint32_t offset = place.addr * place.unitBytes;
    const std::uint32_t bytes = key.width * place.unitBytes;
    if (key.regid == RegIdRW && HoldsWords(file, offset, data, bytes)) return Done;
    // The result says that the transfer was attempted, not that the disk had room.
    static_cast<void>(file.WriteAt(offset, data, bytes));
    return Done;
}

// The file belongs to the services of all ports: each makes it under a name of its own, and gives up when another one
// was faster. It is never there with a part of its length, whenever the power goes.
void CreateSystemWords()
{
    char aside[2 * PathBytes];
    std::snprintf(aside, sizeof aside, "%s.%d_%d", SRWName, ComInfo.linkType, ComInfo.portNo);
    WorkFile file;
    const bool made = file.Create(aside) && file.AppendZeros(SRWFileBytes) && file.Sync();
    file.Close();
    if (made && KindOf(SRWName) == FileKind::None && RenameFile(aside, SRWName)) return;
    RemoveFile(aside);
}
