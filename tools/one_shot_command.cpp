// "voqctl read", "write", "change" and "pulse": one request each, and its answer as a sentence and an exit status.
// Main thread; whatever ends the waiting, the answer's file does not stay.
#include <chrono>
#include <cstdio>
#include <functional>
#include <limits>

#include "client/frame.h"
#include "client/one_shot.h"
#include "client/value_text.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/stop.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

using voq::Bytes;

std::chrono::milliseconds Milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

// What does not fit is said before anything is sent.
template <typename Build>
auto Checked(const std::string& what, Build build)
{
    try {
        return build();
    } catch (const voq::Error& error) {
        throw UsageError(what + ": " + error.what());
    }
}

int Failed(int status, const std::string& what, const std::string& sentence)
{
    Complain(what + ": " + sentence);
    return status;
}

int FailureOf(const std::string& what, const voq::ResultFile& result)
{
    const int code = result.item.result;
    if (code == RT_REFUSED_TIMEOUT) {
        return Failed(ExitRefused, what, "refused: the port is in time-out and other requests wait already");
    }
    if (code == PLC_ERROR && voq::WasRefused(result)) {
        return Failed(ExitRefused, what, "refused: too many requests wait, or the port has a communication error");
    }
    if (code == PLC_TIMEOUT) return Failed(ExitPlcTimeout, what, "time-out: the PLC does not answer");
    if (code == PLC_ERROR) return Failed(ExitComError, what, "communication error");
    return Failed(ExitComError, what, "failed with code " + std::to_string(code));
}

int Unanswered(const Target& target, const OneShotOptions& options, const voq::OneShot& request)
{
    const int status = Stopped != 0 ? ExitSignalBase + Stopped : ExitNoAnswer;
    const std::string reason =
        Stopped != 0 ? "interrupted" : "no answer within " + std::to_string(request.timeout.count()) + " ms";
    const auto grace = Milliseconds(options.graceSeconds);
    const int remover = voq::RemoveLater(target.port, request, grace);
    return Failed(status, options.what,
                  reason + "; the service may still carry the request out. Process " + std::to_string(remover) +
                      " removes its answer " + target.port.Result(request.fileno) + " when it comes, for at most " +
                      std::to_string(grace.count() / 1000) + " s");
}

using BuildFrame = std::function<Bytes(std::uint16_t fileno)>;
using Succeed = std::function<void(const Bytes& value)>;

int AskService(const Target& target, const PortOptions& port, const OneShotOptions& options, double moreSeconds,
               const BuildFrame& build, const Succeed& succeed)
{
    voq::OneShot request;
    request.fifo = target.fifo;
    request.fileno = voq::FileNumbers(target.port, port.numbers).Next();
    request.frame = Checked(options.what, [&] { return build(request.fileno); });
    request.writers = options.onlyWriter ? voq::Writers::OnlyThis : voq::Writers::Several;
    request.timeout = Milliseconds(options.timeoutSeconds + moreSeconds);
    request.stopped = [] { return Stopped != 0; };
    CatchSignals();
    try {
        const auto result = voq::Ask(target.port, request);
        if (!result) return Unanswered(target, options, request);
        if (result->item.result != PLC_SUCCESS) return FailureOf(options.what, *result);
        succeed(result->value);
        return ExitOk;
    } catch (const voq::ServiceNotRunning& error) {
        return Failed(ExitNotRunning, options.what, error.what());
    }
}

int AskChange(const Target& target, const PortOptions& port, const OneShotOptions& options, double moreSeconds,
              const voq::ChangeRequest& change, const Succeed& succeed)
{
    const auto build = [&](std::uint16_t fileno) {
        return voq::ReadChangeWriteFrame(change.key, change.subcmd, fileno, change.operand);
    };
    return AskService(target, port, options, moreSeconds, build, succeed);
}

}  // namespace

int Read(const PortOptions& port, const OneShotOptions& options)
{
    const Target target = Resolve(port);
    const voq::Register reg = ResolveRegister(target, options.what).reg;
    if (ByteOrderMissing(target, reg)) NoteByteOrder();
    const voq::ValueCoding coding = voq::CodingOf(reg, ByteOrderOf(target, reg.key));
    return AskService(
        target, port, options, 0, [&](std::uint16_t fileno) { return voq::ReadFrame(reg.key, fileno); },
        [&](const Bytes& value) {
            if (value.size() != GetRegBuffLen(&reg.key)) {
                throw voq::Error(options.what + ": the answer holds " + std::to_string(value.size()) + " bytes of " +
                                 std::to_string(GetRegBuffLen(&reg.key)));
            }
            constexpr std::size_t all = std::numeric_limits<std::size_t>::max();
            std::printf("%s\n", voq::ValueText(coding, value, all).c_str());
        });
}

int Write(const PortOptions& port, const OneShotOptions& options, const std::vector<std::string>& values)
{
    const Target target = Resolve(port);
    const voq::Register reg = ResolveRegister(target, options.what).reg;
    RequireByteOrder(target, reg, options.what);
    const Bytes image = Checked(options.what, [&] {
        if (values.size() != reg.key.width) {
            throw voq::Error("the range has " + std::to_string(reg.key.width) + " element(s), " +
                             std::to_string(values.size()) + " value(s) are given");
        }
        return voq::EncodeValues(voq::CodingOf(reg, ByteOrderOf(target, reg.key)), values);
    });
    return AskService(
        target, port, options, 0, [&](std::uint16_t fileno) { return voq::WriteFrame(reg.key, fileno, image); },
        [](const Bytes&) { std::printf("written\n"); });
}

int Change(const PortOptions& port, const OneShotOptions& options, const voq::ChangeText& change)
{
    const Target target = Resolve(port);
    const voq::Register reg = ResolveRegister(target, options.what).reg;
    RequireByteOrder(target, reg, options.what);
    const voq::ChangeRequest request =
        Checked(options.what, [&] { return voq::BuildChange(reg, ByteOrderOf(target, reg.key), change); });
    return AskChange(target, port, options, 0, request, [&](const Bytes& value) {
        const std::uint16_t result = voq::RecordAt<std::uint16_t>(value, 0).value_or(0);
        const bool bounces = change.bounce || change.reversed;
        const char* direction = (result & CMD_REVERSED) != 0 ? "; next: --reversed" : "; next: not --reversed";
        std::printf("changed%s\n", bounces ? direction : "");
    });
}

int Pulse(const PortOptions& port, const OneShotOptions& options, const PulseOptions& pulse)
{
    const Target target = Resolve(port);
    const voq::Register reg = ResolveRegister(target, options.what).reg;
    RequireByteOrder(target, reg, options.what);
    const voq::ChangeRequest request = Checked(options.what, [&] {
        return voq::BuildPulse(reg, ByteOrderOf(target, reg.key), pulse.bit, pulse.value != 0, pulse.milliseconds);
    });
    return AskChange(target, port, options, pulse.milliseconds / 1000.0, request,
                     [](const Bytes&) { std::printf("pulsed\n"); });
}
