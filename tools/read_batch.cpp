// Keeps a number of reads under way until every range has its answer. Main thread; waits for the service.
#include "tools/read_batch.h"

#include <chrono>
#include <deque>
#include <thread>

#include "client/clock.h"
#include "client/frame.h"
#include "tools/printable.h"
#include "tools/progress.h"
#include "tools/stop.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

using Clock = std::chrono::steady_clock;

constexpr std::size_t MostUnderWay = 100;  // a tenth of what the service lists, for other clients ask it too
constexpr std::chrono::milliseconds Pause{5};

class Batch
{
public:
    Batch(const Target& target, const voq::FileNumberRange& numbers, const RequestTimes& times,
          const std::vector<Selected>& ranges)
        : target_(target), times_(times), ranges_(ranges), numbers_(target.port, numbers), answers_(ranges.size())
    {
        for (std::size_t i = 0; i < ranges.size(); ++i) waiting_.push_back({i, false});
    }

    std::vector<ReadAnswer> Run()
    {
        Progress progress("read: ranges");
        while (Stopped == 0 && !(waiting_.empty() && underWay_.empty())) {
            while (!waiting_.empty() && underWay_.size() < most_) Send();
            if (!Take()) std::this_thread::sleep_for(Pause);
            progress.At(ranges_.size() - waiting_.size() - underWay_.size(), ranges_.size());
        }
        for (const Waiting& range : waiting_) Fail(range.index, UnansweredFailure(0));
        for (const UnderWay& asked : underWay_) GiveUp(asked);
        LeaveToRemover();
        return std::move(answers_);
    }

private:
    struct Waiting {
        std::size_t index;
        bool again;  // it was refused among others
    };
    struct UnderWay {
        Waiting range;
        voq::OneShot request;
        Clock::time_point end;
        bool over = false;
    };

    void Fail(std::size_t index, const RequestFailure& failure)
    {
        answers_[index].at = voq::NowMicroseconds();
        answers_[index].failure = failure;
    }

    void Send()
    {
        const Waiting range = waiting_.front();
        waiting_.pop_front();
        try {
            UnderWay asked = {range, {}, {}};
            asked.request.fifo = target_.fifo;
            asked.request.numbers = &numbers_;
            asked.request.fileno = numbers_.Next();
            asked.request.frame = voq::ReadFrame(ranges_[range.index].reg.key, asked.request.fileno);
            asked.request.timeout = Milliseconds(times_.timeoutSeconds);
            voq::SendRequest(target_.port, asked.request);
            asked.end = Clock::now() + asked.request.timeout;
            underWay_.push_back(std::move(asked));
        } catch (const voq::ServiceNotRunning& error) {
            Fail(range.index, {ExitNotRunning, "no service", error.what()});
        } catch (const voq::Error& error) {
            Fail(range.index, {ExitNegative, "error", error.what()});
        }
    }

    // Takes the answers that have come. False when none has.
    bool Take()
    {
        const std::size_t before = underWay_.size();
        for (UnderWay& asked : underWay_) {
            try {
                const auto result = voq::TakeAnswer(target_.port, asked.request);
                asked.over = result || Clock::now() >= asked.end;
                if (result) Answered(asked, *result, before > 1);
                if (!result && asked.over) GiveUp(asked);
            } catch (const voq::Error& error) {
                asked.over = true;
                Fail(asked.range.index, {ExitNegative, "error", error.what()});
            }
        }
        std::erase_if(underWay_, [](const UnderWay& asked) { return asked.over; });
        return underWay_.size() != before;
    }

    void Answered(const UnderWay& asked, const voq::ResultFile& result, bool amongOthers)
    {
        ReadAnswer& answer = answers_[asked.range.index];
        const std::uint32_t length = GetRegBuffLen(&ranges_[asked.range.index].reg.key);
        if (result.item.result == PLC_SUCCESS && result.value.size() == length) {
            answer.at = voq::NowMicroseconds();
            answer.value = result.value;
            return;
        }
        if (result.item.result == PLC_SUCCESS) {
            return Fail(asked.range.index, {ExitNegative, "error",
                                            "the answer holds " + std::to_string(result.value.size()) + " bytes of " +
                                                std::to_string(length)});
        }
        const RequestFailure failure = FailureOf(result);
        // A port that fails takes two requests at a time: what was too many together goes one after the other.
        if (failure.status == ExitRefused && amongOthers && !asked.range.again) {
            most_ = 1;
            waiting_.push_back({asked.range.index, true});
            return;
        }
        Fail(asked.range.index, failure);
    }

    void GiveUp(const UnderWay& asked)
    {
        Fail(asked.range.index, UnansweredFailure(asked.request.timeout.count()));
        unanswered_.push_back(asked.request);
        lastUnanswered_ = asked.range.index;
    }

    void LeaveToRemover()
    {
        if (unanswered_.empty()) return;
        answers_[lastUnanswered_].failure->sentence += LeftToRemover(target_.port, unanswered_, times_.graceSeconds);
    }

    const Target& target_;
    const RequestTimes& times_;
    const std::vector<Selected>& ranges_;
    voq::FileNumbers numbers_;
    std::vector<ReadAnswer> answers_;
    std::deque<Waiting> waiting_;
    std::vector<UnderWay> underWay_;
    std::size_t most_ = MostUnderWay;  // under way at the same time
    std::vector<voq::OneShot> unanswered_;
    std::size_t lastUnanswered_ = 0;
};

}  // namespace

std::vector<ReadAnswer> ReadTogether(const Target& target, const voq::FileNumberRange& numbers,
                                     const RequestTimes& times, const std::vector<Selected>& ranges)
{
    return Batch(target, numbers, times, ranges).Run();
}
