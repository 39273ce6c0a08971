// Copies and changes files under a whole-file lock. Any thread, see the header; may wait for the service's write lock.
#include "client/locked_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "client/error.h"
#include "client/lock_holder.h"

namespace voq
{

namespace
{

thread_local std::optional<std::chrono::milliseconds> Patience;

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
            if (!S_ISREG(Status().st_mode)) throw Damaged(path + ": not a regular file");
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
        bytes.resize(ReadInto(offset, bytes));
        return bytes;
    }

    // Returns how many bytes there were.
    std::size_t ReadInto(std::uint64_t offset, std::span<std::uint8_t> into) const
    {
        std::size_t have = 0;
        while (have < into.size()) {
            const ssize_t n = pread(fd_, into.data() + have, into.size() - have, static_cast<off_t>(offset + have));
            if (n < 0 && errno == EINTR) continue;
            if (n < 0) throw SystemError(path_, errno);
            if (n == 0) break;
            have += static_cast<std::size_t>(n);
        }
        return have;
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
        auto pause = std::chrono::microseconds(50);
        struct flock lock = {};
        lock.l_type = type_;
        lock.l_whence = SEEK_SET;
        // The waiting form knows no limit.
        while (fcntl(fd_, Patience ? F_OFD_SETLK : F_OFD_SETLKW, &lock) != 0) {
            if (errno == EINTR) continue;
            const bool held = Patience && (errno == EAGAIN || errno == EACCES);
            if (!held) throw SystemError(path_ + ": lock", errno);
            if (std::chrono::steady_clock::now() - begin > *Patience) {
                throw LockHeld(path_ + ": locked by " + HolderText(HolderOf(path_).value_or(LockHolder{})));
            }
            std::this_thread::sleep_for(pause);
            pause = std::min(2 * pause, std::chrono::microseconds(1000));
        }
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

LockPatience::LockPatience(std::chrono::milliseconds atMost) : before_(Patience)
{
    Patience = atMost;
}

LockPatience::~LockPatience()
{
    Patience = before_;
}

std::optional<Bytes> ReadLocked(const std::string& path)
{
    const LockedFile file(path);
    if (!file.Exists()) return std::nullopt;
    const std::uint64_t size = file.Size();
    if (size > MaxFileBytes) {
        throw Damaged(path + ": " + std::to_string(size) + " bytes, more than the " + std::to_string(MaxFileBytes) +
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

bool ReadLockedPieces(const std::string& path, std::span<FilePiece> pieces)
{
    const LockedFile file(path);
    if (!file.Exists()) return false;
    for (FilePiece& piece : pieces) piece.have = file.ReadInto(piece.offset, piece.into);
    return true;
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
