// inotify and a timer behind one epoll descriptor. Writings of the org file that nobody has looked at yet are one
// notice: the kernel merges equal ones. The directory, in which every file of the service makes notices, is watched
// only as long as an answer is expected.
#include "client/port_watch.h"

#include <sys/epoll.h>
#include <sys/inotify.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <charconv>
#include <cstring>
#include <string_view>
#include <utility>

#include "client/error.h"

namespace voq
{

namespace
{

std::optional<std::uint16_t> NumberOf(std::string_view name)
{
    std::uint16_t number = 0;
    const auto [end, error] = std::from_chars(name.data(), name.data() + name.size(), number);
    if (error != std::errc() || end != name.data() + name.size()) return std::nullopt;
    return number;
}

}  // namespace

PortWatch::PortWatch(PortDir port) : port_(std::move(port))
{
    all_ = epoll_create1(EPOLL_CLOEXEC);
    notices_ = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    timer_ = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    epoll_event ready = {};
    ready.events = EPOLLIN;
    if (all_ < 0 || notices_ < 0 || timer_ < 0 || epoll_ctl(all_, EPOLL_CTL_ADD, notices_, &ready) != 0 ||
        epoll_ctl(all_, EPOLL_CTL_ADD, timer_, &ready) != 0) {
        const int error = errno;
        Abandon();
        throw SystemError(port_.Dir() + ": cannot be watched", error);
    }
}

PortWatch::~PortWatch()
{
    Abandon();
}

void PortWatch::Abandon()
{
    for (int* descriptor : {&all_, &notices_, &timer_}) {
        if (*descriptor >= 0) close(*descriptor);
        *descriptor = -1;
    }
}

PortWatch::Seen PortWatch::Take()
{
    std::uint64_t times = 0;
    if (read(timer_, &times, sizeof times) > 0) wake_.reset();
    ReadNotices();
    more_ = false;
    return std::exchange(seen_, {});
}

void PortWatch::ReadNotices()
{
    alignas(inotify_event) char notices[8192];
    // As many blocks as a queue of the usual length fills: what comes meanwhile is told by the next call.
    for (int block = 0; block < 64; ++block) {
        const ssize_t got = read(notices_, notices, sizeof notices);
        if (got <= 0) return;
        for (ssize_t at = 0; at < got;) {
            inotify_event notice;
            std::memcpy(&notice, notices + at, sizeof notice);
            Note(notice, notices + at + sizeof notice);
            at += static_cast<ssize_t>(sizeof notice + notice.len);
        }
    }
}

void PortWatch::Note(const inotify_event& notice, const char* name)
{
    const bool lost = (notice.mask & IN_Q_OVERFLOW) != 0;
    // A watch goes with its file: under a name that leads elsewhere now it is made anew.
    const bool gone = (notice.mask & (IN_IGNORED | IN_MOVE_SELF | IN_DELETE_SELF)) != 0;
    if (lost || notice.wd == database_) seen_.database = true;
    if (lost || notice.wd == service_) seen_.service = true;
    if (lost || (notice.wd == answers_ && gone)) seen_.answersLost = true;
    if (notice.wd == answers_ && notice.len != 0) {
        if (const auto number = NumberOf(name)) seen_.answers.push_back(*number);
    }
    for (int* watch : {&database_, &service_, &answers_}) {
        if (!gone || notice.wd != *watch) continue;
        if ((notice.mask & IN_MOVE_SELF) != 0) inotify_rm_watch(notices_, *watch);
        *watch = -1;
    }
}

bool PortWatch::WatchDatabase(bool on)
{
    if (on && database_ < 0) {
        database_ = inotify_add_watch(notices_, port_.Org().c_str(), IN_CLOSE_WRITE | IN_MOVE_SELF | IN_DELETE_SELF);
    } else if (!on && database_ >= 0) {
        inotify_rm_watch(notices_, std::exchange(database_, -1));
        // The end of the watch is a notice too: taken here, so that it wakes nobody.
        ReadNotices();
        more_ = seen_.database || seen_.service || seen_.answersLost || !seen_.answers.empty();
    }
    return database_ >= 0;
}

void PortWatch::WatchService()
{
    if (service_ >= 0) return;
    service_ = inotify_add_watch(notices_, port_.Lock().c_str(), IN_CLOSE_WRITE | IN_MOVE_SELF | IN_DELETE_SELF);
}

void PortWatch::WatchAnswers(bool on)
{
    if (on && answers_ < 0) {
        answers_ = inotify_add_watch(notices_, port_.Dir().c_str(), IN_CLOSE_WRITE | IN_MOVED_TO | IN_ONLYDIR);
    } else if (!on && answers_ >= 0) {
        inotify_rm_watch(notices_, answers_);
        answers_ = -1;
    }
}

void PortWatch::WakeAt(std::optional<Clock::time_point> when)
{
    if (when == wake_) return;
    wake_ = when;
    itimerspec time = {};
    if (when) {
        const auto since = std::chrono::nanoseconds(when->time_since_epoch());
        time.it_value.tv_sec = static_cast<time_t>(since.count() / 1000000000);
        time.it_value.tv_nsec = static_cast<long>(since.count() % 1000000000);
        if (since.count() <= 0) time.it_value.tv_nsec = 1;
    }
    timerfd_settime(timer_, TFD_TIMER_ABSTIME, &time, nullptr);
}

}  // namespace voq
