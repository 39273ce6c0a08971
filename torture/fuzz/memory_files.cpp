#include "memory_files.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <utility>

#include "arch/fs.h"
#include "arch/work_file.h"
#include "oper/priority.h"
#include "support/scratch.h"

#pragma clang section bss = "" data = ""  // what follows outlives an input

std::string FifoBytes;
std::atomic<std::int32_t> VoqFileOpenCount{0};

// The bounds of the service's variables (state.h), from the linker.
extern "C" char __start_voq_bss[], __stop_voq_bss[], __start_voq_data[], __stop_voq_data[];

namespace
{
constexpr std::uint64_t DiskBytes = 4 << 20;  // a file that would be longer meets a full disk

struct File {
    std::string bytes;  // what is missing up to the size is zeros
    std::uint64_t size = 0;
    bool open = false;
};

std::map<std::string, File, std::less<>> Files;
std::string FirstData;
int Requests;

// A PLC that fails at some addresses, and is lost behind so many requests of an input: a wide range takes hundreds.
std::int32_t Answer(const char* command, void* target, void** arguments)
{
    static constexpr std::int32_t Results[] = {PLC_DRV_OK, PLC_DRV_TIMEOUT, PLC_DRV_ERROR, PLC_DRV_REFUSED};
    static int instance;
    if (std::strcmp(command, "Init") == 0) *static_cast<void**>(target) = &instance;
    if (std::strcmp(command, "RdOne") != 0 && std::strcmp(command, "WrOne") != 0) return PLC_DRV_OK;
    if (++Requests > 256) return PLC_DRV_TIMEOUT;
    const std::uint32_t at = static_cast<PlcRequest*>(arguments[0])->key->addr % 16;
    return at < 4 ? Results[at] : Results[0];
}

File& FileOf(std::FILE* stream)
{
    return *reinterpret_cast<File*>(stream);
}

// Not by memcpy, at which the sanitizers look: the space between two variables is forbidden to everybody else.
void Put(char* to, const char* from, std::ptrdiff_t size)
{
    __asm__ volatile("rep movsb" : "+D"(to), "+S"(from), "+c"(size)::"memory");
}

// What begins as zeros is megabytes, of which an input touches little: the system takes the pages back.
void RestoreState()
{
    static const char Zeros[4096] = {};  // a page
    char* const first = __start_voq_bss + -reinterpret_cast<std::uintptr_t>(__start_voq_bss) % sizeof Zeros;
    char* const last = __stop_voq_bss - reinterpret_cast<std::uintptr_t>(__stop_voq_bss) % sizeof Zeros;
    if (madvise(first, static_cast<std::size_t>(last - first), MADV_DONTNEED) != 0) std::abort();
    Put(__start_voq_bss, Zeros, first - __start_voq_bss);
    Put(last, Zeros, __stop_voq_bss - last);
    Put(__start_voq_data, FirstData.data(), __stop_voq_data - __start_voq_data);
    SetWorkingPaths("/box/");
    InitPriRange();
}
}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***)
{
    FirstData.resize(static_cast<std::size_t>(__stop_voq_data - __start_voq_data));
    Put(FirstData.data(), __start_voq_data, __stop_voq_data - __start_voq_data);
    if (std::freopen("/dev/null", "w", stdout) == nullptr) std::abort();
    return 0;
}

void ResetBox()
{
    if (VoqFileOpenCount != 0) std::abort();
    RestoreState();
    Files.clear();
    for (const char* path : {OrgFileName, DataFileName, IndexFileName}) Files[path];
    Files[OrgFileName].size = sizeof(OrgHeader);
    FifoBytes.clear();
    Requests = 0;
    const MutexLock lock(DriverLock);
    _cmd = Answer;
    _thiz = nullptr;
}

void StoreFile(const char* path, const std::string& bytes)
{
    Files[path] = {bytes, bytes.size()};
}

bool FileExists(const char* path)
{
    return Files.contains(path);
}

bool FileSurelyExists(const char* path)
{
    return FileExists(path);
}

int RemoveFile(const char* path)
{
    return Files.erase(path) == 1 ? 0 : -1;
}

bool RenameFile(const char* from, const char* to)
{
    if (!FileExists(from)) return false;
    Files[to] = std::exchange(Files[from], {});
    return RemoveFile(from) == 0;
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
    Files[path] = {"", 0, Files[path].open};
    return FsOpenFileRW(path, stream);
}

int FsOpenFileRW(const char* path, std::FILE** stream)
{
    const auto found = Files.find(path);
    *stream = nullptr;
    if (found == Files.end()) return -1;
    if (std::exchange(found->second.open, true)) std::abort();  // its lock would be lost with the first close
    VoqFileOpenCount.fetch_add(1, std::memory_order_relaxed);
    *stream = reinterpret_cast<std::FILE*>(&found->second);
    return 0;
}

int FsOpenFileRO(const char* path, std::FILE** stream)
{
    return FsOpenFileRW(path, stream);
}

bool FsSync(std::FILE*)
{
    return true;
}

bool WorkFile::OpenUnlocked(const char* path)
{
    return OpenRO(path);
}

bool WorkFile::OpenGiven(const char* path)
{
    return OpenRO(path);
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
    const std::size_t start = std::min<std::size_t>(offset, file.bytes.size());
    const std::size_t there = file.bytes.copy(static_cast<char*>(buffer), here, start);
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
    file.bytes.resize(std::max<std::size_t>(file.bytes.size(), end));
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
    file.size = size;
    if (file.bytes.size() > size) file.bytes.resize(size);
    return true;
}
