// Copies and changes files under a whole-file lock. Any thread, see the header; may wait for the service's write lock.
#include "client/locked_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

#include "client/error.h"

namespace voq
{

namespace
{

std::optional<std::chrono::milliseconds> LockPatience;

// A file opened for reading, or for reading and writing and then made when it is missing, and locked as a whole;
// closing it releases the lock.
class LockedFile
{
public:
    explicit LockedFile(const std::string& path, bool write = false)
        : path_(path),
          fd_(open(path.c_str(), (write ? O_RDWR | O_CREAT | O_NOFOLLOW : O_RDONLY) | O_CLOEXEC | O_NONBLOCK, 0666)),
          type_(static_cast<short>(write ? F_WRLCK : F_RDLCK))
    {
        if (fd_ < 0) {
            if (!write && (errno == ENOENT || errno == ENOTDIR)) return;
            throw SystemError(path, errno);
        }
        try {
            if (!S_ISREG(Status().st_mode)) throw Error(path + ": not a regular file");
            Lock();
        } catch (...) {
            close(fd_);
            throw;
        }
    }
    ~LockedFile()
    {
        if (fd_ >= 0) close(fd_);
    }
    LockedFile(const LockedFile&) = delete;
    LockedFile& operator=(const LockedFile&) = delete;

    bool Exists() const { return fd_ >= 0; }
    std::uint64_t Size() const { return static_cast<std::uint64_t>(Status().st_size); }

    Bytes Read(std::uint64_t offset, std::size_t length) const
    {
        Bytes bytes(length);
        std::size_t have = 0;
        while (have < length) {
            const ssize_t n = pread(fd_, bytes.data() + have, length - have, static_cast<off_t>(offset + have));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw SystemError(path_, errno);
            if (n == 0) break;
            have += static_cast<std::size_t>(n);
        }
        bytes.resize(have);
        return bytes;
    }

    void Resize(std::size_t size) const
    {
        if (ftruncate(fd_, static_cast<off_t>(size)) != 0) throw SystemError(path_, errno);
    }

    void Write(std::uint64_t offset, std::span<const std::uint8_t> bytes) const
    {
        const ssize_t n = pwrite(fd_, bytes.data(), bytes.size(), static_cast<off_t>(offset));
        if (n >= 0 && static_cast<std::size_t>(n) != bytes.size()) errno = ENOSPC;
        if (n < 0 || static_cast<std::size_t>(n) != bytes.size() || fsync(fd_) != 0) throw SystemError(path_, errno);
    }

private:
    void Lock() const
    {
        const auto begin = std::chrono::steady_clock::now();
        struct flock lock = {};
        lock.l_type = type_;
        lock.l_whence = SEEK_SET;
        // The waiting form knows no limit.
        while (fcntl(fd_, LockPatience ? F_SETLK : F_SETLKW, &lock) != 0) {
            if (errno == EINTR) continue;
            const bool held = LockPatience && (errno == EAGAIN || errno == EACCES);
            if (!held) throw SystemError(path_ + ": lock", errno);
            if (std::chrono::steady_clock::now() - begin > *LockPatience)
                throw Error(path_ + ": locked by " + Holder(lock));
            std::this_thread::sleep_for(std::chrono::milliseconds(1));
        }
    }

    std::string Holder(struct flock lock) const
    {
        const bool known = fcntl(fd_, F_GETLK, &lock) == 0 && lock.l_type != F_UNLCK;
        return known ? "process " + std::to_string(lock.l_pid) : "another process";
    }

    struct stat Status() const
    {
        struct stat status = {};
        if (fstat(fd_, &status) != 0) throw SystemError(path_, errno);
        return status;
    }

    const std::string& path_;
    int fd_;
    short type_;
};

}  // namespace

void LimitLockWaiting(std::chrono::milliseconds atMost)
{
    LockPatience = atMost;
}

std::optional<Bytes> ReadLocked(const std::string& path)
{
    const LockedFile file(path);
    if (!file.Exists()) return std::nullopt;
    const std::uint64_t size = file.Size();
    if (size > MaxFileBytes) {
        throw Error(path + ": " + std::to_string(size) + " bytes, more than the " + std::to_string(MaxFileBytes) +
                    " that are read");
    }
    return file.Read(0, static_cast<std::size_t>(size));
}

std::optional<Bytes> ReadLockedRange(const std::string& path, std::uint64_t offset, std::size_t length)
{
    const LockedFile file(path);
    if (!file.Exists()) return std::nullopt;
    return file.Read(offset, length);
}

std::optional<std::uint64_t> FileSize(const std::string& path)
{
    const LockedFile file(path);
    if (!file.Exists()) return std::nullopt;
    return file.Size();
}

void ChangeLocked(const std::string& path, std::size_t newSize, std::uint64_t offset, std::size_t length,
                  const std::function<void(std::span<std::uint8_t>)>& change)
{
    const LockedFile file(path, true);
    if (file.Size() == 0) file.Resize(newSize);
    Bytes bytes = file.Read(offset, length);
    bytes.resize(length);
    change(bytes);
    file.Write(offset, bytes);
}

}  // namespace voq
