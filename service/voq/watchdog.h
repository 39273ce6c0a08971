// Proves to other processes that the service lives.
#pragma once

#include <cstdint>

extern std::uint32_t GlobeWatchDogAddr;  // SRW word of the counter's low half; set before the thread starts

// Thread body, never returns: every 10 seconds writes a counter into two words of the SRW file.
void watchdog_thread();
