// "voqctl write", "change" and "pulse": one request each, and its answer as a sentence and an exit status.
// Main thread; whatever ends the waiting, the answer's file does not stay.
#include <cstdio>
#include <functional>

#include "client/frame.h"
#include "tools/ask.h"
#include "tools/change_meaning.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/stop.h"
#include "voq/chg_desc.h"

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

using Succeed = std::function<void(const Bytes& value)>;

int AskService(const Target& target, const PortOptions& port, const OneShotOptions& options, double moreSeconds,
               const voq::Requests::BuildFrame& build, const Succeed& succeed)
{
    Checked(options.what, [&] { return build(0); });
    CatchSignals();
    AskOptions how{options.times, options.onlyWriter};
    how.times.timeoutSeconds += moreSeconds;
    const Answer answer = Ask(target, port, how, {build}).front();
    if (!answer.failure) {
        succeed(answer.value);
        return ExitOk;
    }
    const bool either = answer.failure->status == ExitComError;
    Complain(options.what + ": " + answer.failure->sentence +
             (either ? ", or the PLC refused: the service's log says which" : ""));
    return answer.failure->status;
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
