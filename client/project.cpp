// Builds and parses project files. Pure; any thread.
#include "client/project.h"

#include <string>

#include "client/error.h"
#include "voq/project_file.h"

namespace voq
{

namespace
{

// Where the builder puts the segments. Readers follow the offsets.
constexpr std::uint32_t TablePlace = 64;
constexpr std::uint32_t SystemPlace = 128;
constexpr std::uint32_t CommPlace = ProjectMinBytes;

void PutU32(Bytes& bytes, std::size_t offset, std::size_t value)
{
    PutRecord(bytes, offset, static_cast<std::uint32_t>(value));
}

// Reads places of the file and says which one is missing.
class Reader
{
public:
    explicit Reader(std::span<const std::uint8_t> file) : file_(file) {}

    template <typename Record>
    Record At(std::uint64_t offset, const std::string& what) const
    {
        const auto record = RecordAt<Record>(file_, offset);
        if (!record) {
            throw Error("offset " + std::to_string(offset) + ": " + what + " lies outside the file of " +
                        std::to_string(file_.size()) + " bytes");
        }
        return *record;
    }

    std::uint32_t U32(std::uint64_t offset, const std::string& what) const { return At<std::uint32_t>(offset, what); }

    // A count at `offset` of things that take at least `each` bytes of the file behind it.
    std::uint32_t Count(std::uint64_t offset, std::uint32_t each, const std::string& what) const
    {
        const std::uint32_t count = U32(offset, what);
        if (count > (file_.size() - offset - 4) / each) {
            throw Error("offset " + std::to_string(offset) + ": " + what + " is " + std::to_string(count) +
                        ", more than the file can hold");
        }
        return count;
    }

private:
    std::span<const std::uint8_t> file_;
};

void ParsePorts(const Reader& file, std::uint32_t segment, Project& project)
{
    const std::uint32_t count = file.Count(segment, 4, "the number of ports");
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::string name = "port " + std::to_string(i);
        const std::uint64_t entry = std::uint64_t{segment} + 4 + std::uint64_t{4} * i;
        const std::uint32_t relative = file.U32(entry, "the offset of " + name);
        project.ports.push_back(file.At<ComInfoRecord>(std::uint64_t{segment} + relative, "the record of " + name));
    }
}

void ParseRegisters(const Reader& file, std::uint32_t table, Project& project)
{
    const std::uint32_t count = file.Count(table, 8, "the number of registers");
    for (std::uint32_t i = 0; i < count; ++i) {
        const std::string name = "register " + std::to_string(i);
        const std::uint64_t entry = std::uint64_t{table} + 4 + std::uint64_t{4} * (std::uint64_t{count} + i);
        const std::uint32_t relative = file.U32(entry, "the offset of " + name);
        project.registers.push_back(file.At<RegKey>(std::uint64_t{table} + relative, "the key of " + name));
    }
}

}  // namespace

Bytes BuildProject(const Project& project)
{
    const std::size_t ports = project.ports.size();
    const std::size_t registers = project.registers.size();
    Bytes file(ProjectMinBytes);
    PutU32(file, ProjectSegmentTable, TablePlace);
    PutU32(file, TablePlace + SegmentSystem, SystemPlace);
    PutRecord(file, SystemPlace + SystemByteOrder, project.byteOrder);

    PutU32(file, TablePlace + SegmentComm, CommPlace);
    PutU32(file, CommPlace, ports);
    for (std::size_t i = 0; i < ports; ++i) {
        const std::size_t relative = 4 + 4 * ports + sizeof(ComInfoRecord) * i;
        PutU32(file, CommPlace + 4 + 4 * i, relative);
        PutRecord(file, CommPlace + relative, project.ports[i]);
    }

    const std::size_t segment = file.size();
    const std::size_t table = segment + 4;
    PutU32(file, TablePlace + SegmentRegister, segment);
    PutU32(file, segment, table);
    PutU32(file, table, registers);
    for (std::size_t i = 0; i < registers; ++i) {
        const std::size_t relative = 4 + 8 * registers + sizeof(RegKey) * i;
        PutU32(file, table + 4 + 4 * (registers + i), relative);
        PutRecord(file, table + relative, project.registers[i]);
    }
    return file;
}

Project ParseProject(std::span<const std::uint8_t> bytes)
{
    if (bytes.size() < ProjectMinBytes) {
        throw Error("a project file has at least " + std::to_string(ProjectMinBytes) + " bytes, this one " +
                    std::to_string(bytes.size()));
    }
    const Reader file(bytes);
    Project project;
    const std::uint64_t table = file.U32(ProjectSegmentTable, "the offset of the segment table");
    const std::uint64_t system = file.U32(table + SegmentSystem, "the offset of the system segment");
    project.byteOrder = file.At<std::uint16_t>(system + SystemByteOrder, "the system byte-order word");
    ParsePorts(file, file.U32(table + SegmentComm, "the offset of the communication segment"), project);
    const std::uint32_t segment = file.U32(table + SegmentRegister, "the offset of the register segment");
    ParseRegisters(file, file.U32(segment, "the offset of the register table"), project);
    return project;
}

}  // namespace voq
