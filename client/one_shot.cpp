// Sends one-shot requests and takes their answers. Waits as long as the caller says. RemoveLater forks: the process
// must have no other thread that holds a lock.
#include "client/one_shot.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ctime>
#include <thread>
#include <vector>

namespace voq
{

namespace
{

using Clock = std::chrono::steady_clock;

// Closes everything but one descriptor, -1 for none.
void LetGo(int kept)
{
    setsid();
    const int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    const auto descriptor = static_cast<unsigned>(kept);
    if (kept > 3) close_range(3, descriptor - 1, 0);
    close_range(kept < 3 ? 3 : descriptor + 1, ~0u, 0);
}

// The answer's file does not stay, and the number is free again.
void End(const PortDir& port, const OneShot& request)
{
    RemoveResult(port, request.fileno);
    request.numbers->GiveBack(request.fileno);
}

void RemoveWhenThere(const PortDir& port, std::vector<OneShot> waiting, Clock::time_point end)
{
    auto pause = std::chrono::milliseconds(10);
    while (!waiting.empty()) {
        // Looked at before the answers: what a service that is gone had written is still removed.
        const bool last = Clock::now() >= end || !FifoHasReader(waiting[0].fifo);
        std::erase_if(waiting, [&](const OneShot& request) {
            const bool over = last || ReadResult(port, request.fileno);
            if (over) End(port, request);
            return over;
        });
        if (waiting.empty()) return;
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, std::chrono::milliseconds(500));
    }
}

// The answer that `look` finds; the request is over then, and when something is wrong with it.
template <typename Look>
std::optional<ResultFile> Taken(const PortDir& port, const OneShot& request, Look look)
{
    std::optional<ResultFile> result;
    try {
        result = look();
    } catch (...) {
        End(port, request);
        throw;
    }
    if (!result) return std::nullopt;
    End(port, request);
    const auto key = RecordAt<RegKey>(request.frame, FrameHeaderBytes);
    if (!key || std::memcmp(&*key, &result->item.key, sizeof *key) != 0) {
        throw Damaged("the answer is that of another client, which uses the same request number");
    }
    return result;
}

}  // namespace

RegRequest OneShotNote(std::span<const std::uint8_t> frame)
{
    RegRequest request = RecordAt<RegRequest>(frame, FrameHeaderBytes).value_or(RegRequest{});
    request.orgoffset = static_cast<std::uint32_t>(std::time(nullptr));
    return request;
}

void SendRequest(const PortDir& port, const OneShot& request)
{
    if (access(port.Dir().c_str(), W_OK | X_OK) != 0 && errno != ENOENT) {
        throw SystemError(port.Dir() + ": the answer could not be removed", errno);
    }
    try {
        request.numbers->Note(request.fileno, OneShotNote(request.frame));
        SendFrame(request.fifo, request.frame, request.writers);
    } catch (...) {
        End(port, request);
        throw;
    }
}

std::optional<ResultFile> TakeAnswer(const PortDir& port, const OneShot& request)
{
    return Taken(port, request, [&] { return ReadResult(port, request.fileno); });
}

std::optional<ResultFile> Ask(const PortDir& port, const OneShot& request)
{
    SendRequest(port, request);
    return Taken(port, request, [&] { return WaitResult(port, request.fileno, request.timeout, request.stopped); });
}

int RemoveLater(const PortDir& port, std::span<const OneShot> requests, std::chrono::milliseconds atMost)
{
    const auto end = Clock::now() + atMost;
    const pid_t child = fork();
    if (child < 0) throw SystemError("fork", errno);
    if (child > 0) return child;
    try {
        LetGo(requests.empty() ? -1 : requests[0].numbers->Descriptor());
        RemoveWhenThere(port, {requests.begin(), requests.end()}, end);
        _exit(0);
    } catch (...) {
        _exit(1);
    }
}

}  // namespace voq
