// What the passes of the main loop do. Main thread. Shown at the start of the next turn.
#pragma once

#include <cstdint>
#include <span>

#include "voq/reg_key.h"
#include "voq/rt_item.h"

enum class Pass { RealTime, Fast, Org };

// A pass runs.
void CountPass(Pass pass);

// A planned read was made for so many ranges, which want `wanted` of its elements.
void CountRead(Pass pass, const RegKey& read, std::uint32_t ranges, std::uint32_t wanted);

// A read of the real-time pass was made and answered: the answers since the last one say for which requests.
void CountRealTimeRead(const RegKey& read);

// A listed request was answered.
void CountAnswer(const RtItem& item);

// A turn of a slave's driver begins.
void CountSlaveLoop();

// Requests and subscriptions listed now.
void CountListed(std::uint32_t listed, std::uint32_t subscribed);

// Shows all of it. The main loop, once a turn.
void ShowPasses();

// Elements of a read that its ranges want, handed over in ascending order: each counts once, whatever ranges share it.
// Whole address units count.
class WantedElements
{
public:
    void Add(const RegKey& range);
    [[nodiscard]] std::uint32_t Of(const RegKey& read) const;
    void Clear() { *this = {}; }

private:
    std::uint64_t end_ = 0;
    std::uint32_t units_ = 0;
};
