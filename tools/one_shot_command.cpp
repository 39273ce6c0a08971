// "voqctl write", "change" and "pulse": one request each, and its answer as a sentence and an exit status.
// Main thread; whatever ends the waiting, the answer's file does not stay.
#include <chrono>
#include <cstdio>
#include <functional>

#include "client/frame.h"
#include "client/one_shot.h"
#include "tools/change_meaning.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/request_failure.h"
#include "tools/stop.h"
#include "voq/chg_desc.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

using voq::Bytes;

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

int Failed(const std::string& what, const RequestFailure& failure)
{
    const bool either = failure.status == ExitComError;
    Complain(what + ": " + failure.sentence + (either ? ", or the PLC refused: the service's log says which" : ""));
    return failure.status;
}

int Unanswered(const Target& target, const OneShotOptions& options, const voq::OneShot& request)
{
    RequestFailure failure = UnansweredFailure(request.timeout.count());
    failure.sentence += LeftToRemover(target.port, {&request, 1}, options.times.graceSeconds);
    return Failed(options.what, failure);
}

using BuildFrame = std::function<Bytes(std::uint16_t fileno)>;
using Succeed = std::function<void(const Bytes& value)>;

int AskService(const Target& target, const PortOptions& port, const OneShotOptions& options, double moreSeconds,
               const BuildFrame& build, const Succeed& succeed)
{
    voq::FileNumbers numbers(target.port, port.numbers);
    voq::OneShot request{.fifo = target.fifo, .numbers = &numbers, .fileno = numbers.Next()};
    request.frame = Checked(options.what, [&] { return build(request.fileno); });
    request.writers = options.onlyWriter ? voq::Writers::OnlyThis : voq::Writers::Several;
    request.timeout = Milliseconds(options.times.timeoutSeconds + moreSeconds);
    request.stopped = [] { return Stopped != 0; };
    CatchSignals();
    try {
        const auto result = voq::Ask(target.port, request);
        if (!result) return Unanswered(target, options, request);
        if (result->item.result != PLC_SUCCESS) return Failed(options.what, FailureOf(*result));
        succeed(result->value);
        return ExitOk;
    } catch (const voq::ServiceNotRunning& error) {
        return Failed(options.what, {ExitNotRunning, "no service", error.what()});
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

int Write(const PortOptions& port, const OneShotOptions& options, const std::vector<std::string>& values)
{
    const Target target = Resolve(port);
    const voq::DescribedRegister described = ResolveRegister(target, options.what);
    const voq::Register& reg = described.reg;
    if (described.meaning.text == 0 || options.raw) RequireByteOrder(target, reg, options.what);
    const voq::ValueCoding coding = voq::CodingOf(reg, ByteOrderOf(target, reg.key));
    const Bytes image = Checked(options.what, [&] {
        const Bytes made =
            voq::EncodeScaled(options.raw ? voq::Meaning{} : described.meaning, coding, reg.key.width, values);
        if (options.raw) voq::RequireWithinLimits(described.meaning, coding, made);
        return made;
    });
    return AskService(
        target, port, options, 0, [&](std::uint16_t fileno) { return voq::WriteFrame(reg.key, fileno, image); },
        [](const Bytes&) { std::printf("written\n"); });
}

int Change(const PortOptions& port, const OneShotOptions& options, const voq::ChangeText& change)
{
    const Target target = Resolve(port);
    const voq::DescribedRegister described = ResolveRegister(target, options.what);
    RequireByteOrder(target, described.reg, options.what);
    const std::uint16_t order = ByteOrderOf(target, described.reg.key);
    const voq::ChangeRequest request = Checked(options.what, [&] {
        return voq::BuildChange(described.reg, order, AsItLies(described, order, change, options.raw));
    });
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
