// Writes frames into a client FIFO: may wait for room, never for a reader. Any thread.
#include "client/fifo.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>

namespace voq
{

namespace
{

// SIGPIPE is what a write into a FIFO without a reader sends to the thread: held back, and taken away if it came.
class NoSigpipe
{
public:
    NoSigpipe()
    {
        sigset_t pending;
        sigpending(&pending);
        waiting_ = sigismember(&pending, SIGPIPE) == 1;
        sigemptyset(&signal_);
        sigaddset(&signal_, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &signal_, &before_);
    }
    ~NoSigpipe()
    {
        const timespec none = {};
        while (!waiting_ && sigtimedwait(&signal_, nullptr, &none) < 0 && errno == EINTR) continue;
        pthread_sigmask(SIG_SETMASK, &before_, nullptr);
    }
    NoSigpipe(const NoSigpipe&) = delete;
    NoSigpipe& operator=(const NoSigpipe&) = delete;

private:
    sigset_t signal_, before_;
    bool waiting_;  // one that came before, and is not this object's
};

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

void WriteAll(int fd, const std::string& fifo, std::span<const std::uint8_t> frame, std::chrono::milliseconds patience)
{
    const NoSigpipe noSigpipe;
    auto end = std::chrono::steady_clock::now() + patience;
    while (!frame.empty()) {
        const ssize_t n = write(fd, frame.data(), frame.size());
        if (n > 0) {
            frame = frame.subspan(static_cast<std::size_t>(n));
            end = std::chrono::steady_clock::now() + FifoPatience;
            continue;
        }
        if (n < 0 && errno == EPIPE) throw ServiceNotRunning(fifo + ": service not running");
        if (n < 0 && errno != EAGAIN && errno != EINTR) throw SystemError(fifo, errno);
        if (std::chrono::steady_clock::now() >= end) throw FifoFull(fifo + ": the service does not take requests");
        // A full FIFO can report room and still refuse a whole frame: a short wait in either case.
        pollfd waiting = {fd, POLLOUT, 0};
        if (poll(&waiting, 1, 20) > 0) usleep(2000);
    }
}

}  // namespace

void SendFrame(const std::string& fifo, std::span<const std::uint8_t> frame, Writers writers,
               std::chrono::milliseconds patience)
{
    if (frame.size() > PIPE_BUF && writers != Writers::OnlyThis) {
        throw Error("a frame of " + std::to_string(frame.size()) + " bytes is not written as a whole: the limit is " +
                    std::to_string(PIPE_BUF) + " while others may write");
    }
    const int fd = OpenFifo(fifo);
    try {
        WriteAll(fd, fifo, frame, patience);
    } catch (...) {
        close(fd);
        throw;
    }
    close(fd);
}

void RequireReader(const std::string& fifo)
{
    close(OpenFifo(fifo));
}

bool FifoHasReader(const std::string& fifo)
{
    try {
        RequireReader(fifo);
        return true;
    } catch (const ServiceNotRunning&) {
        return false;
    }
}

}  // namespace voq
