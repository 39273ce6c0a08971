// Reader of the project's register table, on the main thread during start-up.
#include "fileinit/init_org.h"

#include <cstdint>
#include <cstdio>

#include "arch/box_path.h"
#include "arch/fs.h"
#include "fileinit/project_file.h"
#include "list/log_on_off.h"
#include "state/com_state.h"
#include "voq/project_file.h"

namespace
{
constexpr std::uint32_t WordBytes = 4;

struct RegisterTable {
    std::uint32_t at;
    std::uint32_t amount;
};

bool FindRegisterTable(ProjectFile& project, RegisterTable* table)
{
    std::uint32_t segments, registers;
    return project.Read(ProjectSegmentTable, segments, "segment table") &&
           project.Read(std::uint64_t{segments} + SegmentRegister, registers, "register segment") &&
           project.Read(registers, table->at, "register table") &&
           project.Read(table->at, table->amount, "number of registers");
}

// A register takes two words of the table; a larger number is damage and must not drive the loop.
bool AmountFits(const ProjectFile& project, const RegisterTable& table)
{
    const std::uint64_t end = std::uint64_t{table.at} + WordBytes + 2ull * WordBytes * table.amount;
    if (end <= project.Size()) return true;
    std::printf("*VOQ*project file damaged: %u registers do not fit it\r\n", table.amount);
    return false;
}

bool ReadKey(ProjectFile& project, const RegisterTable& table, std::uint32_t i, RegKey* key)
{
    std::uint32_t relative;
    const std::uint64_t word =
        std::uint64_t{table.at} + WordBytes + std::uint64_t{WordBytes} * (table.amount + std::uint64_t{i});
    return project.Read(word, relative, "register offset") &&
           project.Read(std::uint64_t{table.at} + relative, *key, "register");
}

// Looked at before the first registration, so that a damaged table leaves nothing rather than a part of it.
bool AllKeysReadable(ProjectFile& project, const RegisterTable& table)
{
    for (std::uint32_t i = 0; i < table.amount; ++i) {
        RegKey key;
        if (!ReadKey(project, table, i, &key)) return false;
    }
    return true;
}

bool BelongsToPort(const RegKey& key)
{
    return key.portno == ComInfo.portNo && key.convpara >> 16 == 0;
}
}  // namespace

int InitOrgFromFile(const char* projectPath)
{
    if (FileSurelyExists(TarnPortIndex)) return 0;
    ProjectFile project;
    if (!project.Open(projectPath)) {
        std::printf("*VOQ*open project file %s error\r\n", projectPath);
        return -1;
    }
    RegisterTable table;
    if (!FindRegisterTable(project, &table)) return -1;
    std::printf("*VOQ*RegAmount=%d\n\r\n", static_cast<int>(table.amount));
    if (!AmountFits(project, table) || !AllKeysReadable(project, table)) return -1;
    for (std::uint32_t i = 0; i < table.amount; ++i) {
        RegKey key;
        if (!ReadKey(project, table, i, &key)) return -1;
        if (BelongsToPort(key) && CheckOrgList(&key) != 0) return -1;
    }
    return 0;
}
