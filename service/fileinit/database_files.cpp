// The register database at start-up, on the main thread. A marker file stands while a first build runs, so that a build
// cut short is redone and never taken for a whole table.
#include "fileinit/database_files.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arch/box_path.h"
#include "arch/clock.h"
#include "arch/fs.h"
#include "arch/regular_file.h"
#include "arch/work_file.h"
#include "database/check.h"
#include "database/index.h"
#include "database/org_file.h"
#include "fileinit/init_org.h"
#include "state/com_state.h"

namespace
{
constexpr std::size_t MostMapFiles = 100000;
constexpr std::uint32_t CopySettleMicroseconds = 200000;

void BuildingMarker(char path[2 * PathBytes])
{
    std::snprintf(path, 2 * PathBytes, "%sbuilding", DataDir);
}

bool BuildWasCutShort()
{
    char marker[2 * PathBytes];
    BuildingMarker(marker);
    return FileSurelyExists(marker);
}

void BeginBuild()
{
    char marker[2 * PathBytes];
    BuildingMarker(marker);
    WorkFile file;
    if (file.Create(marker)) file.Sync();
    SyncDirectory(DataDir);
}

void EndMarker()
{
    char marker[2 * PathBytes];
    BuildingMarker(marker);
    RemoveFile(marker);
}

bool CreateEmpty(const char* path)
{
    WorkFile file;
    return file.Create(path);
}

void RemoveMapFiles()
{
    RemoveFilesByPrefix(DataDir, "im", MostMapFiles);
}

void RemoveDatabase()
{
    RemoveFile(OrgFileName);
    RemoveFile(DataFileName);
    RemoveFile(IndexFileName);
    RemoveMapFiles();
}

// True when the file had to be created.
bool CreateIfMissing(const char* path)
{
    if (FileExists(path)) return false;
    static_cast<void>(CreateEmpty(path));
    return true;
}

// False when there is none after all; nothing else was touched then. A file without its header leaves the marker
// standing: it would be waited for at every start.
bool CreateOrg()
{
    BeginBuild();
    const OrgHeader empty{};
    WorkFile file;
    if (file.Create(OrgFileName)) return file.WriteRecord(0, empty);
    if (!FileExists(OrgFileName)) EndMarker();
    return false;
}

bool SyncFile(const char* path)
{
    WorkFile file;
    return file.OpenRW(path) && file.Sync();
}

// A build counts as whole only when all of it is on the disk, names of files included.
void EndBuild()
{
    char marker[2 * PathBytes];
    BuildingMarker(marker);
    if (!FileExists(marker)) return;
    if (!SyncFile(OrgFileName) || !SyncFile(DataFileName) || !SyncFile(IndexFileName)) return;
    SyncDirectory(DataDir);
    EndMarker();
    SyncDirectory(DataDir);
}

bool OrgListEmpty()
{
    OrgHeader header{};
    WorkFile file;
    return file.OpenRO(OrgFileName) && file.ReadRecord(0, header) && header.count == 0;
}

// Nothing of it need be on the disk before its end, under the marker.
int RegisterProject(const char* projectPath)
{
    const HeldSyncs held;
    return InitOrgFromFile(projectPath);
}

// Fills the fresh org file. What an earlier org file left in the data file, the index and the maps names nothing any
// more.
int BuildFromProject(const char* projectPath, bool dataExisted)
{
    if (dataExisted) {
        if (RemoveFile(DataFileName) != 0) {
            std::puts("Error!Can not remove data.bin");
            return -1;
        }
        static_cast<void>(CreateEmpty(DataFileName));
    }
    static_cast<void>(CreateEmpty(IndexFileName));
    RemoveMapFiles();
    if (RegisterProject(projectPath) != 0) {
        std::puts("Init org from file failed");
        // Nothing was registered: what clients register from now on must not be thrown away by the next start.
        if (OrgListEmpty()) EndBuild();
        return -1;
    }
    InitIndexMap();
    EndBuild();
    return 0;
}

int LocalBuild(const char* projectPath)
{
    std::puts("*VOQ*No download orgfile find,build one\r");
    if (BuildWasCutShort()) {
        std::printf("*VOQ*an earlier build of the register database was cut short, building anew\r\n");
        RemoveDatabase();
    }
    const bool orgCreated = !FileExists(OrgFileName);
    if (orgCreated && !CreateOrg()) return -1;
    const bool dataCreated = CreateIfMissing(DataFileName);
    const bool indexCreated = CreateIfMissing(IndexFileName);
    if (orgCreated) return BuildFromProject(projectPath, !dataCreated);
    if (dataCreated || indexCreated) SyncDirectory(DataDir);
    if (dataCreated) InitIndexMap();
    return 0;
}

// The age of a downloaded value counts from now.
void RefreshStamps()
{
    Stamp start;
    GetCurrentTime(&start);
    {
        const MutexLock lock(DatabaseLock);
        OrgFile file;
        OrgHeader header;
        if (!file.OpenRW() || !file.ReadHeader(header)) return;
        for (OrgWalk at(file, header.head); at.Valid(); at.Next()) {
            OrgNode record = at.Node();
            GetCurrentTime(&record.stamp);
            static_cast<void>(file.WriteNode(at.Offset(), record));
        }
    }
    std::printf("*VOQ*load orglist=%d mS\r\n", GetTimePassed(start.seconds, start.microseconds));
}

// False when the copy left no org file.
bool TakeOverDownload(const DownloadPaths& download)
{
    char command[16 + 2 * PathBytes];
    std::snprintf(command, sizeof command, "cp -f %s* %s", download.directory, DataDir);
    std::printf("*VOQ*download orgfile find,cpy cmd=%s\r\n", command);
    const bool copied = RunShell(command);
    SleepMicroseconds(CopySettleMicroseconds);
    if (!FileExists(OrgFileName)) {
        std::puts("*VOQ*ORG CPY FAILED?\r");
        return false;
    }
    // What is there then may be the rest of a build that was cut short.
    if (!copied && BuildWasCutShort()) return false;
    EndBuild();
    RefreshStamps();
    return true;
}

bool DownloadComplete(const DownloadPaths& download)
{
    return FileExists(download.org) && FileExists(download.index) && FileExists(download.data) &&
           !FileExists(TarnPortIndex);
}

// A link that leads nowhere looks like a missing file to everything that would build one in its place.
bool AllPlainFiles()
{
    for (const char* path : {OrgFileName, DataFileName, IndexFileName}) {
        const FileKind kind = KindOf(path);
        if (kind == FileKind::None || kind == FileKind::Regular) continue;
        std::printf("*VOQ*%s is no regular file, the register database cannot be used\r\n", path);
        return false;
    }
    return true;
}

// What a start without a usable database comes to.
int WithoutDatabase()
{
    if (ComInfo.masterSlaveMode != MODE_SLAVE) std::exit(EXIT_FAILURE);
    std::printf("*VOQ*a slave needs no register database, going on without it\r\n");
    return -1;
}
}  // namespace

int PrepareDatabase(const char* projectPath, const DownloadPaths& download)
{
    if (!AllPlainFiles()) return WithoutDatabase();
    const bool downloaded = DownloadComplete(download) && TakeOverDownload(download);
    const int result = downloaded ? 0 : LocalBuild(projectPath);
    const DatabaseState state = CheckDatabase(downloaded ? MapCare::Leave : MapCare::Judge);
    if (state == DatabaseState::Unusable) return WithoutDatabase();
    if (state != DatabaseState::Refused) return result;
    RemoveDatabase();  // what could not be set aside, and the maps
    return LocalBuild(projectPath);
}
