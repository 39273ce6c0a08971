// Puts failures into words. Main thread; may fork.
#include "tools/request_failure.h"

#include "tools/commands.h"
#include "tools/stop.h"
#include "voq/rt_item.h"

RequestFailure FailureOf(const voq::ResultFile& result)
{
    const int code = result.item.result;
    if (code == RT_REFUSED_TIMEOUT) {
        return {ExitRefused, "refused", "refused: the port is in time-out and other requests wait already"};
    }
    if (code == PLC_ERROR && voq::WasRefused(result)) {
        return {ExitRefused, "refused", "refused: too many requests wait, or the port has a communication error"};
    }
    if (code == PLC_TIMEOUT) return {ExitPlcTimeout, "time-out", "time-out: the PLC does not answer"};
    if (code == PLC_ERROR) return {ExitComError, "error", "communication error"};
    return {ExitComError, "error", "failed with code " + std::to_string(code)};
}

RequestFailure UnansweredFailure(long long timeoutMs)
{
    if (Stopped != 0) return {ExitSignalBase + Stopped, "interrupted", "interrupted"};
    return {ExitNoAnswer, "no answer", "no answer within " + std::to_string(timeoutMs) + " ms"};
}

std::string LeftToRemover(const voq::PortDir& port, std::span<const voq::OneShot> requests, double graceSeconds)
{
    const auto grace = Milliseconds(graceSeconds);
    const std::string remover = "Process " + std::to_string(voq::RemoveLater(port, requests, grace)) + " removes ";
    const std::string most = ", for at most " + std::to_string(grace.count() / 1000) + " s";
    if (requests.size() == 1) {
        return "; the service may still carry the request out. " + remover + "its answer " +
               port.Result(requests[0].fileno) + " when it comes" + most;
    }
    return "; the service may still carry " + std::to_string(requests.size()) + " requests out. " + remover +
           "their answers when they come" + most;
}
