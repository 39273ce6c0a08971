// Writes frames into a client FIFO: may wait for room, never for a reader. Any thread.
#include "client/fifo.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace voq
{

namespace
{

constexpr int SendTimeoutMs = 5000;

// The FIFO opened for writing. Never creates a file and never writes into anything but a FIFO.
int OpenFifo(const std::string& fifo)
{
    const int fd = open(fifo.c_str(), O_WRONLY | O_NONBLOCK | O_CLOEXEC);
    if (fd < 0) {
        if (errno == ENXIO) throw ServiceNotRunning(fifo + ": service not running");
        if (errno == ENOENT || errno == ENOTDIR) {
            throw ServiceNotRunning(fifo + ": no such FIFO; service not running, or in slave mode");
        }
        throw SystemError(fifo, errno);
    }
    struct stat status = {};
    if (fstat(fd, &status) != 0 || !S_ISFIFO(status.st_mode)) {
        close(fd);
        throw Error(fifo + ": not a FIFO");
    }
    return fd;
}

void WriteAll(int fd, const std::string& fifo, std::span<const std::uint8_t> frame)
{
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(SendTimeoutMs);
    while (!frame.empty()) {
        const ssize_t n = write(fd, frame.data(), frame.size());
        if (n > 0) {
            frame = frame.subspan(static_cast<std::size_t>(n));
            continue;
        }
        if (n < 0 && errno == EPIPE) throw ServiceNotRunning(fifo + ": service not running");
        if (n < 0 && errno != EAGAIN && errno != EINTR) throw SystemError(fifo, errno);
        if (std::chrono::steady_clock::now() >= end) throw Error(fifo + ": the service does not take requests");
        // A full FIFO can report room and still refuse a whole frame: a short wait in either case.
        pollfd waiting = {fd, POLLOUT, 0};
        if (poll(&waiting, 1, 20) > 0) usleep(2000);
    }
}

}  // namespace

void SendFrame(const std::string& fifo, std::span<const std::uint8_t> frame, Writers writers)
{
    if (frame.size() > PIPE_BUF && writers != Writers::OnlyThis) {
        throw Error("a frame of " + std::to_string(frame.size()) + " bytes is not written as a whole: the limit is " +
                    std::to_string(PIPE_BUF) + " while others may write");
    }
    const int fd = OpenFifo(fifo);
    try {
        WriteAll(fd, fifo, frame);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
}

bool FifoHasReader(const std::string& fifo)
{
    try {
        close(OpenFifo(fifo));
        return true;
    } catch (const ServiceNotRunning&) {
        return false;
    }
}

}  // namespace voq
