#include "memory_files.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "support/scratch.h"

std::string FifoBytes;
std::atomic<std::int32_t> VoqFileOpenCount{0};

namespace
{
constexpr std::uint64_t DiskBytes = 4 << 20;  // a file that would be longer meets a full disk

struct File {
    std::string bytes;  // what is missing up to the size is zeros
    std::uint64_t size = 0;
    bool open = false;
};

std::map<std::string, File, std::less<>> Files;

File& FileOf(std::FILE* stream)
{
    return *reinterpret_cast<File*>(stream);
}

int Open(File* file, std::FILE** stream)
{
    *stream = reinterpret_cast<std::FILE*>(file);
    if (file == nullptr) return -1;
    if (std::exchange(file->open, true)) std::abort();  // its lock would be lost with the first close
    VoqFileOpenCount.fetch_add(1, std::memory_order_relaxed);
    return 0;
}

File* Existing(const char* path)
{
    const auto found = Files.find(path);
    return found == Files.end() ? nullptr : &found->second;
}
}  // namespace

bool StartBox()
{
    SetWorkingPaths("/box/");
    return std::freopen("/dev/null", "w", stdout) != nullptr;
}

void ResetBox()
{
    if (VoqFileOpenCount != 0) std::abort();
    Files.clear();
    for (const char* path : {OrgFileName, DataFileName, IndexFileName}) Files[path];
    Files[OrgFileName].size = sizeof(OrgHeader);
    FifoBytes.clear();
    ResetState();
}

void StoreFile(const char* path, const void* bytes, std::size_t size)
{
    Files[path] = {std::string(static_cast<const char*>(bytes), size), size};
}

bool FileExists(const char* path)
{
    return Existing(path) != nullptr;
}

bool FileSurelyExists(const char* path)
{
    return Existing(path) != nullptr;
}

int RemoveFile(const char* path)
{
    const File* file = Existing(path);
    if (file != nullptr && file->open) std::abort();
    return Files.erase(path) == 1 ? 0 : -1;
}

bool RenameFile(const char* from, const char* to)
{
    File* file = Existing(from);
    if (file == nullptr) return false;
    Files[to] = std::move(*file);
    return Files.erase(from) == 1;
}

bool SyncDirectory(const char*)
{
    return true;
}

int OpenFifo(const char*)
{
    return -1;
}

long ReadFifo(int, void* buffer, std::size_t size)
{
    const std::size_t here = FifoBytes.copy(static_cast<char*>(buffer), size);
    FifoBytes.erase(0, here);
    return static_cast<long>(here);
}

int FsOpenFileCreat(const char* path, std::FILE** stream)
{
    File& file = Files[path];
    if (!file.open) file = {};
    return Open(&file, stream);
}

int FsOpenFileRW(const char* path, std::FILE** stream)
{
    return Open(Existing(path), stream);
}

int FsOpenFileRO(const char* path, std::FILE** stream)
{
    return Open(Existing(path), stream);
}

bool FsSync(std::FILE*)
{
    return true;
}

bool WorkFile::OpenUnlocked(const char* path)
{
    return Open(Existing(path), &stream_) == 0;
}

bool WorkFile::OpenGiven(const char* path)
{
    return OpenUnlocked(path);
}

int WorkFile::Close()
{
    if (stream_ == nullptr) return 0;
    FileOf(stream_).open = false;
    VoqFileOpenCount.fetch_sub(1, std::memory_order_relaxed);
    stream_ = nullptr;
    return 0;
}

std::uint32_t WorkFile::Size() const
{
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(FileOf(stream_).size, UINT32_MAX));
}

std::size_t WorkFile::ReadSome(std::uint32_t offset, void* buffer, std::size_t size) const
{
    const File& file = FileOf(stream_);
    if (offset >= file.size) return 0;
    const std::size_t here = std::min<std::uint64_t>(size, file.size - offset);
    const std::size_t there =
        offset < file.bytes.size() ? file.bytes.copy(static_cast<char*>(buffer), here, offset) : 0;
    std::memset(static_cast<char*>(buffer) + there, 0, here - there);
    return here;
}

bool WorkFile::ReadAt(std::uint32_t offset, void* buffer, std::size_t size) const
{
    return ReadSome(offset, buffer, size) == size;
}

bool WorkFile::WriteAt(std::uint32_t offset, const void* buffer, std::size_t size) const
{
    File& file = FileOf(stream_);
    const std::uint64_t end = std::uint64_t{offset} + size;
    if (end > DiskBytes) return false;
    if (file.bytes.size() < end) file.bytes.resize(end);
    file.bytes.replace(offset, size, static_cast<const char*>(buffer), size);
    file.size = std::max(file.size, end);
    return true;
}

bool WorkFile::AppendZeros(std::uint32_t size) const
{
    return Truncate(Size() + size);
}

bool WorkFile::Truncate(std::uint32_t size) const
{
    File& file = FileOf(stream_);
    if (file.bytes.size() > size) file.bytes.resize(size);
    file.size = size;
    return true;
}
