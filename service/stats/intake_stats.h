// What a client FIFO brings. Each intake thread counts for its own FIFO; other threads count nothing here.
#pragma once

#include <cstdint>

enum class Arrival { Frame, LogOn, LogOff, Reload };

void CountArrival(Arrival what);
void CountDropped(std::int32_t bytes);

// A one-shot was listed, as the last of so many; or answered at once with the code.
void CountListing(std::uint32_t listed);
void CountRefusal(int code);

// Shows all of it. Once a step.
void ShowIntake();
