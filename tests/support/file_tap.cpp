// The wrapped calls, by the names that they have with wide offsets. `cp` and the pause behind it are made here too, so
// that a copy can be cut short like the rest.
#include "support/file_tap.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <cstdarg>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

FileTap Tap;
bool Streams = true;

namespace
{
constexpr std::size_t MostAtOnce = 4096;  // a write moves no more, as a disk may; the service carries on behind it

std::size_t Show(const FileChange& change)
{
    return Tap ? Tap(change) : AllOf(change);
}
}  // namespace

extern "C" {
ssize_t __real_pwrite64(int descriptor, const void* buffer, size_t size, off_t offset);
int __real_ftruncate64(int descriptor, off_t size);
int __real_fsync(int descriptor);
int __real_open64(const char* path, int flags, ...);
std::FILE* __real_fdopen(int descriptor, const char* mode);
int __real_remove(const char* path);
int __real_rename(const char* from, const char* to);
int __real_mkdir(const char* path, mode_t mode);
int __wrap_open64(const char* path, int flags, ...);

ssize_t __wrap_pwrite64(int descriptor, const void* buffer, size_t size, off_t offset)
{
    size = std::min(size, MostAtOnce);
    const std::size_t made = Show({.kind = FileChange::Write,
                                   .descriptor = descriptor,
                                   .offset = static_cast<std::uint32_t>(offset),
                                   .data = buffer,
                                   .size = size});
    const ssize_t written = made == 0 ? 0 : __real_pwrite64(descriptor, buffer, made, offset);
    return written < 0 ? written : static_cast<ssize_t>(size);
}

int __wrap_ftruncate64(int descriptor, off_t size)
{
    const FileChange change{
        .kind = FileChange::Resize, .descriptor = descriptor, .size = static_cast<std::size_t>(size)};
    return Show(change) != 0 ? __real_ftruncate64(descriptor, size) : 0;
}

int __wrap_fsync(int descriptor)
{
    return Show({.kind = FileChange::Sync, .descriptor = descriptor}) != 0 ? __real_fsync(descriptor) : 0;
}

// The service makes files with these flags; one that the tap keeps back is a file all the same, of no name.
constexpr int Creation = O_CREAT | O_NOFOLLOW;

int __wrap_open64(const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const unsigned mode = (flags & O_CREAT) != 0 ? va_arg(rest, unsigned) : 0;
    va_end(rest);
    if ((flags & Creation) != Creation || Show({.kind = FileChange::Create, .path = path}) != 0)
        return __real_open64(path, flags, mode);
    return memfd_create("kept back", MFD_CLOEXEC);
}

std::FILE* __wrap_fdopen(int descriptor, const char* mode)
{
    return Streams ? __real_fdopen(descriptor, mode) : nullptr;
}

int __wrap_remove(const char* path)
{
    return Show({.kind = FileChange::Remove, .path = path}) != 0 ? __real_remove(path) : 0;
}

int __wrap_unlinkat(int directory, const char* name, int)
{
    const std::string link = "/proc/self/fd/" + std::to_string(directory);
    return __wrap_remove((std::filesystem::read_symlink(link) / name).c_str());
}

int __wrap_rename(const char* from, const char* to)
{
    return Show({.kind = FileChange::Rename, .path = from, .to = to}) != 0 ? __real_rename(from, to) : 0;
}

int __wrap_mkdir(const char* path, mode_t mode)
{
    return Show({.kind = FileChange::MakeDirectory, .path = path}) != 0 ? __real_mkdir(path, mode) : 0;
}

// "cp -f FROM/* TO"
int __wrap_system(const char* command)
{
    const std::string words = command, from = words.substr(6, words.find('*') - 6);
    for (const auto& entry : std::filesystem::directory_iterator(from)) {
        std::ifstream source(entry.path(), std::ios::binary);
        const std::string bytes(std::istreambuf_iterator<char>(source), {});
        const std::string to = words.substr(words.find('*') + 2) + entry.path().filename().string();
        const int copy = __wrap_open64(to.c_str(), O_RDWR | O_TRUNC | Creation, 0666);
        if (copy < 0) return 1;
        for (std::size_t done = 0; done < bytes.size();) {
            const ssize_t put =
                __wrap_pwrite64(copy, bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
            done += static_cast<std::size_t>(put);
        }
        close(copy);
    }
    return 0;
}

int __wrap_usleep(useconds_t)
{
    return 0;
}
}
