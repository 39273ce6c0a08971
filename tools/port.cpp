// Main thread; waits for events.
#include "tools/port.h"

#include <algorithm>

#include "tools/stop.h"

namespace
{

// A signal that comes just before the waiting begins is seen this much later.
constexpr std::chrono::milliseconds MostAsleep{200};

}  // namespace

std::unique_ptr<voq::Port> OpenPort(const Target& target, const PortOptions& options, voq::PortSettings settings)
{
    settings.numbers = options.numbers;
    settings.throughGui = target.fifo == target.port.GuiFifo();
    auto port = std::make_unique<voq::Port>(target.port);
    port->Set(settings);
    return port;
}

void Await(voq::Port& port, voq::Port::Clock::time_point until)
{
    if (Stopped != 0) return;
    try {
        port.Wait(std::min(until, voq::Port::Clock::now() + MostAsleep));
    } catch (const voq::LockHeld&) {
        // Tried again.
    }
}
