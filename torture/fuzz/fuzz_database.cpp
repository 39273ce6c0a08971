// Arbitrary bytes as the org, index and data files: every reader ends, and stays inside the files, checked or not.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstdlib>

#include "database/check.h"
#include "database/index.h"
#include "database/write_through.h"
#include "list/log_on_off.h"
#include "memory_files.h"
#include "state/paths.h"

namespace
{
void Use(const RegRequest& request)
{
    static_cast<void>(GetOrgOffset(request.key));
    LogOnOff2OrgList(&request, OrgMode::LogOn, 1);
    UpdateOrgAfterWrite(request.key, sizeof request, &request);
    LogOnOff2OrgList(&request, OrgMode::LogOff, 1);
    CheckOrgList(&request.key);
    InitIndexMap();
}
}  // namespace

// Input: a request, then the sizes of the org and index files in units of 4 bytes, then the three files.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size)
{
    RegRequest request;
    std::uint8_t orgSize = 0, indexSize = 0;
    if (size < sizeof request + 2) return 0;
    FuzzedDataProvider in(data, size);
    in.ConsumeData(&request, sizeof request);
    in.ConsumeData(&orgSize, 1);
    in.ConsumeData(&indexSize, 1);
    ResetBox();
    StoreFile(OrgFileName, in.ConsumeBytesAsString(std::size_t{4} * orgSize));
    StoreFile(IndexFileName, in.ConsumeBytesAsString(std::size_t{4} * indexSize));
    StoreFile(DataFileName, in.ConsumeRemainingBytesAsString());
    Use(request);
    const DatabaseState first = CheckDatabase(MapCare::Judge);
    if (first == DatabaseState::Refused) return 0;
    // Once mended, it is sound, and stays sound through use.
    if (first == DatabaseState::Mended && CheckDatabase(MapCare::Judge) != DatabaseState::Sound) std::abort();
    Use(request);
    if (CheckDatabase(MapCare::Judge) == DatabaseState::Refused) std::abort();
    return 0;
}
