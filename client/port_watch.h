// One descriptor that becomes readable when something of interest happens in a port's directory, or at a time. One
// thread. Nothing is read here but the notices themselves.
#pragma once

#include <sys/inotify.h>

#include <chrono>
#include <cstdint>
#include <optional>
#include <vector>

#include "client/port_dir.h"

namespace voq
{

class PortWatch
{
public:
    using Clock = std::chrono::steady_clock;

    // Throws Error. The directory need not be there.
    explicit PortWatch(PortDir port);
    ~PortWatch();
    PortWatch(const PortWatch&) = delete;
    PortWatch& operator=(const PortWatch&) = delete;

    // For poll (POLLIN).
    int Descriptor() const { return all_; }

    struct Seen {
        bool database = false;               // the service has written the org file, or it is another file
        bool service = false;                // a process gave up the service's lock file
        bool answersLost = false;            // there was more than is told: look at every answer
        std::vector<std::uint16_t> answers;  // result files that were written, by number
    };
    // What has happened since the last call; never waits.
    Seen Take();
    // Something is left for Take that the descriptor does not show.
    bool More() const { return more_; }

    // Writings of the org file are told, or not any more. False when there is no such file.
    bool WatchDatabase(bool on);
    // The end of the service is told from now on, when it keeps a lock file.
    void WatchService();
    // Answers are told, or not any more.
    void WatchAnswers(bool on);
    // The descriptor becomes readable at this time; never without one.
    void WakeAt(std::optional<Clock::time_point> when);

    // For a child process: closes the copies and leaves what they name as it is. The object is of no use behind that.
    void Abandon();

private:
    void ReadNotices();
    void Note(const inotify_event& notice, const char* name);

    PortDir port_;
    int all_ = -1, notices_ = -1, timer_ = -1;
    int database_ = -1, service_ = -1, answers_ = -1;  // watches
    Seen seen_;
    bool more_ = false;
    std::optional<Clock::time_point> wake_;
};

}  // namespace voq
