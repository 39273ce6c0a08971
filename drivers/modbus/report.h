// Messages about failures, at most one line in ten seconds: a PLC that is switched off fails several times a second.
#pragma once

#include <cstdint>

struct Reporter {
    char name[64];             // the PLC, the line or the listener that the messages are about
    std::uint64_t lastMs;      // 0 before the first message
    std::uint32_t unreported;  // messages held back since then
};

// `error` is an errno value, libmodbus's own included.
void Report(Reporter& reporter, const char* what, int error);
