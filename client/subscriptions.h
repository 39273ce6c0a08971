// The subscriptions of one client on one port: made, made again when the service is another one, and ended; and what
// the service knows of their ranges, read as little as may be. One thread. Takes one lock at a time.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <span>
#include <string>
#include <vector>

#include "client/bytes.h"
#include "client/file_number.h"
#include "client/gather.h"
#include "client/kept_numbers.h"
#include "client/port_dir.h"
#include "voq/org_record.h"

namespace voq
{

inline constexpr int StateUnknown = -1;  // the service has no record of the range

struct Followed;

// What a caller follows; any number of them may be the same registers.
struct Range {
    RegKey key = {};
    Followed* followed = nullptr;  // set while it is subscribed
    bool told = false;             // an event waits that tells of a change
};

// The registers that ranges follow: what the service knows of them.
struct Followed {
    RegKey key = {};
    std::vector<Range*> ranges;

    int state = StateUnknown;
    Stamp stamp = {};
    bool live = false;      // read since the log-on, by a service that runs
    Bytes value;            // the last good one, empty before there is one
    Stamp valueStamp = {};  // of the reading that it is of

    std::uint32_t offset = 0;  // of its record, 0 while not found
    OrgNode node = {};         // the record that state and value are those of
    std::uint16_t fileno = 0;
    bool loggedOn = false;
    std::uint32_t loggedOnBy = 0;  // record offset that the log-on named, 0 for none
    std::uint32_t loggedOnTo = 0;  // see KeptNumbers::Service
    Stamp before = {};             // of the record at the log-on
};

class Subscriptions
{
public:
    using Changed = std::function<void(Followed&)>;

    // `port` and `numbers` must outlive it. `changed` is called for what has another state, liveness or value than
    // before.
    Subscriptions(const PortDir& port, FileNumbers& numbers, bool throughGui, Changed changed);

    // Follows a range; its log-on is sent by the next Send. Takes a request number: throws NoNumber or Error.
    void Add(Range& range);
    // Follows it no more; the log-off is sent by the next Send.
    void Remove(Range& range);
    std::size_t Count() const { return followed_.size(); }

    // Follows nothing more and sends all log-offs. Throws as Send; what could not be sent stays noted.
    void EndAll(std::chrono::milliseconds patience);
    // The service has ended: nothing is live, everything is to be logged on again.
    void ServiceGone();

    // Something is to be sent.
    bool Waiting() const { return toLogOn_ || !logOffs_.empty(); }
    // Looks up the records of what is to be logged on, and sends what waits. Throws FifoFull when it still waits then,
    // ServiceNotRunning, LockHeld, NoNumber or Error.
    void Send(std::chrono::milliseconds patience);

    // Reads what the service has written. Throws LockHeld or Error: what was not read is read by the next call.
    void Refresh();

private:
    using Some = std::vector<Followed*>;
    struct LogOff {
        RegKey key;
        std::uint16_t fileno;
        std::uint32_t loggedOnBy, loggedOnTo;
    };

    void SendLogOffs(std::chrono::milliseconds patience);
    void SendLogOns(std::chrono::milliseconds patience);
    void PrepareLogOns();
    void TakeFreeNumber(Followed& followed, const KeptNumbers& kept);
    void LookUp();
    void ReadRecords(const Some& which, std::vector<OrgNode>& nodes);
    void ReadValues(const Some& which, const std::vector<OrgNode>& nodes);
    void Accept(Followed& followed, const OrgNode& node, std::span<const std::uint8_t> value);
    void Forget(Followed& followed);

    const PortDir& port_;
    FileNumbers& numbers_;
    bool gui_;
    std::string fifo_;
    Changed changed_;
    std::vector<std::unique_ptr<Followed>> followed_;
    std::vector<LogOff> logOffs_;
    bool toLogOn_ = false;
    std::uint64_t compared_ = 0;  // bytes of the org file that everything not found was compared with
    Gather records_, values_;     // these are members so that a round allocates nothing
    Some due_;
    std::vector<OrgNode> nodes_, nodesAgain_;
};

}  // namespace voq
