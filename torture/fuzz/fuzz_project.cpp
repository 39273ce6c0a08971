// Arbitrary bytes as the project file, through both of its readers: nothing is read outside it, and whatever ranges it
// names leave a sound register database.
#include <cstdint>
#include <cstring>
#include <string>

#include "database/check.h"
#include "database/index.h"
#include "fileinit/get_com_info.h"
#include "fileinit/init_org.h"
#include "memory_files.h"
#include "state/com_state.h"

namespace
{
constexpr std::size_t MostBytes = 1024;  // a register takes 8 of them and up to 65792 in the data file

constexpr char ProjectPath[] = "ophmi.bin";

// A project of fixed segments around the given bytes: without it hardly an input would reach a register.
std::string Project(const std::uint8_t* data, std::size_t size)
{
    std::string file(200, '\0');
    const auto set = [&file](std::size_t at, std::uint32_t value) { std::memcpy(&file[at], &value, sizeof value); };
    set(20, 24);       // segment table
    set(24, 0);        // system segment
    set(24 + 32, 80);  // communication segment: one port
    set(80, 1);
    set(84, 8);
    set(24 + 40, 160);  // register segment
    set(160, 200);
    return file.append(reinterpret_cast<const char*>(data), size);
}
}  // namespace

// Input: bit 0 of the first byte chooses between a whole file and the register table of a sound one, the rest of it is
// the port index.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    static const bool ready = StartBox();
    if (!ready) abort();
    if (size == 0 || size > MostBytes) return 0;
    const bool whole = (data[0] & 1) != 0;
    const std::string bytes =
        whole ? std::string(reinterpret_cast<const char*>(data + 1), size - 1) : Project(data + 1, size - 1);
    ResetBox();
    StoreFile(ProjectPath, bytes.data(), bytes.size());
    ComInfo = {};
    GetComInfo(ProjectPath, data[0] >> 1);
    InitOrgFromFile(ProjectPath);
    InitIndexMap();
    if (CheckDatabase(MapCare::Judge) != DatabaseState::Sound) abort();
    return 0;
}
