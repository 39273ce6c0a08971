// Arbitrary bytes as the project file, through both of its readers: nothing is read outside it, and whatever ranges it
// names leave a sound register database.
#include <cstdint>

#include "database/check.h"
#include "database/index.h"
#include "fileinit/get_com_info.h"
#include "fileinit/init_org.h"
#include "memory_files.h"
#include "voq/project_file.h"

namespace
{
constexpr std::size_t MostBytes = 1024;  // a register takes 8 of them and up to 65792 in the data file

constexpr char ProjectPath[] = "ophmi.bin";

// The fixed segments in front of a register table: without them hardly an input would reach a register.
std::string Segments()
{
    std::uint32_t words[ProjectMinBytes / 4] = {};
    words[ProjectSegmentTable / 4] = 24;
    words[(24 + SegmentComm) / 4] = 80;  // one port
    words[80 / 4] = 1;
    words[84 / 4] = 8;
    words[(24 + SegmentRegister) / 4] = 160;
    words[160 / 4] = ProjectMinBytes;
    return {reinterpret_cast<const char*>(words), sizeof words};
}
}  // namespace

// Input: bit 0 of the first byte chooses between a whole file and the register table of a sound one, the rest of it is
// the port index.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    if (size == 0 || size > MostBytes) return 0;
    const std::string bytes(reinterpret_cast<const char*>(data + 1), size - 1);
    ResetBox();
    StoreFile(ProjectPath, (data[0] & 1) != 0 ? bytes : Segments() + bytes);
    GetComInfo(ProjectPath, data[0] >> 1);
    InitOrgFromFile(ProjectPath);
    InitIndexMap();
    if (CheckDatabase(MapCare::Judge) != DatabaseState::Sound) abort();
    return 0;
}
