// Sends writes and hands their answers on.
#include "upstream/mqtt/commands.h"

#include <algorithm>

#include "client/error.h"
#include "client/frame.h"

namespace voq::mqtt
{

namespace
{

using std::chrono::milliseconds;

constexpr milliseconds AnswerWithin{10000}, RemoveWithin{30000};
constexpr milliseconds RoomWithin{100};  // in the FIFO: everything else waits meanwhile

}  // namespace

Commands::Commands(const Catalogue& catalogue, Source& source, Answer answer)
    : catalogue_(catalogue), source_(source), answer_(std::move(answer))
{
}

void Commands::Finish(const Command& command, bool written, const std::string& text)
{
    ++(written ? written_ : refused_);
    answer_(command, written, text);
}

void Commands::Send(UnderWay& write)
{
    const Metric& metric = catalogue_.metrics[write.command.metric];
    const Register& reg = metric.described.reg;
    const Bytes image = EncodeScaled(metric.described.meaning, metric.coding, reg.key.width, write.command.texts);
    source_.PortAt(metric.port)
        .Ask(write.asked, [&](std::uint16_t fileno) { return WriteFrame(reg.key, fileno, image); },
             {Port::Clock::now() + AnswerWithin, RoomWithin, false});
}

void Commands::Begin(const Command& command)
{
    if (!command.refused.empty()) return Finish(command, false, command.refused);
    if (underWay_.size() == MaxUnderWay) {
        return Finish(command, false, "too many writes are under way: wait for their answers");
    }
    underWay_.push_back({command, {}});
    try {
        Send(underWay_.back());
    } catch (const Error& error) {
        underWay_.pop_back();
        Finish(command, false, error.what());
    }
}

void Commands::Answered(const Asked& asked)
{
    const auto found =
        std::find_if(underWay_.begin(), underWay_.end(), [&](const UnderWay& each) { return &each.asked == &asked; });
    if (found == underWay_.end()) return;
    const UnderWay answered = std::move(*found);
    underWay_.erase(found);
    Finish(answered.command, answered.asked.outcome == Outcome::Done, OutcomeText(answered.asked.outcome));
}

void Commands::End()
{
    for (std::uint32_t port = 0; port < catalogue_.ports.size(); ++port) {
        try {
            if (source_.PortAt(port).UnderWay() != 0) source_.PortAt(port).LeaveRemover(RemoveWithin);
        } catch (const Error&) {
            // The answers stay until the next client of these numbers removes them.
        }
    }
    for (const UnderWay& each : underWay_) {
        Finish(each.command, false, "voq-mqtt ends before the answer; the service may still carry the write out");
    }
    underWay_.clear();
}

}  // namespace voq::mqtt
