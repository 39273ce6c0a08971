// Copies files under a whole-file read lock. Any thread, see the header; may wait for the service's write lock.
#include "client/locked_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "client/error.h"

namespace voq
{

namespace
{

// A file opened for reading and locked as a whole; closing it releases the lock.
class LockedFile
{
public:
    explicit LockedFile(const std::string& path)
        : path_(path), fd_(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK))
    {
        if (fd_ < 0) {
            if (errno == ENOENT || errno == ENOTDIR) return;
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

private:
    void Lock() const
    {
        struct flock lock = {};
        lock.l_type = F_RDLCK;
        lock.l_whence = SEEK_SET;
        while (fcntl(fd_, F_SETLKW, &lock) != 0) {
            if (errno != EINTR) throw SystemError(path_ + ": lock", errno);
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
};

}  // namespace

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

}  // namespace voq
