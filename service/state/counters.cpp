// Storage of the shared counters.
#include "state/counters.h"

std::atomic<std::int32_t> GlobeTimeout{0};
std::atomic<std::int32_t> GlobeComError{0};
std::atomic<std::int32_t> LogOnAmount{0};
StationWords StationDisable;
