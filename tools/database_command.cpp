// "voqctl project prepare" and "voqctl compare". Main thread; waits for the disk.
#include <sys/stat.h>
#include <sys/time.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>

#include "client/compare.h"
#include "client/prepare.h"
#include "client/register.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "tools/write_file.h"
#include "voq/reg_range.h"

namespace
{

Stamp Now()
{
    timeval now = {};
    gettimeofday(&now, nullptr);
    return {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_usec)};
}

// A sync for each: on flash the long part of it.
void WriteFiles(const std::string& directory, const voq::Snapshot& files)
{
    Progress progress("prepare: index maps on the disk");
    std::size_t done = 0;
    for (const auto& [name, bytes] : files.maps) {
        progress.At(done++, files.maps.size());
        CreateFile(directory + "/" + name, *bytes);
    }
    CreateFile(directory + "/data", voq::Bytes(files.dataSize));
    CreateFile(directory + "/index", files.index);
    CreateFile(directory + "/org", files.org.bytes);
    const mode_t mask = umask(0);
    umask(mask);
    if (chmod(directory.c_str(), 0777 & ~mask) != 0) throw voq::SystemError(directory, errno);
}

// The directory appears with all its files, or not at all. One that is there must be empty.
void WriteSet(const std::string& directory, const voq::Snapshot& files)
{
    std::string temporary = directory + ".XXXXXX";
    if (mkdtemp(temporary.data()) == nullptr) throw voq::SystemError(temporary, errno);
    try {
        WriteFiles(temporary, files);
        if (rename(temporary.c_str(), directory.c_str()) != 0) throw voq::SystemError(directory, errno);
    } catch (...) {
        std::error_code ignored;
        std::filesystem::remove_all(temporary, ignored);
        throw;
    }
}

voq::Snapshot Copy(const std::string& directory)
{
    voq::PortDir place;
    place.own = directory;
    Progress progress("compare: index maps");
    voq::Snapshot snapshot = voq::TakeSnapshot(place, progress.Teller());
    if (snapshot.org.bytes.size() < sizeof(OrgHeader)) throw voq::Error(place.Org() + ": shorter than its header");
    return snapshot;
}

}  // namespace

int ProjectPrepare(const std::string& file, std::uint16_t index, std::string directory)
{
    while (directory.size() > 1 && directory.back() == '/') directory.pop_back();
    const voq::Project project = LoadProjectFile(file);
    voq::Prepared prepared;
    try {
        Progress progress("prepare: registers");
        prepared = voq::PrepareDatabase(project, index, Now(), progress.Teller());
    } catch (const voq::Error& error) {
        throw voq::Error(file + ": " + error.what());
    }
    for (const RegKey& key : prepared.refused) {
        Complain("left out, as the service does: " + voq::Expression({key, voq::TypeOfSize(RegElemSize(&key))}) +
                 " takes " + std::to_string(GetRegBuffLen(&key)) + " bytes, more than " +
                 std::to_string(MaxRegionBytes));
    }
    WriteSet(directory, prepared.files);
    std::printf("%s: port %u, %u record(s), %zu group(s), %llu data bytes\n", Printable(directory).c_str(),
                unsigned{project.ports[index].portNo}, prepared.files.org.RecordsInFile(), prepared.files.maps.size(),
                static_cast<unsigned long long>(prepared.files.dataSize));
    return ExitOk;
}

int Compare(const std::string& a, const std::string& b)
{
    const auto differences = voq::CompareSnapshots(Copy(a), Copy(b));
    for (const std::string& line : differences) std::printf("%s\n", line.c_str());
    return differences.empty() ? ExitOk : ExitNegative;
}
