// Sends requests and fetches answers. Waits for a lock as the thread's LockPatience says, for a FIFO as the caller
// says.
#include "client/requests.h"

#include <unistd.h>

#include <cstring>
#include <ctime>
#include <utility>
#include <vector>

#include "client/frame.h"
#include "client/result_file.h"

namespace voq
{

namespace
{

Outcome OutcomeOf(const ResultFile& result)
{
    switch (result.item.result) {
        case PLC_SUCCESS:
            return Outcome::Done;
        case PLC_TIMEOUT:
            return Outcome::PlcTimeout;
        case RT_REFUSED_TIMEOUT:
            return Outcome::Refused;
        default:
            return WasRefused(result) ? Outcome::Refused : Outcome::PlcError;
    }
}

// What is noted of a one-shot's number: its request, with the time.
RegRequest NoteOf(std::span<const std::uint8_t> frame)
{
    RegRequest request = RecordAt<RegRequest>(frame, FrameHeaderBytes).value_or(RegRequest{});
    request.orgoffset = static_cast<std::uint32_t>(std::time(nullptr));
    return request;
}

}  // namespace

const char* OutcomeText(Outcome outcome)
{
    switch (outcome) {
        case Outcome::Done:
            return "written";
        case Outcome::PlcTimeout:
            return "the PLC does not answer";
        case Outcome::Refused:
            return "the service did not take the request";
        case Outcome::Pending:
        case Outcome::NoAnswer:
            return "no answer in time; the service may still carry the write out";
        case Outcome::NoService:
            return "the service ended before it answered; it may have carried the write out";
        case Outcome::PlcError:
            break;
    }
    return "communication error, or the PLC refused";
}

Requests::Requests(const PortDir& port, FileNumbers& numbers, Answered answered)
    : port_(port), numbers_(numbers), answered_(std::move(answered))
{
}

void Requests::Begin(Asked& asked, const BuildFrame& build, const Way& way, Clock::time_point deadline)
{
    // An answer that cannot be removed would stay for ever.
    if (access(port_.Dir().c_str(), W_OK | X_OK) != 0 && errno != ENOENT) {
        throw SystemError(port_.Dir() + ": the answer could not be removed", errno);
    }
    const std::uint16_t number = numbers_.Next();
    try {
        const Bytes frame = build(number);
        const auto at = entries_.insert({number, {&asked, *RecordAt<RegKey>(frame, FrameHeaderBytes), deadline}}).first;
        try {
            numbers_.Note(number, NoteOf(frame));
            SendFrame(way.fifo, frame, way.writers, way.patience);
        } catch (...) {
            entries_.erase(at);
            throw;
        }
    } catch (...) {
        numbers_.GiveBack(number);
        throw;
    }
    asked.outcome = Outcome::Pending;
    asked.result = 0;
    asked.fileno = number;
}

void Requests::GiveUp(Asked& asked)
{
    const auto at = entries_.find(asked.fileno);
    if (at != entries_.end() && at->second.asked == &asked) at->second.asked = nullptr;
}

void Requests::GiveUpAll()
{
    for (auto& [number, entry] : entries_) entry.asked = nullptr;
}

void Requests::End(Entry& entry, Outcome outcome)
{
    if (entry.asked == nullptr) return;
    Asked& asked = *std::exchange(entry.asked, nullptr);
    asked.outcome = outcome;
    answered_(asked);
}

// False while there is no answer.
bool Requests::Fetch(std::uint16_t number)
{
    const auto at = entries_.find(number);
    if (at == entries_.end()) return false;
    auto result = ReadResult(port_, number);
    if (!result) return false;
    RemoveResult(port_, number);
    Entry entry = at->second;
    entries_.erase(at);
    numbers_.GiveBack(number);
    if (entry.asked == nullptr) return true;
    const bool own = std::memcmp(&entry.key, &result->item.key, sizeof entry.key) == 0;
    if (!own) entry.asked->damage = "the answer is that of another client, which uses the same request number";
    entry.asked->result = result->item.result;
    entry.asked->value = std::move(result->value);
    End(entry, own ? OutcomeOf(*result) : Outcome::PlcError);
    return true;
}

void Requests::Collect(std::span<const std::uint16_t> numbers)
{
    for (const std::uint16_t number : numbers) Fetch(number);
}

void Requests::CollectAll()
{
    std::vector<std::uint16_t> numbers;
    for (const auto& [number, entry] : entries_) {
        if (access(port_.Result(number).c_str(), F_OK) == 0) numbers.push_back(number);
    }
    Collect(numbers);
}

void Requests::Expire(Clock::time_point now)
{
    // The entry stays, given up, until its answer comes or the service ends.
    for (auto& [number, entry] : entries_) {
        if (entry.asked != nullptr && now >= entry.deadline) End(entry, Outcome::NoAnswer);
    }
}

void Requests::ServiceGone()
{
    Entries ended;
    ended.swap(entries_);
    for (auto& [number, entry] : ended) {
        RemoveResult(port_, number);  // one that was cut short
        numbers_.GiveBack(number);
        End(entry, Outcome::NoService);
    }
}

std::optional<Requests::Clock::time_point> Requests::NextDeadline() const
{
    std::optional<Clock::time_point> next;
    for (const auto& [number, entry] : entries_) {
        if (entry.asked != nullptr && (!next || entry.deadline < *next)) next = entry.deadline;
    }
    return next;
}

std::size_t Requests::UnderWay() const
{
    std::size_t count = 0;
    for (const auto& [number, entry] : entries_) count += entry.asked != nullptr ? 1 : 0;
    return count;
}

}  // namespace voq
