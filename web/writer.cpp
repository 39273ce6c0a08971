// Makes a write: within the limits of the description, through the service, and with its answer.
#include "web/writer.h"

#include <chrono>

#include "client/frame.h"
#include "client/port.h"
#include "client/value_text.h"

namespace voq::web
{

namespace
{

constexpr std::chrono::milliseconds AnswerWithin{10000};
constexpr std::chrono::milliseconds RemoveWithin{30000};

struct Answer {
    unsigned status;
    std::string text;
};

Bytes ImageOf(const Model::Writing& what, const std::vector<std::string>& values)
{
    if (!what.orderKnown) throw Error("the description gives the port no byte order");
    return EncodeScaled(what.meaning, what.coding, what.reg.key.width, values);
}

unsigned StatusOf(Outcome outcome)
{
    switch (outcome) {
        case Outcome::Done:
            return 200;
        case Outcome::Refused:
            return 503;
        case Outcome::PlcError:
            return 502;
        default:
            return 504;
    }
}

Answer Written(const Model::Writing& what, const std::vector<std::string>& values)
{
    Bytes image;
    try {
        image = ImageOf(what, values);
    } catch (const Error& error) {
        return {422, error.what()};
    }
    try {
        Port port(what.dir);
        Asked asked;
        const auto until = Port::Clock::now() + AnswerWithin;
        port.Ask(asked, [&](std::uint16_t fileno) { return WriteFrame(what.reg.key, fileno, image); },
                 {until, FifoPatience, true});
        while (!port.WaitFor(asked, until)) continue;
        if (asked.outcome == Outcome::NoAnswer) port.LeaveRemover(RemoveWithin);
        return {StatusOf(asked.outcome), OutcomeText(asked.outcome)};
    } catch (const Error& error) {
        return {503, error.what()};
    }
}

}  // namespace

Writer::Writer() : thread_([this] { Run(); }) {}

void Writer::End()
{
    {
        const std::lock_guard lock(mutex_);
        ending_ = true;
    }
    changed_.notify_one();
    if (thread_.joinable()) thread_.join();
}

bool Writer::Begin(Model::Writing what, std::vector<std::string> values, Done done)
{
    {
        const std::lock_guard lock(mutex_);
        if (job_ || ending_) return false;
        job_ = {std::move(what), std::move(values), std::move(done)};
    }
    changed_.notify_one();
    return true;
}

void Writer::Run()
{
    std::unique_lock lock(mutex_);
    while (true) {
        changed_.wait(lock, [this] { return job_ || ending_; });
        if (!job_) return;
        lock.unlock();
        const Answer answer = Written(job_->what, job_->values);
        const Done done = job_->done;
        lock.lock();
        job_.reset();
        lock.unlock();
        done(answer.status, answer.text);
        lock.lock();
    }
}

}  // namespace voq::web
