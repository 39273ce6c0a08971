// Failure messages, on standard output. Runs inside the driver's commands.
#include "report.h"

#include <modbus.h>

#include <cstdio>

#include "clock.h"

namespace
{
constexpr std::uint64_t IntervalMs = 10000;
}

void Report(Reporter& reporter, const char* what, int error)
{
    const std::uint64_t now = NowMs();
    if (reporter.lastMs != 0 && now - reporter.lastMs < IntervalMs) {
        reporter.unreported++;
        return;
    }
    std::printf("*MODBUS*%s %s: %s (%u more since the last message)\r\n", reporter.name, what, modbus_strerror(error),
                reporter.unreported);
    reporter.lastMs = now;
    reporter.unreported = 0;
}
