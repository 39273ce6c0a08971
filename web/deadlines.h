// Ends connections whose request does not get done. The library ends those on which nothing moves; one that sends or
// takes a byte now and then would hold its place for good. The server's thread notes, any thread may end: one mutex.
#pragma once

#include <chrono>
#include <map>
#include <mutex>

namespace voq::web
{

class Deadlines
{
public:
    using Clock = std::chrono::steady_clock;

    // From a connection's begin, or from its last answer, to the end of the next answer. A whole list of ranges gets
    // over a bad mobile link in it.
    static constexpr std::chrono::seconds Usual{30};
    // While hardly a place is left.
    static constexpr std::chrono::seconds Crowded{3};

    explicit Deadlines(std::size_t places) : places_(places) {}

    // A new connection, or one whose request is answered: the next one has the whole time.
    void Begin(int connection);
    // It listens from now on, for as long as it likes.
    void Spare(int connection);
    // Before its descriptor is closed.
    void Forget(int connection);

    // Shuts down what is over its time; whoever serves it sees its end and closes it.
    void EndOverdue(Clock::time_point now = Clock::now());

private:
    static constexpr std::size_t Reserve = 8;  // places that are kept for whoever comes next

    const std::size_t places_;
    std::mutex mutex_;
    std::map<int, Clock::time_point> begun_;  // max() of one that is spared
};

}  // namespace voq::web
