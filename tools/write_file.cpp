// Writes files and forces them to the disk. Main thread; waits for the disk.
#include "tools/write_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>

#include "client/error.h"

namespace
{

void WriteWhole(int fd, const std::string& path, const voq::Bytes& bytes)
{
    std::size_t done = 0;
    while (done < bytes.size()) {
        const ssize_t n = write(fd, bytes.data() + done, bytes.size() - done);
        if (n < 0 && errno != EINTR) throw voq::SystemError(path, errno);
        if (n > 0) done += static_cast<std::size_t>(n);
    }
    // A new file's usual permissions, which a temporary file was not given.
    const mode_t mask = umask(0);
    umask(mask);
    if (fchmod(fd, 0666 & ~mask) != 0 || fsync(fd) != 0) throw voq::SystemError(path, errno);
}

}  // namespace

void ReplaceFile(const std::string& path, const voq::Bytes& bytes)
{
    std::string temporary = path + ".XXXXXX";
    const int fd = mkstemp(temporary.data());
    if (fd < 0) throw voq::SystemError(temporary, errno);
    try {
        WriteWhole(fd, temporary, bytes);
        if (rename(temporary.c_str(), path.c_str()) != 0) throw voq::SystemError(path, errno);
    } catch (...) {
        close(fd);
        unlink(temporary.c_str());
        throw;
    }
    close(fd);
}

void CreateFile(const std::string& path, const voq::Bytes& bytes)
{
    const int fd = open(path.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (fd < 0) throw voq::SystemError(path, errno);
    try {
        WriteWhole(fd, path, bytes);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
}
