// Builds request frames (pure) and writes them into a FIFO (may wait for room, never for a reader). Any thread.
#include "client/frame.h"

#include <fcntl.h>
#include <limits.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "voq/reg_range.h"

namespace voq
{

namespace
{

constexpr int SendTimeoutMs = 5000;

Bytes BuildFrame(const RegRequest& request, std::span<const std::uint8_t> payload)
{
    const std::size_t total = FrameMinBytes + payload.size();
    if (total > 0xFFFF) throw Error("a frame of " + std::to_string(total) + " bytes is longer than a frame can be");
    Bytes frame(total);
    frame[0] = FrameMarker;
    frame[1] = static_cast<std::uint8_t>(total);
    frame[2] = static_cast<std::uint8_t>(total >> 8);
    PutRecord(frame, FrameHeaderBytes, request);
    std::copy(payload.begin(), payload.end(), frame.begin() + FrameMinBytes);
    return frame;
}

RegRequest MakeRequest(const RegKey& key, RequestCommand command, std::uint16_t fileno)
{
    RegRequest request = {};
    request.key = key;
    request.cmd = static_cast<std::uint8_t>(command);
    request.fileno = fileno;
    return request;
}

Bytes SubscriptionFrame(const RegKey& key, RequestCommand command, std::uint16_t fileno, std::uint32_t orgoffset)
{
    RegRequest request = MakeRequest(key, command, fileno);
    request.orgoffset = orgoffset;
    return BuildFrame(request, {});
}

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

Bytes LogOnFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset)
{
    return SubscriptionFrame(key, RequestCommand::LogOn, fileno, orgoffset);
}

Bytes LogOffFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset)
{
    return SubscriptionFrame(key, RequestCommand::LogOff, fileno, orgoffset);
}

Bytes ReadFrame(const RegKey& key, std::uint16_t fileno)
{
    return BuildFrame(MakeRequest(key, RequestCommand::Read, fileno), {});
}

Bytes WriteFrame(const RegKey& key, std::uint16_t fileno, std::span<const std::uint8_t> value)
{
    if (value.size() != GetRegBuffLen(&key)) {
        throw Error("a value of " + std::to_string(value.size()) + " bytes for a range of " +
                    std::to_string(GetRegBuffLen(&key)));
    }
    return BuildFrame(MakeRequest(key, RequestCommand::Write, fileno), value);
}

Bytes ReadChangeWriteFrame(const RegKey& key, std::uint8_t subcmd, std::uint16_t fileno,
                           std::span<const std::uint8_t> operand)
{
    RegRequest request = MakeRequest(key, RequestCommand::ReadChangeWrite, fileno);
    request.subcmd = subcmd;
    Bytes payload(ChangeHeadBytes + operand.size());
    payload[0] = static_cast<std::uint8_t>(operand.size());
    payload[1] = static_cast<std::uint8_t>(operand.size() >> 8);
    std::copy(operand.begin(), operand.end(), payload.begin() + ChangeHeadBytes);
    return BuildFrame(request, payload);
}

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
