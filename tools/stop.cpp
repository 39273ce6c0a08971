// Signals only set a flag. Main thread.
#include "tools/stop.h"

#include <initializer_list>

volatile std::sig_atomic_t Stopped = 0;

namespace
{

extern "C" void StopOnSignal(int signal)
{
    Stopped = signal;
}

}  // namespace

void CatchSignals()
{
    struct sigaction action = {};
    action.sa_handler = StopOnSignal;
    action.sa_flags = static_cast<int>(SA_RESETHAND);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaction(signal, &action, nullptr);
}
