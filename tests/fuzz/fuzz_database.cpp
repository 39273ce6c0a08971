// Arbitrary bytes as the org, index and data files: every reader ends, and stays inside the files, checked or not.
#include <stdlib.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <string>

#include "list/index.h"
#include "list/log_on_off.h"
#include "list/org_check.h"
#include "state/paths.h"

namespace
{
// The working paths hold 63 characters; a longer temporary folder is not used.
void SetPaths()
{
    const char* parent = getenv("TMPDIR");
    if (parent == nullptr || std::strlen(parent) > 30) parent = "/dev/shm";
    std::string folder = std::string(parent) + "/voqfuzzXXXXXX";
    if (mkdtemp(folder.data()) == nullptr) abort();
    const auto set = [&folder](char* path, const char* name) { std::strcpy(path, (folder + "/" + name).c_str()); };
    set(DataDir, "");
    set(OrgFileName, "org");
    set(IndexFileName, "index");
    set(DataFileName, "data");
    std::atexit([] {
        for (const char* name : {"org", "index", "data", "org.bad", "index.bad", "data.bad"}) {
            std::remove((std::string(DataDir) + name).c_str());
        }
        static_cast<void>(!std::system(("rm -f " + std::string(DataDir) + "im*").c_str()));
        rmdir(DataDir);
    });
    static_cast<void>(!std::freopen("/dev/null", "w", stdout));
}

void Store(const char* path, const std::uint8_t* bytes, std::size_t size)
{
    std::FILE* file = std::fopen(path, "wb");
    if (file == nullptr || std::fwrite(bytes, 1, size, file) != size) abort();
    std::fclose(file);
}

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
    static const bool ready = (SetPaths(), true);
    RegRequest request;
    if (!ready || size < sizeof request + 2) return 0;
    std::memcpy(&request, data, sizeof request);
    const std::uint8_t* rest = data + sizeof request + 2;
    std::size_t left = size - sizeof request - 2;
    const auto take = [&](const char* path, std::size_t most) {
        const std::size_t here = most < left ? most : left;
        Store(path, rest, here);
        rest += here;
        left -= here;
    };
    take(OrgFileName, data[sizeof request] * std::size_t{4});
    take(IndexFileName, data[sizeof request + 1] * std::size_t{4});
    take(DataFileName, left);
    ResetFastList();
    Use(request);
    const DatabaseState first = CheckDatabase();
    if (first != DatabaseState::Refused) {
        // Once mended, it is sound, and stays sound through use.
        if (first == DatabaseState::Mended && CheckDatabase() != DatabaseState::Sound) abort();
        Use(request);
        if (CheckDatabase() == DatabaseState::Refused) abort();
    }
    return 0;
}
