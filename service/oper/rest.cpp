// Rests of the passes, on the main thread. Their time is that of the monotonic clock.
#include "oper/rest.h"

#include <algorithm>

#include "arch/clock.h"
#include "state/counters.h"

void Rest::Begin(std::uint32_t us, std::uint32_t mark)
{
    begun_ = true;
    start_ = MonoMicroseconds();
    us_ = std::min(us, LongestRestUs);
    mark_ = mark;
    switches_ = SwitchChanges;
}

bool Rest::Holds(std::uint32_t mark) const
{
    return begun_ && mark == mark_ && SwitchChanges == switches_ && MonoMicroseconds() - start_ < us_;
}
