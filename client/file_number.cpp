// Claims request numbers. One thread; never waits for a lock, and sends at most a log-off that finds room.
#include "client/file_number.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <ctime>
#include <random>
#include <utility>

#include "client/fifo.h"
#include "client/frame.h"
#include "client/kept_numbers.h"
#include "voq/org_record.h"

namespace voq
{

FileNumbers::FileNumbers(PortDir port, FileNumberRange range) : port_(std::move(port)), range_(range), offset_(0)
{
    if (range.first > range.last) throw Error("the range of request numbers is empty");
    std::random_device source;
    offset_ = std::uniform_int_distribution<std::uint32_t>(0, range.last - range.first)(source);
}

FileNumbers::~FileNumbers()
{
    // The locks go with the last descriptor: a child process that has a copy does not end them by closing it.
    if (file_ >= 0) close(file_);
}

std::uint16_t FileNumbers::Next()
{
    if (file_ < 0) Open();
    const std::uint32_t size = std::uint32_t{range_.last} - range_.first + 1;
    for (std::uint32_t tries = 0; tries < size; ++tries) {
        const auto number = static_cast<std::uint16_t>(range_.first + offset_);
        offset_ = (offset_ + 1) % size;
        if (held_.contains(number) || InUse(number) || !Lock(number, true)) continue;
        // Looked at under the lock: what is noted is what a client that is gone has left.
        const RegRequest left = Noted(number);
        if ((left.cmd == 0 || Close(number, left)) && !InUse(number)) {
            held_.insert(number);
            return number;
        }
        Lock(number, false);
    }
    throw NoNumber("no request number from " + std::to_string(range_.first) + " to " + std::to_string(range_.last) +
                   " is free in " + port_.Dir());
}

void FileNumbers::Note(std::uint16_t number, const RegRequest& request)
{
    Store(number, request);
}

void FileNumbers::GiveBack(std::uint16_t number)
{
    if (held_.erase(number) == 0) return;
    Store(number, {});
    Lock(number, false);
}

void FileNumbers::Open()
{
    const std::string path = port_.Claims();
    const int file = open(path.c_str(), O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, 0666);
    if (file < 0) throw SystemError(path, errno);
    struct stat status = {}, directory = {};
    if (fstat(file, &status) != 0 || !S_ISREG(status.st_mode)) {
        close(file);
        throw Damaged(path + ": not a regular file");
    }
    // Whoever may use the port may claim numbers, whatever the mask of the client that makes the file.
    if (status.st_uid == geteuid() && stat(port_.Dir().c_str(), &directory) == 0) {
        fchmod(file, directory.st_mode & 0666);
    }
    file_ = file;
    Sweep();
}

void FileNumbers::Sweep()
{
    Bytes bytes((std::size_t{range_.last} - range_.first + 1) * sizeof(RegRequest));
    const ssize_t n = pread(file_, bytes.data(), bytes.size(), static_cast<off_t>(ClaimOffset(range_.first)));
    if (n <= 0) return;
    bytes.resize(static_cast<std::size_t>(n));
    for (std::uint32_t i = 0; i < bytes.size() / sizeof(RegRequest); ++i) {
        if (RecordAt<RegRequest>(bytes, i * sizeof(RegRequest))->cmd == 0) continue;
        const auto number = static_cast<std::uint16_t>(range_.first + i);
        if (!Lock(number, true)) continue;
        const RegRequest left = Noted(number);
        if (left.cmd != 0 && Close(number, left)) Store(number, {});
        Lock(number, false);
    }
}

// Closes what a client that is gone left open under a number; false when that has to wait.
bool FileNumbers::Close(std::uint16_t number, const RegRequest& left) const
{
    if (left.cmd != static_cast<std::uint8_t>(RequestCommand::LogOn)) {
        const bool answered = unlink(port_.Result(number).c_str()) == 0;
        return answered || std::time(nullptr) - std::int64_t{left.orgoffset} > ClaimForgottenSeconds;
    }
    const auto by = KeptNumbers(port_).LogOffBy(left.key, number, left.orgoffset);
    if (!by) return true;
    try {
        // With any offset but 0 the service looks for the number alone, and counts nothing that a restart has
        // forgotten.
        const std::string fifo = left.subcmd == ClaimThroughGui ? port_.GuiFifo() : port_.MekFifo();
        SendFrame(fifo, LogOffFrame(left.key, *by, OrgFirstRecord), Writers::Several, std::chrono::milliseconds(0));
        return true;
    } catch (const ServiceNotRunning&) {
        return true;
    } catch (const Error&) {
        return false;
    }
}

bool FileNumbers::InUse(std::uint16_t number) const
{
    return access(port_.Result(number).c_str(), F_OK) == 0 || access(port_.RtData(number).c_str(), F_OK) == 0;
}

bool FileNumbers::Lock(std::uint16_t number, bool on) const
{
    struct flock lock = {};
    lock.l_type = on ? F_WRLCK : F_UNLCK;
    lock.l_whence = SEEK_SET;
    lock.l_start = static_cast<off_t>(ClaimOffset(number));
    lock.l_len = sizeof(RegRequest);
    if (fcntl(file_, F_OFD_SETLK, &lock) == 0) return true;
    if (errno == EAGAIN || errno == EACCES) return false;
    throw SystemError(port_.Claims() + ": lock", errno);
}

RegRequest FileNumbers::Noted(std::uint16_t number) const
{
    RegRequest request = {};
    const ssize_t n = pread(file_, &request, sizeof request, static_cast<off_t>(ClaimOffset(number)));
    return n == static_cast<ssize_t>(sizeof request) ? request : RegRequest{};
}

void FileNumbers::Store(std::uint16_t number, const RegRequest& request) const
{
    const ssize_t n = pwrite(file_, &request, sizeof request, static_cast<off_t>(ClaimOffset(number)));
    if (n != static_cast<ssize_t>(sizeof request)) throw SystemError(port_.Claims(), n < 0 ? errno : ENOSPC);
}

}  // namespace voq
