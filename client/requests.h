// One-shot requests of one client on one port, any number of them under way. One thread. An answer's file never stays:
// it is taken when it comes, whether somebody still wants it or not.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>
#include <unordered_map>

#include "client/bytes.h"
#include "client/fifo.h"
#include "client/file_number.h"
#include "client/port_dir.h"

namespace voq
{

enum class Outcome : std::uint8_t {
    Pending,
    Done,
    PlcTimeout,
    PlcError,
    Refused,   // by the service
    NoAnswer,  // in time; the service may still carry it out
    NoService  // it ended first; it may have carried it out
};

// What came of a write, for a person.
const char* OutcomeText(Outcome outcome);

// What came of a request; the caller's, alive until it is answered or given up.
struct Asked {
    Outcome outcome = Outcome::Pending;
    Bytes value;              // of a read that is done: the value; of a change: its two result bytes
    int result = 0;           // of the answer, as the service gave it; 0 without one
    std::string damage = {};  // why an answer could not be used; then the outcome is PlcError
    std::uint16_t fileno = 0;
};

class Requests
{
public:
    using Clock = std::chrono::steady_clock;
    using BuildFrame = std::function<Bytes(std::uint16_t fileno)>;
    using Answered = std::function<void(Asked&)>;

    // `port` and `numbers` must outlive it. `answered` is called when a request is not pending any more.
    Requests(const PortDir& port, FileNumbers& numbers, Answered answered);

    struct Way {
        std::string fifo;
        Writers writers = Writers::Several;
        std::chrono::milliseconds patience{0};  // for room in the FIFO
    };
    // Sends a request. Throws NoNumber, ServiceNotRunning, FifoFull or Error: then nothing was sent.
    void Begin(Asked& asked, const BuildFrame& build, const Way& way, Clock::time_point deadline);
    // Nobody wants the answer any more; of one that is answered, nothing.
    void GiveUp(Asked& asked);
    void GiveUpAll();

    // Fetches answers: of these numbers, or all that are there. Throws LockHeld or Error.
    void Collect(std::span<const std::uint16_t> numbers);
    void CollectAll();
    // Ends those whose time is over.
    void Expire(Clock::time_point now);
    // Ends all; what had been answered before is to be collected first.
    void ServiceGone();

    std::optional<Clock::time_point> NextDeadline() const;
    bool None() const { return entries_.empty(); }
    std::size_t UnderWay() const;

private:
    struct Entry {
        Asked* asked;  // null: given up
        RegKey key;
        Clock::time_point deadline;
    };
    using Entries = std::unordered_map<std::uint16_t, Entry>;

    bool Fetch(std::uint16_t number);
    void End(Entry& entry, Outcome outcome);

    const PortDir& port_;
    FileNumbers& numbers_;
    Answered answered_;
    Entries entries_;
};

}  // namespace voq
