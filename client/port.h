// One port as a program follows it: its subscriptions and requests, kept through restarts of the service, and what
// happens to them as events behind one descriptor. One thread. Nothing waits without limit.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <memory>
#include <optional>
#include <string>

#include "client/port_dir.h"
#include "client/port_watch.h"
#include "client/requests.h"
#include "client/service_look.h"
#include "client/subscriptions.h"

namespace voq
{

enum class LinkState : std::uint8_t { Good, Timeout, Error };

struct PortSettings {
    std::chrono::milliseconds lockPatience{1000};
    std::chrono::milliseconds interval{0};  // least time between two readings of what is subscribed
    // These hold from the first subscription or request on.
    FileNumberRange numbers;
    bool throughGui = false;
    Writers writers = Writers::Several;
};

enum class EventType : std::uint8_t { Changed, Answered, ServiceLost, ServiceBack, LinkChanged };

struct Event {
    EventType type;
    Range* range = nullptr;    // of Changed
    Asked* request = nullptr;  // of Answered
};

class Port
{
public:
    using Clock = std::chrono::steady_clock;

    // Throws Error. The directory need not be there.
    explicit Port(PortDir directory);
    // Logs everything off, and waits at most a second for room to say so.
    ~Port();
    Port(const Port&) = delete;
    Port& operator=(const Port&) = delete;

    const PortDir& Directory() const { return directory_; }
    const PortSettings& Settings() const { return settings_; }
    // False when a setting comes too late.
    bool Set(const PortSettings& settings);

    // A range stays where it is until it is unsubscribed. Throws NoNumber, LockHeld or Error.
    void Subscribe(Range& range);
    void Unsubscribe(Range& range);
    std::size_t Subscribed() const { return subscriptions_ ? subscriptions_->Count() : 0; }

    // Sends a one-shot. A request stays where it is until it is answered or given up; `quiet`: without an event. Throws
    // NoNumber, ServiceNotRunning, FifoFull, LockHeld or Error: then nothing was sent.
    struct Begin {
        Clock::time_point deadline;
        std::chrono::milliseconds patience{0};  // for room in the FIFO
        bool quiet = false;
    };
    void Ask(Asked& asked, const Requests::BuildFrame& build, const Begin& how);
    void GiveUp(Asked& asked);
    // Gives everything up that is under way, and leaves a process behind that removes the answers when they come, as
    // remover.h says. Returns its id.
    int LeaveRemover(std::chrono::milliseconds atMost);
    std::size_t UnderWay() const { return requests_ ? requests_->UnderWay() : 0; }

    // For poll (POLLIN): something is to be dispatched.
    int Descriptor() const { return watch_.Descriptor(); }
    // Looks at what has happened. Throws LockHeld or Error: what could not be done is done later.
    void Dispatch();
    // Dispatches until an event is there or `until` has passed; false when a signal ended the waiting. Throws as
    // Dispatch.
    bool Wait(std::optional<Clock::time_point> until);
    // The same until a request is answered; locks that are held meanwhile are no reason to end.
    bool WaitFor(const Asked& asked, Clock::time_point until);

    std::size_t Events() const { return events_.size(); }
    std::optional<Event> NextEvent();

    bool Running() const { return service_.running; }
    unsigned Restarts() const { return restarts_; }
    LinkState Link() const { return link_; }

    // For a child process: closes what was inherited and says nothing to the service.
    void Abandon();

private:
    std::string Fifo() const { return settings_.throughGui ? directory_.GuiFifo() : directory_.MekFifo(); }
    void Start();
    void LookAtPort(bool lockGivenUp);
    void LookAtLink();
    void ServiceGone();
    void SendWaiting();
    void ReadDue(Clock::time_point now);
    void Plan();
    bool Sleep(std::optional<Clock::time_point> until) const;
    void Drop(const Range* range, const Asked* asked);

    PortDir directory_;
    PortSettings settings_;
    PortWatch watch_;
    std::unique_ptr<FileNumbers> numbers_;
    std::unique_ptr<Subscriptions> subscriptions_;
    std::unique_ptr<Requests> requests_;
    std::deque<Event> events_;

    ServiceLook service_;
    bool served_ = false;
    unsigned restarts_ = 0;
    LinkState link_ = LinkState::Good;
    bool backDue_ = false;      // ServiceBack is told when everything is logged on
    bool databaseDue_ = false;  // the service has written since the last reading
    Asked* quiet_ = nullptr;    // that makes no event
    Clock::time_point nextLook_ = {};
    Clock::time_point lastRead_ = {};
    std::optional<Clock::time_point> retry_;
    bool abandoned_ = false;
};

}  // namespace voq
