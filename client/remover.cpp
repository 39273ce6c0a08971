// The process that is left behind: it waits as long as the caller says.
#include "client/remover.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <thread>

#include "client/fifo.h"

namespace voq
{

namespace
{

using Clock = std::chrono::steady_clock;

// Closes everything but one descriptor.
void LetGo(int kept)
{
    setsid();
    const int null = open("/dev/null", O_RDWR);
    for (int fd = 0; fd <= 2; ++fd) dup2(null, fd);
    const auto descriptor = static_cast<unsigned>(kept);
    if (kept > 3) close_range(3, descriptor - 1, 0);
    close_range(kept < 3 ? 3 : descriptor + 1, ~0u, 0);
}

void RemoveWhenThere(Requests& requests, const std::string& fifo, Clock::time_point end)
{
    auto pause = std::chrono::milliseconds(10);
    while (!requests.None()) {
        // Looked at before the answers: what a service that is gone had written is still removed.
        const bool last = Clock::now() >= end || !FifoHasReader(fifo);
        requests.CollectAll();
        if (last) return requests.ServiceGone();
        std::this_thread::sleep_for(pause);
        pause = std::min(2 * pause, std::chrono::milliseconds(500));
    }
}

}  // namespace

int LeaveRemover(Requests& requests, const FileNumbers& numbers, const std::string& fifo,
                 std::chrono::milliseconds atMost)
{
    const auto end = Clock::now() + atMost;
    const pid_t child = fork();
    if (child < 0) throw SystemError("fork", errno);
    if (child > 0) return child;
    try {
        LetGo(numbers.Descriptor());
        RemoveWhenThere(requests, fifo, end);
        _exit(0);
    } catch (...) {
        _exit(1);
    }
}

}  // namespace voq
