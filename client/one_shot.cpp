// Sends one-shot requests and takes their answers. Waits as long as the caller says. RemoveLater forks: the process
// must have no other thread that holds a lock.
#include "client/one_shot.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>
#include <vector>

namespace voq
{

namespace
{

using Clock = std::chrono::steady_clock;

void LetGo()
{
    setsid();
    const int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    close_range(3, ~0u, 0);
}

void RemoveWhenThere(const PortDir& port, std::vector<OneShot> waiting, Clock::time_point end)
{
    auto pause = std::chrono::milliseconds(10);
    while (!waiting.empty()) {
        // Looked at before the answers: what a service that is gone had written is still removed.
        const bool last = Clock::now() >= end || !FifoHasReader(waiting[0].fifo);
        std::erase_if(waiting, [&](const OneShot& request) {
            const bool over = last || ReadResult(port, request.fileno);
            if (over) RemoveResult(port, request.fileno);
            return over;
        });
        if (waiting.empty()) return;
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, std::chrono::milliseconds(500));
    }
}

// The answer that `look` finds. Its file does not stay, whatever is wrong with it.
template <typename Look>
std::optional<ResultFile> Taken(const PortDir& port, const OneShot& request, Look look)
{
    std::optional<ResultFile> result;
    try {
        result = look();
    } catch (...) {
        RemoveResult(port, request.fileno);
        throw;
    }
    if (!result) return std::nullopt;
    RemoveResult(port, request.fileno);
    const auto key = RecordAt<RegKey>(request.frame, FrameHeaderBytes);
    if (!key || std::memcmp(&*key, &result->item.key, sizeof *key) != 0) {
        throw Error("the answer is that of another client, which uses the same request number");
    }
    return result;
}

}  // namespace

void SendRequest(const PortDir& port, const OneShot& request)
{
    if (access(port.Dir().c_str(), W_OK | X_OK) != 0 && errno != ENOENT) {
        throw SystemError(port.Dir() + ": the answer could not be removed", errno);
    }
    SendFrame(request.fifo, request.frame, request.writers);
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
        LetGo();
        RemoveWhenThere(port, {requests.begin(), requests.end()}, end);
        _exit(0);
    } catch (...) {
        _exit(1);
    }
}

}  // namespace voq
