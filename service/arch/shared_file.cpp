// The file is given all its bytes before it is mapped: a hole in it would need space at the first store into it.
#include "arch/shared_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>

#include "arch/regular_file.h"

namespace
{
constexpr int PathRoom = 128;

// Of the one mapping; set before the handler is.
unsigned char* Mapped;
std::size_t MappedBytes;
char MappedPath[PathRoom];

// A store into the mapping that the file has no room for: plain memory takes the place, and the store is made again.
void OnBusError(int, siginfo_t* info, void*)
{
    const auto* at = static_cast<const unsigned char*>(info->si_addr);
    const bool ours = info->si_code > 0 && at >= Mapped && at < Mapped + MappedBytes;
    if (ours && mmap(Mapped, MappedBytes, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS | MAP_FIXED, -1, 0) ==
                    static_cast<void*>(Mapped)) {
        unlink(MappedPath);
        return;
    }
    std::signal(SIGBUS, SIG_DFL);
    raise(SIGBUS);
}

void CatchBusErrors()
{
    struct sigaction action = {};
    action.sa_sigaction = OnBusError;
    action.sa_flags = SA_SIGINFO;
    sigaction(SIGBUS, &action, nullptr);
}

// Maps a new file of zeros; null with the reason in errno.
void* MapZeros(const char* path, std::size_t size)
{
    const int descriptor = open(path, O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, 0644);
    if (descriptor < 0) return nullptr;
    void* mapping = MAP_FAILED;
    errno = posix_fallocate(descriptor, 0, static_cast<off_t>(size));
    if (errno == 0) mapping = mmap(nullptr, size, PROT_READ | PROT_WRITE, MAP_SHARED, descriptor, 0);
    const int error = errno;
    close(descriptor);
    errno = error;
    return mapping == MAP_FAILED ? nullptr : mapping;
}

// One of an earlier run goes first: where nothing new can be made, it would be taken for this run's.
bool MakeRoom(const char* path, const char* making)
{
    const FileKind kind = KindOf(path);
    if (kind != FileKind::None && kind != FileKind::Regular) errno = EINVAL;
    if (kind != FileKind::None && (kind != FileKind::Regular || unlink(path) != 0)) return false;
    return unlink(making) == 0 || errno == ENOENT;
}
}  // namespace

void* MapNewFile(const char* path, const void* content, std::size_t size)
{
    char making[PathRoom];
    std::snprintf(MappedPath, sizeof MappedPath, "%s", path);
    std::snprintf(making, sizeof making, "%s.new", path);
    void* const mapping = MakeRoom(path, making) ? MapZeros(making, size) : nullptr;
    if (mapping == nullptr) return nullptr;
    Mapped = static_cast<unsigned char*>(mapping);
    MappedBytes = size;
    CatchBusErrors();
    std::memcpy(mapping, content, size);
    if (std::rename(making, path) == 0) return mapping;
    unlink(making);
    return nullptr;
}
