// The wrapped calls. `cp` and the pause behind it are made here too, so that a copy can be cut short like the rest.
#include "support/file_tap.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

FileTap Tap;

namespace
{
constexpr std::size_t MostAtOnce = 4096;  // a write moves no more, as a disk may; the service carries on behind it

std::size_t Show(const FileChange& change)
{
    return Tap ? Tap(change) : AllOf(change);
}
}  // namespace

extern "C" {
ssize_t __real_pwrite(int descriptor, const void* buffer, size_t size, off_t offset);
int __real_ftruncate(int descriptor, off_t size);
int __real_fsync(int descriptor);
FILE* __real_fopen(const char* path, const char* mode);
int __real_remove(const char* path);
int __real_rename(const char* from, const char* to);
int __real_mkdir(const char* path, mode_t mode);
FILE* __wrap_fopen(const char* path, const char* mode);

ssize_t __wrap_pwrite(int descriptor, const void* buffer, size_t size, off_t offset)
{
    size = std::min(size, MostAtOnce);
    const std::size_t made = Show({.kind = FileChange::Write,
                                   .descriptor = descriptor,
                                   .offset = static_cast<std::uint32_t>(offset),
                                   .data = buffer,
                                   .size = size});
    const ssize_t written = made == 0 ? 0 : __real_pwrite(descriptor, buffer, made, offset);
    return written < 0 ? written : static_cast<ssize_t>(size);
}

int __wrap_ftruncate(int descriptor, off_t size)
{
    const FileChange change{
        .kind = FileChange::Resize, .descriptor = descriptor, .size = static_cast<std::size_t>(size)};
    return Show(change) != 0 ? __real_ftruncate(descriptor, size) : 0;
}

int __wrap_fsync(int descriptor)
{
    return Show({.kind = FileChange::Sync, .descriptor = descriptor}) != 0 ? __real_fsync(descriptor) : 0;
}

FILE* __wrap_fopen(const char* path, const char* mode)
{
    if (std::strcmp(mode, "wb+") != 0 || Show({.kind = FileChange::Create, .path = path}) != 0)
        return __real_fopen(path, mode);
    return __real_fopen("/dev/null", "r+");
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
        FILE* copy =
            __wrap_fopen((words.substr(words.find('*') + 2) + entry.path().filename().string()).c_str(), "wb+");
        if (copy == nullptr) return 1;
        for (std::size_t done = 0; done < bytes.size(); done += MostAtOnce) {
            __wrap_pwrite(fileno(copy), bytes.data() + done, bytes.size() - done, static_cast<off_t>(done));
        }
        std::fclose(copy);
    }
    return 0;
}

int __wrap_usleep(useconds_t)
{
    return 0;
}
}
