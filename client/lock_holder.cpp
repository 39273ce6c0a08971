// Asks the system for the holder. The kernel names the process of the older kind of lock; an open file description has
// none, and is looked for among those of all processes.
#include "client/lock_holder.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <charconv>
#include <filesystem>
#include <fstream>

namespace voq
{

namespace
{

namespace fs = std::filesystem;

bool IsSameFile(const fs::path& path, const struct stat& wanted)
{
    struct stat file = {};
    return stat(path.c_str(), &file) == 0 && file.st_dev == wanted.st_dev && file.st_ino == wanted.st_ino;
}

bool HoldsLock(const fs::path& fdinfo)
{
    std::ifstream lines(fdinfo);
    for (std::string line; std::getline(lines, line);) {
        if (line.starts_with("lock:") && line.find("OFDLCK") != std::string::npos) return true;
    }
    return false;
}

bool ProcessHolds(const fs::path& process, const struct stat& wanted)
{
    std::error_code error;
    for (fs::directory_iterator at(process / "fd", error), end; !error && at != end; at.increment(error)) {
        if (IsSameFile(at->path(), wanted) && HoldsLock(process / "fdinfo" / at->path().filename())) return true;
    }
    return false;
}

// The process with a locked open file description of the file, 0 when none is seen.
std::int64_t DescriptionHolder(const struct stat& wanted)
{
    std::error_code error;
    for (fs::directory_iterator at("/proc", error), end; !error && at != end; at.increment(error)) {
        const std::string name = at->path().filename().string();
        std::int64_t pid = 0;
        if (std::from_chars(name.data(), name.data() + name.size(), pid).ptr != name.data() + name.size()) continue;
        if (ProcessHolds(at->path(), wanted)) return pid;
    }
    return 0;
}

}  // namespace

std::optional<LockHolder> HolderOf(const std::string& path)
{
    const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (fd < 0) return std::nullopt;
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    struct stat file = {};
    const bool held = fcntl(fd, F_OFD_GETLK, &lock) == 0 && lock.l_type != F_UNLCK && fstat(fd, &file) == 0;
    close(fd);
    if (!held) return std::nullopt;
    LockHolder holder{lock.l_pid > 0 ? lock.l_pid : DescriptionHolder(file), ""};
    if (holder.pid == 0) return holder;
    std::ifstream name("/proc/" + std::to_string(holder.pid) + "/comm");
    std::getline(name, holder.name);
    return holder;
}

std::string HolderText(const LockHolder& holder)
{
    if (holder.pid == 0) return "another process";
    return "process " + std::to_string(holder.pid) + (holder.name.empty() ? "" : " (" + holder.name + ")");
}

}  // namespace voq
