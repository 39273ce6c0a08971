// Puts the parts together. The descriptor shows the end of a service and all that it writes; that one begins to serve,
// and the markers of the link, are looked for from time to time.
#include "client/port.h"

#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <utility>

#include "client/locked_file.h"
#include "client/remover.h"

namespace voq
{

namespace
{

using std::chrono::milliseconds;

constexpr milliseconds LookWhileServed{1000}, LookWhileAway{200};
constexpr milliseconds RetryPause{20};  // after a full FIFO or a held lock
constexpr milliseconds ClosingPatience{1000};

}  // namespace

Port::Port(PortDir directory) : directory_(std::move(directory)), watch_(directory_)
{
    watch_.WakeAt(Clock::now());
}

Port::~Port()
{
    if (abandoned_ || !subscriptions_) return;
    try {
        const LockPatience patience(settings_.lockPatience);
        subscriptions_->EndAll(ClosingPatience);
    } catch (const std::exception&) {
        // What is left is noted beside the numbers: the next client ends it.
    }
}

void Port::Abandon()
{
    abandoned_ = true;
    watch_.Abandon();
}

bool Port::Set(const PortSettings& settings)
{
    const bool kept = settings.numbers.first == settings_.numbers.first &&
                      settings.numbers.last == settings_.numbers.last && settings.throughGui == settings_.throughGui;
    if (numbers_ && !kept) return false;
    settings_ = settings;
    return true;
}

void Port::Start()
{
    if (numbers_) return;
    auto numbers = std::make_unique<FileNumbers>(directory_, settings_.numbers);
    subscriptions_ =
        std::make_unique<Subscriptions>(directory_, *numbers, settings_.throughGui, [this](Followed& changed) {
            for (Range* range : changed.ranges) {
                if (!std::exchange(range->told, true)) events_.push_back({EventType::Changed, range});
            }
        });
    requests_ = std::make_unique<Requests>(directory_, *numbers, [this](Asked& asked) {
        if (&asked != quiet_) events_.push_back({EventType::Answered, nullptr, &asked});
    });
    numbers_ = std::move(numbers);
}

void Port::Subscribe(Range& range)
{
    const LockPatience patience(settings_.lockPatience);
    Start();
    subscriptions_->Add(range);
    databaseDue_ = true;
    // One that shares its registers with another may have its value already.
    if (range.followed->state != StateUnknown && !std::exchange(range.told, true)) {
        events_.push_back({EventType::Changed, &range});
    }
    retry_ = Clock::now();
    Plan();
}

void Port::Unsubscribe(Range& range)
{
    Drop(&range, nullptr);
    range.told = false;
    if (!subscriptions_) return;
    const LockPatience patience(settings_.lockPatience);
    subscriptions_->Remove(range);
    retry_ = Clock::now();
    Plan();
}

void Port::Ask(Asked& asked, const Requests::BuildFrame& build, const Begin& how)
{
    const LockPatience patience(settings_.lockPatience);
    Start();
    watch_.WatchAnswers(true);
    requests_->Begin(asked, build, {Fifo(), settings_.writers, how.patience}, how.deadline);
    if (how.quiet) quiet_ = &asked;
    Plan();
}

void Port::GiveUp(Asked& asked)
{
    Drop(nullptr, &asked);
    if (quiet_ == &asked) quiet_ = nullptr;
    if (requests_) requests_->GiveUp(asked);
}

int Port::LeaveRemover(milliseconds atMost)
{
    Start();
    requests_->GiveUpAll();
    return voq::LeaveRemover(*requests_, *numbers_, Fifo(), atMost);
}

void Port::Drop(const Range* range, const Asked* asked)
{
    std::erase_if(events_, [&](const Event& event) {
        return (range != nullptr && event.range == range) || (asked != nullptr && event.request == asked);
    });
}

std::optional<Event> Port::NextEvent()
{
    if (events_.empty()) return std::nullopt;
    const Event event = events_.front();
    events_.pop_front();
    if (event.range != nullptr) event.range->told = false;
    return event;
}

void Port::Dispatch()
{
    const LockPatience patience(settings_.lockPatience);
    const PortWatch::Seen seen = watch_.Take();
    const auto now = Clock::now();
    databaseDue_ = databaseDue_ || seen.database;
    const bool look = seen.service || now >= nextLook_;
    if (retry_ && now >= *retry_) retry_.reset();
    try {
        if (look) LookAtPort(seen.service);
        if (requests_) {
            if (look || seen.answersLost) {
                requests_->CollectAll();
            } else {
                requests_->Collect(seen.answers);
            }
            requests_->Expire(now);
        }
        SendWaiting();
        ReadDue(now);
    } catch (...) {
        retry_ = now + RetryPause;
        Plan();
        throw;
    }
    Plan();
}

// Whether a service serves the port, and whether it is the one that did.
void Port::LookAtPort(bool lockGivenUp)
{
    const ServiceLook look = LookAtService(directory_, Fifo());
    // A process that is not known by its number is another one when the lock was given up meanwhile.
    const bool known = look.process != 0 && service_.process != 0;
    const bool same = known ? look.SameAs(service_) : look.running && service_.running && !lockGivenUp;
    const bool before = service_.running;
    nextLook_ = Clock::now() + (look.running ? LookWhileServed : LookWhileAway);
    LookAtLink();
    watch_.WatchService();
    if (requests_ && requests_->None()) watch_.WatchAnswers(false);
    // What was not watched, since it was not there, may be there now.
    if (Subscribed() != 0 && !watch_.WatchDatabase(true)) databaseDue_ = true;
    if (before && !same) ServiceGone();
    service_ = look;
    if (!look.running || same) return;
    if (std::exchange(served_, true)) ++restarts_;
    backDue_ = true;
    databaseDue_ = true;
}

void Port::ServiceGone()
{
    service_ = {};
    backDue_ = false;
    events_.push_back({EventType::ServiceLost});
    if (!numbers_) return;
    subscriptions_->ServiceGone();
    requests_->CollectAll();
    requests_->ServiceGone();
}

void Port::LookAtLink()
{
    const auto exists = [](const std::string& path) { return access(path.c_str(), F_OK) == 0; };
    const LinkState link = exists(directory_.ComError())  ? LinkState::Error
                           : exists(directory_.Timeout()) ? LinkState::Timeout
                                                          : LinkState::Good;
    if (std::exchange(link_, link) != link) events_.push_back({EventType::LinkChanged});
}

void Port::SendWaiting()
{
    if (!service_.running) return;
    try {
        if (subscriptions_ && subscriptions_->Waiting()) {
            // A service that came back unnoticed would get its log-ons twice.
            LookAtPort(false);
            if (service_.running) subscriptions_->Send(milliseconds(0));
        }
    } catch (const FifoFull&) {
        retry_ = Clock::now() + RetryPause;
        return;
    } catch (const ServiceNotRunning&) {
        nextLook_ = Clock::now();
        return;
    }
    if (service_.running && std::exchange(backDue_, false)) events_.push_back({EventType::ServiceBack});
}

void Port::ReadDue(Clock::time_point now)
{
    if (!databaseDue_ || Subscribed() == 0) return;
    if (now < lastRead_ + settings_.interval) {
        // Until then nothing that the service writes is of interest.
        watch_.WatchDatabase(false);
        return;
    }
    // In this order: what is written behind the reading is told.
    watch_.WatchDatabase(true);
    subscriptions_->Refresh();
    databaseDue_ = false;
    lastRead_ = now;
}

void Port::Plan()
{
    auto next = nextLook_;
    const auto sooner = [&](std::optional<Clock::time_point> time) {
        if (time && *time < next) next = *time;
    };
    sooner(retry_);
    if (requests_) sooner(requests_->NextDeadline());
    if (databaseDue_ && Subscribed() != 0 && !retry_) sooner(lastRead_ + settings_.interval);
    if (watch_.More()) sooner(Clock::now());
    watch_.WakeAt(next);
}

bool Port::Sleep(std::optional<Clock::time_point> until) const
{
    int timeout = -1;
    if (until) {
        const auto left = std::chrono::ceil<milliseconds>(*until - Clock::now());
        timeout = static_cast<int>(std::clamp<std::int64_t>(left.count(), 0, 3600 * 1000));
    }
    pollfd waiting = {watch_.Descriptor(), POLLIN, 0};
    return poll(&waiting, 1, timeout) >= 0 || errno != EINTR;
}

bool Port::Wait(std::optional<Clock::time_point> until)
{
    while (true) {
        Dispatch();
        if (!events_.empty() || (until && Clock::now() >= *until)) return true;
        if (!Sleep(until)) return false;
    }
}

bool Port::WaitFor(const Asked& asked, Clock::time_point until)
{
    while (true) {
        try {
            Dispatch();
        } catch (const LockHeld&) {
            if (Clock::now() >= until) throw;
        }
        if (asked.outcome != Outcome::Pending) return true;
        if (!Sleep(until + RetryPause)) return false;
    }
}

}  // namespace voq
