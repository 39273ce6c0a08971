// The start-up check: mends the files as the survey says, or sets them aside. Main thread, before any other.
// The mending may be cut short like any other operation: the next start finishes it, whatever part was written.
#include "database/check.h"

#include <cstdio>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "database/index.h"
#include "database/survey.h"
#include "state/paths.h"

namespace
{
bool MendOrg(const OrgSurvey& survey)
{
    WorkFile file;
    if (!file.OpenRW(OrgFileName)) return false;
    for (std::uint32_t i = 0; i < survey.records.size(); ++i) {
        if (survey.changed[i] && !file.WriteRecord(OrgRecordOffset(i), survey.records[i])) return false;
    }
    if (survey.mends.cutRecord && !file.Truncate(survey.wholeBytes)) return false;
    if (survey.mends.header && !file.WriteRecord(0, survey.header)) return false;
    return file.Sync();
}

// Lengthens the data file. Its records without a value have been marked so in the org file before.
bool MendData(const OrgSurvey& survey)
{
    WorkFile file;
    // Lengthening a file takes no room on the disk, so it succeeds on a full one too.
    return file.OpenRW(DataFileName) && file.Truncate(survey.regionsEnd) && file.Sync();
}

bool MendIndex(const OrgSurvey& survey)
{
    WorkFile file;
    if (!file.OpenRW(IndexFileName)) return false;
    const auto size = static_cast<std::uint32_t>(survey.index.size() * sizeof(IndexItem));
    return file.WriteAt(0, survey.index.data(), size) && file.Truncate(size) && file.Sync();
}

bool Mend(const OrgSurvey& survey)
{
    const OrgMends& mends = survey.mends;
    if ((mends.header || mends.links || mends.cutRecord || mends.regions) && !MendOrg(survey)) return false;
    if (mends.regions && !MendData(survey)) return false;
    return !mends.index || MendIndex(survey);
}

void ReportMends(const OrgMends& mends)
{
    std::printf("*VOQ*register database mended:%s%s%s%s%s%s\r\n", mends.header ? " header" : "",
                mends.links ? " links" : "", mends.cutRecord ? " cut-off record" : "",
                mends.regions ? " data file length" : "", mends.index ? " index" : "", mends.maps ? " maps" : "");
}

// Renames a file to `name`.bad: a rename needs no room on the disk and cannot leave half a file.
void SetAside(const char* path, const char* name)
{
    char kept[PathBytes + 16];
    std::snprintf(kept, sizeof kept, "%s%s.bad", DataDir, name);
    if (FileExists(path) && !RenameFile(path, kept)) std::printf("*VOQ*%s could not be kept as %s\r\n", path, kept);
}

DatabaseState Refuse(const OrgSurvey& survey)
{
    // The org file goes first, and its going is on the disk before the others follow. Cut short in between, the index
    // and the data file remain, which no start takes for a database; an org file without an index could pass for a
    // sound one.
    SetAside(OrgFileName, "org");
    SyncDirectory(DataDir);
    SetAside(IndexFileName, "index");
    SetAside(DataFileName, "data");
    SyncDirectory(DataDir);
    std::printf("*VOQ*register database refused: %s, offset %u; kept as %sorg.bad, index.bad, data.bad\r\n",
                survey.fault, survey.faultOffset, DataDir);
    return DatabaseState::Refused;
}
}  // namespace

DatabaseState CheckDatabase(MapCare care)
{
    const MutexLock lock(DatabaseLock);
    OrgSurvey survey = SurveyDatabase(care);
    if (survey.empty) return DatabaseState::Sound;
    if (survey.unreadable) {
        std::printf("*VOQ*register database cannot be read, to be started again\r\n");
        return DatabaseState::Unusable;
    }
    if (survey.fault != nullptr) return Refuse(survey);
    if (!survey.mends.Any()) return DatabaseState::Sound;
    if (!Mend(survey)) {
        std::printf("*VOQ*register database could not be mended, to be started again\r\n");
        return DatabaseState::Unusable;
    }
    // A map that cannot be written ends nothing: clients find its ranges along the chain.
    survey.mends.maps = !survey.staleMaps.empty() && RefreshIndexMaps(survey.staleMaps);
    if (!survey.mends.Any()) return DatabaseState::Sound;
    ReportMends(survey.mends);
    return DatabaseState::Mended;
}
