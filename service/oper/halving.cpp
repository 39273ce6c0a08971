// Refused reads, taken apart on the main thread.
#include "oper/halving.h"

#include "voq/reg_range.h"

std::uint32_t Halving::Most(const RegKey& start)
{
    if (!Running()) return AnyNumber;
    const bool inside = SameGroup(start, whole_) && start.addr >= whole_.addr && start.addr <= PollEnd(whole_);
    if (!inside) End();
    return inside ? parts_[count_ - 1].ranges : AnyNumber;
}

void Halving::Refused(const RegKey& read, std::uint32_t ranges)
{
    if (!Running() || parts_[count_ - 1].ranges != ranges) {
        End();
        whole_ = read;
    } else {
        --count_;
    }
    parts_[count_++] = {ranges - ranges / 2, true, false};
    parts_[count_++] = {ranges / 2, false, false};
}

bool Halving::Done(std::uint32_t ranges, bool answered)
{
    if (!Running()) return false;
    const Part part = parts_[--count_];
    if (part.ranges != ranges) {
        End();
        return false;
    }
    if (!part.second) parts_[count_ - 1].firstAnswered = answered;
    return answered && part.second && part.firstAnswered;
}
