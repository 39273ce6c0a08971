// The port's statistics: the file that shows them, and the service's own copy of each section. What is counted lives in
// the other headers of this folder. Nothing here waits, allocates or fails after the start.
//
// A section is changed in `Stats`, by its one writer, and then shown as a whole. Nothing is ever read back from the
// file.
#pragma once

#include <cstdint>

#include "voq/stats.h"

// Each section belongs to its writer, as voq/stats.h says.
inline StatsFile Stats;

// Makes the file of this run, all counters 0. Without it, after a message, everything is counted all the same. Main
// thread, before any other thread exists.
void StartStats(const char* path, std::uint16_t portIndex);

// Shows a section of `Stats`.
void Show(StatsPort& section);
void Show(StatsThread& section);
void Show(StatsIntake& section);
void Show(StatsLoop& section);
void Show(StatsDriver& section);
void Show(StatsStation& section);
void Show(StatsRange& section);
// What a read changes in it: many rows at once, so nothing else is stored.
void ShowRead(StatsRange& section);
