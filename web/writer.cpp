// Makes a write: within the limits of the description, through the service, and with its answer.
#include "web/writer.h"

#include <chrono>

#include "client/frame.h"
#include "client/one_shot.h"
#include "client/value_text.h"
#include "voq/rt_item.h"

namespace voq::web
{

namespace
{

constexpr std::chrono::milliseconds AnswerWithin{10000};
constexpr std::chrono::milliseconds RemoveWithin{30000};

struct Outcome {
    unsigned status;
    std::string text;
};

Bytes ImageOf(const Model::Writing& what, const std::vector<std::string>& values)
{
    if (!what.orderKnown) throw Error("the description gives the port no byte order");
    return EncodeScaled(what.meaning, what.coding, what.reg.key.width, values);
}

Outcome Failure(const ResultFile& result)
{
    if (result.item.result == PLC_TIMEOUT) return {504, "the PLC does not answer"};
    if (WasRefused(result)) return {503, "the service did not take the request"};
    return {502, "communication error, or the PLC refused"};
}

Outcome Written(const Model::Writing& what, const std::vector<std::string>& values)
{
    Bytes image;
    try {
        image = ImageOf(what, values);
    } catch (const Error& error) {
        return {422, error.what()};
    }
    try {
        FileNumbers numbers(what.dir);
        OneShot request{.fifo = what.dir.MekFifo(), .numbers = &numbers, .fileno = numbers.Next()};
        request.frame = WriteFrame(what.reg.key, request.fileno, image);
        request.timeout = AnswerWithin;
        const auto result = Ask(what.dir, request);
        if (!result) {
            RemoveLater(what.dir, {&request, 1}, RemoveWithin);
            return {504, "no answer in time; the service may still carry the write out"};
        }
        if (result->item.result != PLC_SUCCESS) return Failure(*result);
        return {200, "written"};
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
        const Outcome outcome = Written(job_->what, job_->values);
        const Done done = job_->done;
        lock.lock();
        job_.reset();
        lock.unlock();
        done(outcome.status, outcome.text);
        lock.lock();
    }
}

}  // namespace voq::web
