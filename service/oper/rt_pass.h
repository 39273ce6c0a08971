// The real-time pass: serves the one-shot requests, writes and read-change-writes first, then reads.
// Main thread; waits for the driver and for the disk, holds the list's lock only while it looks at links.
#pragma once

#include <cstdint>

#include "voq/reg_key.h"

extern std::uint32_t MaxRtList;  // each phase serves at most MaxRtList + 1 requests; main thread

// A change that stays pending is tried at most once a pass and counts; when there are more of them than a pass may try,
// they take turns, and a pass that served nothing else serves one more write.
void OperRtList();

// How long the main loop may wait without holding up a request, at most `most`: not at all while one is listed that a
// pass may serve. A pending one is no reason to end the wait before its pulse is over.
[[nodiscard]] std::uint32_t RtIdleMicroseconds(std::uint32_t most);

// Widens `key`, the slot's key, over the waiting reads behind the slot, up to the port's request limit.
void GetRtRdPack(RegKey& key, std::uint16_t slot);
