// Asks driver libraries.
#include "client/description/driver_info.h"

#include <dlfcn.h>
#include <unistd.h>

#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <set>

namespace voq
{

namespace
{

// Later versions add fields behind the last one.
bool Complete(const PlcDriverInfo& info)
{
    return info.size >= sizeof(PlcDriverInfo) && info.name != nullptr && info.check != nullptr;
}

DriverAnswer AskLibrary(const std::string& path)
{
    void* library = dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) return {nullptr, dlerror()};
    const auto entry = reinterpret_cast<PlcDrvInfoFn>(dlsym(library, PLC_DRV_INFO));
    const PlcDriverInfo* info = entry == nullptr ? nullptr : entry();
    if (info != nullptr && Complete(*info)) return {info, ""};
    return {nullptr, path + " has no " PLC_DRV_INFO};
}

// " (modbus_rtu, modbus_tcp and the like are)", for a name that is mistyped.
std::string Others(const DriverDirs& dirs)
{
    constexpr std::size_t most = 16;
    std::set<std::string> names;
    std::error_code none;
    for (const std::string& dir : dirs) {
        for (const auto& file : std::filesystem::directory_iterator(dir, none)) {
            if (file.path().extension() == ".so" && names.size() < most) names.insert(file.path().stem().string());
        }
    }
    std::string all;
    for (const std::string& name : names) all += (all.empty() ? " (there is " : ", ") + name;
    return all.empty() ? "" : all + ")";
}

}  // namespace

DriverDirs StandardDriverDirs()
{
    if (const char* given = std::getenv("VOQ_DRIVERS"); given != nullptr && *given != '\0') return {given};
    DriverDirs dirs;
    std::error_code none;
    const auto program = std::filesystem::read_symlink("/proc/self/exe", none);
    if (!none) dirs.push_back((program.parent_path().parent_path() / "drivers").string());
    dirs.push_back("/usr/lib/voq/drivers");
    return dirs;
}

DriverAnswer AskDriver(const std::string& name, const DriverDirs& dirs)
{
    std::string all;
    for (const std::string& dir : dirs) {
        const std::string path = dir + "/" + name + ".so";
        if (access(path.c_str(), F_OK) == 0) return AskLibrary(path);
        all += (all.empty() ? "" : " or ") + dir;
    }
    return {nullptr, "there is no " + name + ".so in " + all + Others(dirs)};
}

std::string WhyRefused(const PlcDriverInfo& driver, const RegKey& key)
{
    char reason[256] = "";
    if (driver.check(&key, reason, sizeof reason) == PLC_DRV_OK) return "";
    reason[sizeof reason - 1] = '\0';
    return reason[0] == '\0' ? "the driver does not take it" : reason;
}

}  // namespace voq
