// Arbitrary bytes as the org, index and data files: every reader ends, and stays inside the files, checked or not.
#include <cstdint>
#include <cstdlib>
#include <cstring>

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
    static const bool ready = StartBox();
    RegRequest request;
    if (!ready || size < sizeof request + 2) return 0;
    std::memcpy(&request, data, sizeof request);
    const std::uint8_t* rest = data + sizeof request + 2;
    std::size_t left = size - sizeof request - 2;
    ResetBox();
    const auto take = [&](const char* path, std::size_t most) {
        const std::size_t here = most < left ? most : left;
        StoreFile(path, rest, here);
        rest += here;
        left -= here;
    };
    take(OrgFileName, data[sizeof request] * std::size_t{4});
    take(IndexFileName, data[sizeof request + 1] * std::size_t{4});
    take(DataFileName, left);
    Use(request);
    const DatabaseState first = CheckDatabase(MapCare::Judge);
    if (first != DatabaseState::Refused) {
        // Once mended, it is sound, and stays sound through use.
        if (first == DatabaseState::Mended && CheckDatabase(MapCare::Judge) != DatabaseState::Sound) std::abort();
        Use(request);
        if (CheckDatabase(MapCare::Judge) == DatabaseState::Refused) std::abort();
    }
    return 0;
}
