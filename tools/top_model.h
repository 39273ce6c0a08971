// What `voqctl top` knows of its ports, and which of their ranges it lists in what order. Reads the ports' files, draws
// nothing.
#pragma once

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <ctime>
#include <map>
#include <optional>
#include <string>
#include <vector>

#include "client/port_status.h"
#include "client/stats.h"
#include "client/value_image.h"
#include "tools/target.h"

// A range of a port, kept from look to look.
struct TopRange {
    std::size_t port = 0;
    std::uint32_t offset = 0;  // in the org file: what it is told apart by
    std::string name;          // the project's, or the expression
    voq::ValueCoding coding;
    OrgNode node = {};
    std::int64_t age = 0;     // microseconds; a lively range's stays at LivelyAge
    std::int64_t period = 0;  // between the last two PLC accesses that were seen, likewise; 0 while fewer were
    bool subscribed = false;  // logged on by its record, or read again since the first look
    std::string value;        // of the last look in which the range was listed
    unsigned valueLook = 0;
};

// What a service counts, of its own since it started; rates are those between the last two looks.
struct TopCounters {
    voq::Statistics statistics;
    double turnRate = 0, readRate = 0;  // a second
    std::vector<double> callRate;       // by station
};

// A station of a port that was called, or that clients want something of, or that is switched off.
struct TopStation {
    std::size_t port = 0;
    std::uint8_t number = 0;
    StatsStation counts = {};
    double rate = 0;        // calls a second
    std::int64_t good = 0;  // age of the last answer, and of the last failure, as a range's age
    std::int64_t bad = 0;
};

enum class Watchdog : std::uint8_t { NoCounter, NotSeenYet, Moving, Late };

struct TopPort {
    Target target;
    std::string name = {};  // "tcp_1"
    voq::PortStatus status = {};
    std::string error = {};                         // why the last look failed; the rest is then that of the one before
    std::map<std::uint32_t, TopRange> ranges = {};  // by org offset
    Watchdog watchdog = Watchdog::NoCounter;
    std::uint32_t counter = 0;
    std::int64_t counterSince = 0;             // when it took that value, microseconds
    std::optional<TopCounters> counters = {};  // of a service that lives and shows them

    bool StationOff(std::uint8_t station) const;
};

enum class TopSort : std::uint8_t { Range, Age, Period, State };
enum class TopFilter : std::uint8_t { All, Subscribed, Failing };
inline constexpr std::size_t TopSorts = 4, TopFilters = 3;
inline constexpr const char* TopSortNames[] = {"range", "oldest", "slowest", "state"};
inline constexpr const char* TopFilterNames[] = {"all", "subscribed", "not ok"};

class TopModel
{
public:
    TopModel(std::vector<Target> targets, std::chrono::milliseconds interval);
    void SetInterval(std::chrono::milliseconds interval);
    std::chrono::milliseconds Interval() const { return interval_; }
    std::time_t LookedAt() const { return static_cast<std::time_t>(began_ / 1000000); }

    // Reads everything but the values. To be called every interval, or a little later.
    void Look();
    // The ranges to list. The pointers hold until the next look.
    std::vector<TopRange*> Listed();
    // The stations of the ports that are shown, by their numbers.
    std::vector<TopStation> Stations() const;
    // Reads the value, once a look.
    void ReadValue(TopRange& range);
    // The whole value; nothing unless the range is ok and its region can be read.
    std::optional<voq::Bytes> Value(const TopRange& range) const;
    // "-" for none, "never", "<2 s", "17 s", "5 min".
    std::string AgeText(std::int64_t microseconds) const;

    TopSort sort = TopSort::Range;
    bool reversed = false;
    TopFilter filter = TopFilter::All;
    std::string find;                 // listed are names that contain it
    std::optional<std::size_t> only;  // the port to show; all when absent
    std::vector<TopPort> ports;

private:
    // Ages and periods below two intervals are all the same: of what goes on between two looks, only the end shows.
    std::int64_t LivelyAge() const { return 2 * std::max<std::int64_t>(interval_.count() * 1000, lateness_); }
    void LookAt(std::size_t index);
    void LookAtWatchdog(TopPort& port);
    void LookAtCounters(TopPort& port) const;
    std::int64_t AgeOf(std::int64_t time) const;
    void Refresh(TopRange& range, const OrgNode& node, bool missed);

    std::chrono::milliseconds interval_;
    std::int64_t began_ = 0;     // the last look, microseconds
    std::int64_t apart_ = 0;     // from the one before
    std::int64_t lateness_ = 0;  // how long after the one before, when that was much more than the interval
    unsigned look_ = 0;
};
