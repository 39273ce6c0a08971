#include "memory_files.h"

#include <algorithm>
#include <array>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>

#include "../support/scratch.h"
#include "arch/fs.h"
#include "arch/work_file.h"

std::string FifoBytes;
std::atomic<std::int32_t> VoqFileOpenCount{0};

namespace
{
constexpr std::uint32_t PageBytes = 4096;

struct File {
    std::map<std::uint32_t, std::array<unsigned char, PageBytes>> pages;  // what is missing is zeros
    std::uint64_t size = 0;
    bool open = false;

    void Write(std::uint32_t offset, const unsigned char* bytes, std::size_t count)
    {
        for (std::size_t done = 0; done < count;) {
            const std::size_t at = (offset + done) % PageBytes;
            const std::size_t here = std::min(count - done, PageBytes - at);
            const auto page = static_cast<std::uint32_t>((offset + done) / PageBytes);
            const bool zeros = bytes[done] == 0 && std::memcmp(bytes + done, bytes + done + 1, here - 1) == 0;
            if (!zeros || pages.contains(page)) std::memcpy(pages[page].data() + at, bytes + done, here);
            done += here;
        }
        size = std::max(size, std::uint64_t{offset} + count);
    }
    void Read(std::uint32_t offset, unsigned char* bytes, std::size_t count) const
    {
        for (std::size_t done = 0; done < count;) {
            const std::size_t at = (offset + done) % PageBytes;
            const std::size_t here = std::min(count - done, PageBytes - at);
            const auto page = pages.find(static_cast<std::uint32_t>((offset + done) / PageBytes));
            if (page == pages.end())
                std::memset(bytes + done, 0, here);
            else
                std::memcpy(bytes + done, page->second.data() + at, here);
            done += here;
        }
    }
    void Resize(std::uint32_t bytes)
    {
        pages.erase(pages.lower_bound((bytes + PageBytes - 1) / PageBytes), pages.end());
        const auto last = pages.find(bytes / PageBytes);
        if (last != pages.end()) std::fill(last->second.begin() + bytes % PageBytes, last->second.end(), 0);
        size = bytes;
    }
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
    Files[path] = {};
    if (size > 0) Files[path].Write(0, static_cast<const unsigned char*>(bytes), size);
}

bool FileExists(const char* path)
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
    if (!file.open) file.Resize(0);
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
    file.Read(offset, static_cast<unsigned char*>(buffer), here);
    return here;
}

bool WorkFile::ReadAt(std::uint32_t offset, void* buffer, std::size_t size) const
{
    return ReadSome(offset, buffer, size) == size;
}

bool WorkFile::WriteAt(std::uint32_t offset, const void* buffer, std::size_t size) const
{
    if (size > 0) FileOf(stream_).Write(offset, static_cast<const unsigned char*>(buffer), size);
    return true;
}

bool WorkFile::AppendZeros(std::uint32_t size) const
{
    FileOf(stream_).size += size;
    return true;
}

bool WorkFile::Truncate(std::uint32_t size) const
{
    FileOf(stream_).Resize(size);
    return true;
}
