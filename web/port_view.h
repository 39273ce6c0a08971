// One port as the page knows it: what one look at its files brings, and what is kept of its ranges from look to look.
// Look is the sampling thread's and may wait for a file lock; everything else is memory only.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "client/description/description.h"
#include "client/gather.h"
#include "client/heartbeat.h"
#include "client/port_status.h"
#include "client/stats.h"
#include "client/value_image.h"
#include "web/history.h"

namespace voq::web
{

// A range of the port's register database.
struct RangeView {
    std::uint32_t id = 0;  // as long as the program runs, no other range has it
    std::size_t port = 0;
    DescribedRegister described;
    std::string name;  // the description's, or the expression
    ValueCoding coding;
    std::optional<unsigned> decimals;  // that its scaled numbers are shown with

    OrgNode node = {};
    Bytes value;                       // the last good one
    std::string shown;                 // its elements as a JSON list, "null" before there is one
    bool more = false;                 // there are elements behind those shown
    double number = 0;                 // the first element; not finite when it is none
    std::int64_t stamp = 0;            // of the last PLC access, us since 1970; 0: never read
    std::uint32_t period = 0;          // us between two reads; 0: not known
    const char* state = "never read";  // one word for a person
    bool subscribed = false;
    History history;

    // What the browsers were told last.
    std::int64_t toldStamp = 0;
    std::string toldShown;
    const char* toldState = nullptr;
    std::uint32_t toldPeriod = 0;
    bool toldSubscribed = false;
};

// What is read of a port in one look, before it is taken over.
struct PortLook {
    PortStatus status;
    std::optional<Statistics> statistics;
    std::optional<Heartbeat> heartbeat;
    std::optional<std::uint32_t> watchdog;
    std::vector<OrgRecord> changed;  // records with another stamp, state or range than before
    std::vector<Bytes> values;       // theirs, empty when they are not good
    std::string error;
};

enum class Service : std::uint8_t { Runs, Away, Hangs };

struct PortView {
    PortDir dir;
    std::uint16_t index = 0;
    std::string name;  // "tcp_1"
    PortStatus status = {};
    std::optional<Statistics> statistics = {};
    std::optional<Heartbeat> heartbeat = {};
    std::string error = {};  // why the last look failed
    std::uint32_t counter = 0;
    std::int64_t counterSince = 0;                        // us since 1970
    std::vector<std::unique_ptr<RangeView>> ranges = {};  // in the order of the chain
    std::vector<RangeView*> byRecord = {};                // by number of the record, null for none
    std::size_t leftOut = 0;                              // ranges beyond the limit

    Service State() const;
    // A sentence for whoever sees the state.
    std::string StateText() const;
    bool Counts() const;  // the watchdog counter moves, or nothing is known of it
    bool StationOff(std::uint8_t station) const;
};

// Reads the port's files. Never throws: what failed stands in `error`.
PortLook LookAt(const PortView& port, Gather& gather);

}  // namespace voq::web
