// The single scheduler of the process. Main thread.
#pragma once

#include <cstdint>

extern std::uint32_t DivRt;  // the real-time pass runs on every DivRt-th turn

// Runs turns for the life of the process. `orgCount`: records in the org list at start-up.
[[noreturn]] void MainLoop(std::uint16_t portIndex, std::uint32_t orgCount);
