// Working files and their whole-file locks. Any thread; may wait for a client's lock and for the disk.
#include "arch/work_file.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "arch/clock.h"
#include "arch/fs.h"
#include "arch/regular_file.h"
#include "arch/system_error.h"

std::atomic<std::int32_t> VoqFileOpenCount{0};

namespace
{
constexpr std::uint32_t DeadlockPauseMicroseconds = 2000;
const pid_t OwnProcess = getpid();

void file_lock(struct flock* lock, short type, short whence)
{
    *lock = {};
    lock->l_type = type;
    lock->l_whence = whence;
    lock->l_start = 0;
    lock->l_len = 0;
    lock->l_pid = OwnProcess;
}

void TellOfWait(const char* path)
{
    if (OnLockWait != nullptr) OnLockWait(path);
}

// A client that holds two files may make the kernel see a deadlock with the service's own nesting; the client gives one
// up, so the wait is repeated.
bool WaitUntilFree(int descriptor, struct flock* lock)
{
    while (fcntl(descriptor, F_SETLKW, lock) != 0) {
        if (errno == EDEADLK) {
            SleepMicroseconds(DeadlockPauseMicroseconds);
        } else if (errno != EINTR) {
            return false;
        }
    }
    return true;
}

// Takes the whole-file lock; waits until no other process holds a conflicting one.
bool TakeLock(int descriptor, short type, const char* path)
{
    struct flock lock;
    file_lock(&lock, type, SEEK_SET);
    if (fcntl(descriptor, F_SETLK, &lock) == 0) return true;
    TellOfWait(path);
    const bool taken = WaitUntilFree(descriptor, &lock);
    const int error = errno;
    TellOfWait(nullptr);
    errno = error;
    return taken;
}

// How a working file is opened, and what is said when it cannot be.
struct Opening {
    int flags;
    const char* mode;  // of the stream
    short lock;
    const char* failure;
    bool trustedOnly = false;
};

constexpr Opening Creat = {O_RDWR | O_CREAT | O_TRUNC, "wb+", F_WRLCK, "*VOQ*RW creat file %s error\n\r\n"};
constexpr Opening ReadWrite = {O_RDWR, "r+", F_WRLCK, "*VOQ*RW open file %s error\n\r\n"};
constexpr Opening TrustedReadWrite = {O_RDWR, "r+", F_WRLCK, ReadWrite.failure, true};
constexpr Opening ReadOnly = {O_RDONLY, "r", F_RDLCK, "*VOQ*RO open file %s error\r\n"};

std::FILE* OpenStream(const char* path, const Opening& opening)
{
    const int descriptor = OpenRegular(path, opening.flags);
    if (descriptor < 0) return nullptr;
    // Looked at again: the name may lead to another file by now.
    const bool refused = opening.trustedOnly && !TrustedFile(descriptor);
    std::FILE* const stream = refused ? nullptr : fdopen(descriptor, opening.mode);
    if (stream == nullptr) close(descriptor);
    return stream;
}

int OpenLocked(const char* path, const Opening& opening, std::FILE** stream)
{
    *stream = nullptr;
    std::FILE* const opened = OpenStream(path, opening);
    if (opened != nullptr && TakeLock(fileno(opened), opening.lock, path)) {
        VoqFileOpenCount.fetch_add(1, std::memory_order_relaxed);
        *stream = opened;
        return 0;
    }
    const int error = errno;
    std::printf(opening.failure, path);
    errno = error;
    PrintSystemError("fopen:");
    if (opened != nullptr) std::fclose(opened);
    return -1;
}
}  // namespace

int FsOpenFileCreat(const char* path, std::FILE** stream)
{
    return OpenLocked(path, Creat, stream);
}

int FsOpenFileRW(const char* path, std::FILE** stream)
{
    return OpenLocked(path, ReadWrite, stream);
}

int FsOpenFileRO(const char* path, std::FILE** stream)
{
    return OpenLocked(path, ReadOnly, stream);
}

bool FsSync(std::FILE* stream)
{
    return SyncsHeld || fsync(fileno(stream)) == 0;
}

bool WorkFile::OpenTrustedRW(const char* path)
{
    return TrustedFile(path) && OpenLocked(path, TrustedReadWrite, &stream_) == 0;
}

bool WorkFile::OpenUnlocked(const char* path)
{
    return Take(OpenStream(path, ReadOnly));
}

bool WorkFile::OpenGiven(const char* path)
{
    return Take(std::fopen(path, "rb"));
}

bool WorkFile::Take(std::FILE* opened)
{
    stream_ = opened;
    if (stream_ == nullptr) return false;
    VoqFileOpenCount.fetch_add(1, std::memory_order_relaxed);
    return true;
}

int WorkFile::Close()
{
    if (stream_ == nullptr) return 0;
    const int result = std::fclose(stream_);
    VoqFileOpenCount.fetch_sub(1, std::memory_order_relaxed);
    stream_ = nullptr;
    return result;
}

std::uint32_t WorkFile::Size() const
{
    // Not fstat: on a 32-bit system it fails for a file whose times lie beyond 2038.
    const off_t end = lseek(fileno(stream_), 0, SEEK_END);
    return end < 0 ? UINT32_MAX : static_cast<std::uint32_t>(std::min<std::int64_t>(end, UINT32_MAX));
}

std::size_t WorkFile::ReadSome(std::uint32_t offset, void* buffer, std::size_t size) const
{
    auto* bytes = static_cast<unsigned char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t got = pread(fileno(stream_), bytes + done, size - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) break;
        done += static_cast<std::size_t>(got);
    }
    return done;
}

bool WorkFile::ReadAt(std::uint32_t offset, void* buffer, std::size_t size) const
{
    return ReadSome(offset, buffer, size) == size;
}

bool WorkFile::WriteAt(std::uint32_t offset, const void* buffer, std::size_t size) const
{
    const auto* bytes = static_cast<const unsigned char*>(buffer);
    std::size_t done = 0;
    while (done < size) {
        const ssize_t put = pwrite(fileno(stream_), bytes + done, size - done, static_cast<off_t>(offset + done));
        if (put < 0 && errno == EINTR) continue;
        if (put <= 0) return false;
        done += static_cast<std::size_t>(put);
    }
    return true;
}

bool WorkFile::AppendZeros(std::uint32_t size) const
{
    static constexpr unsigned char Zeros[65792] = {};
    std::uint32_t end = Size();
    if (end == UINT32_MAX) return false;
    while (size > 0) {
        const std::uint32_t piece = std::min<std::uint32_t>(size, sizeof Zeros);
        if (!WriteAt(end, Zeros, piece)) return false;
        end += piece;
        size -= piece;
    }
    return true;
}

bool WorkFile::Truncate(std::uint32_t size) const
{
    return ftruncate(fileno(stream_), size) == 0;
}
