// Keeps and ends.
#include "web/deadlines.h"

#include <sys/socket.h>

namespace voq::web
{

void Deadlines::Begin(int connection)
{
    const std::lock_guard lock(mutex_);
    begun_[connection] = Clock::now();
}

void Deadlines::Spare(int connection)
{
    const std::lock_guard lock(mutex_);
    begun_[connection] = Clock::time_point::max();
}

void Deadlines::Forget(int connection)
{
    const std::lock_guard lock(mutex_);
    begun_.erase(connection);
}

void Deadlines::EndOverdue(Clock::time_point now)
{
    const std::lock_guard lock(mutex_);
    const Clock::time_point latest = now - (begun_.size() + Reserve > places_ ? Crowded : Usual);
    for (auto& [connection, begun] : begun_) {
        if (begun > latest) continue;
        shutdown(connection, SHUT_RDWR);
        begun = Clock::time_point::max();  // once
    }
}

}  // namespace voq::web
