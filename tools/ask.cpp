// Keeps a number of requests under way until every one has its answer. May fork.
#include "tools/ask.h"

#include <chrono>
#include <deque>
#include <memory>

#include "client/clock.h"
#include "tools/port.h"
#include "tools/progress.h"
#include "tools/stop.h"
#include "voq/rt_item.h"

namespace
{

using Clock = voq::Port::Clock;

constexpr std::size_t MostUnderWay = 100;  // a tenth of what the service lists, for other clients ask it too

std::chrono::milliseconds Milliseconds(double seconds)
{
    return std::chrono::milliseconds(static_cast<std::int64_t>(seconds * 1000));
}

RequestFailure Unanswered(std::chrono::milliseconds timeout)
{
    if (Stopped != 0) return {ExitSignalBase + Stopped, "interrupted", "interrupted"};
    return {ExitNoAnswer, "no answer", "no answer within " + std::to_string(timeout.count()) + " ms"};
}

RequestFailure Refused(const voq::Asked& asked)
{
    const bool inTimeout = asked.result == RT_REFUSED_TIMEOUT;
    return {ExitRefused, "refused",
            inTimeout ? "refused: the port is in time-out and other requests wait already"
                      : "refused: too many requests wait, or the port has a communication error"};
}

RequestFailure Failed(const voq::Asked& asked)
{
    if (!asked.damage.empty()) return {ExitNegative, "error", asked.damage};
    if (asked.result == PLC_ERROR) return {ExitComError, "error", "communication error"};
    return {ExitComError, "error", "failed with code " + std::to_string(asked.result)};
}

class Batch
{
public:
    Batch(const Target& target, const PortOptions& options, const AskOptions& how,
          const std::vector<voq::Requests::BuildFrame>& requests)
        : how_(how),
          timeout_(Milliseconds(how.times.timeoutSeconds)),
          requests_(requests),
          answers_(requests.size()),
          asked_(requests.size()),
          again_(requests.size())
    {
        voq::PortSettings settings;
        settings.writers = how.onlyWriter ? voq::Writers::OnlyThis : voq::Writers::Several;
        port_ = OpenPort(target, options, settings);
        for (std::size_t i = 0; i < requests.size(); ++i) waiting_.push_back(i);
    }

    std::vector<Answer> Run()
    {
        Progress progress(how_.progress);
        while (Stopped == 0 && !(waiting_.empty() && port_->UnderWay() == 0)) {
            while (!waiting_.empty() && port_->UnderWay() < most_) Send();
            const std::size_t before = port_->UnderWay();
            Await(*port_);
            while (const auto event = port_->NextEvent()) {
                if (event->request != nullptr) Ended(IndexOf(*event->request), before > 1);
            }
            if (how_.progress.empty()) continue;
            progress.At(requests_.size() - waiting_.size() - port_->UnderWay(), requests_.size());
        }
        for (const std::size_t index : waiting_) Fail(index, Unanswered(timeout_));
        for (std::size_t i = 0; i < asked_.size(); ++i) {
            if (asked_[i].fileno != 0 && asked_[i].outcome == voq::Outcome::Pending) GiveUp(i);
        }
        if (!unanswered_.empty()) answers_[unanswered_.back()].failure->sentence += LeftToRemover();
        return std::move(answers_);
    }

private:
    std::size_t IndexOf(const voq::Asked& asked) const { return static_cast<std::size_t>(&asked - asked_.data()); }

    void Fail(std::size_t index, const RequestFailure& failure)
    {
        answers_[index].at = voq::NowMicroseconds();
        answers_[index].failure = failure;
    }

    void Send()
    {
        const std::size_t index = waiting_.front();
        waiting_.pop_front();
        try {
            port_->Ask(asked_[index], requests_[index], {Clock::now() + timeout_, voq::FifoPatience});
        } catch (const voq::ServiceNotRunning& error) {
            Fail(index, {ExitNotRunning, "no service", error.what()});
        } catch (const voq::Error& error) {
            Fail(index, {ExitNegative, "error", error.what()});
        }
    }

    void Ended(std::size_t index, bool amongOthers)
    {
        voq::Asked& asked = asked_[index];
        switch (asked.outcome) {
            case voq::Outcome::Pending:
                return;
            case voq::Outcome::Done:
                answers_[index].at = voq::NowMicroseconds();
                answers_[index].value = std::move(asked.value);
                return;
            case voq::Outcome::Refused:
                // A port that fails takes two requests at a time: what was too many together goes one after the other.
                if (!amongOthers || again_[index]) return Fail(index, Refused(asked));
                most_ = 1;
                again_[index] = true;
                waiting_.push_back(index);
                return;
            case voq::Outcome::PlcTimeout:
                return Fail(index, {ExitPlcTimeout, "time-out", "time-out: the PLC does not answer"});
            case voq::Outcome::PlcError:
                return Fail(index, Failed(asked));
            case voq::Outcome::NoAnswer:
                return GiveUp(index);
            case voq::Outcome::NoService:
                return Fail(index, {ExitNoAnswer, "no answer",
                                    "no answer: the service has ended; it may have carried the request out"});
        }
    }

    void GiveUp(std::size_t index)
    {
        Fail(index, Unanswered(timeout_));
        unanswered_.push_back(index);
    }

    // Leaves it behind, and returns how the sentence about what got no answer goes on.
    std::string LeftToRemover()
    {
        const auto grace = Milliseconds(how_.times.graceSeconds);
        const std::string remover = "Process " + std::to_string(port_->LeaveRemover(grace)) + " removes ";
        const std::string most = ", for at most " + std::to_string(grace.count() / 1000) + " s";
        if (unanswered_.size() == 1) {
            return "; the service may still carry the request out. " + remover + "its answer " +
                   port_->Directory().Result(asked_[unanswered_[0]].fileno) + " when it comes" + most;
        }
        return "; the service may still carry " + std::to_string(unanswered_.size()) + " requests out. " + remover +
               "their answers when they come" + most;
    }

    const AskOptions& how_;
    const std::chrono::milliseconds timeout_;
    const std::vector<voq::Requests::BuildFrame>& requests_;
    std::vector<Answer> answers_;
    std::vector<voq::Asked> asked_;
    std::vector<bool> again_;  // refused among others
    std::unique_ptr<voq::Port> port_;
    std::deque<std::size_t> waiting_;
    std::vector<std::size_t> unanswered_;
    std::size_t most_ = MostUnderWay;  // under way at the same time
};

}  // namespace

std::vector<Answer> Ask(const Target& target, const PortOptions& port, const AskOptions& options,
                        const std::vector<voq::Requests::BuildFrame>& requests)
{
    return Batch(target, port, options, requests).Run();
}
