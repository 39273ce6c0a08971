// The process itself. Any thread.
#pragma once

#include <cstdint>

std::uint32_t OwnProcessId();
