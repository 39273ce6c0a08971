// Judges the statistics of a port.
#include "client/troubles.h"

#include <algorithm>
#include <array>
#include <optional>

#include "client/explain.h"
#include "client/register.h"
#include "client/value_text.h"
#include "voq/com_info.h"
#include "voq/plc_driver.h"

namespace voq
{

namespace
{

constexpr std::int64_t Minute = 60000000;

struct Subscribed {
    unsigned ranges = 0;
    unsigned refused = 0;
};
using ByStation = std::array<Subscribed, StatsStations>;

ByStation CountRanges(const std::vector<StatsRange>& rows)
{
    ByStation counts = {};
    for (const StatsRange& row : rows) {
        if ((row.flags & STATS_RANGE_SUBSCRIBED) == 0) continue;
        ++counts[row.key.plcno].ranges;
        if ((row.flags & STATS_RANGE_REFUSED) != 0) ++counts[row.key.plcno].refused;
    }
    return counts;
}

std::optional<Trouble> OfMainLoop(const Heartbeat& heartbeat)
{
    const std::string what = HeartbeatText(heartbeat);
    switch (heartbeat.beat) {
        case Beat::Beats:
            return std::nullopt;
        case Beat::Lock:
            return Trouble{Trouble::Kind::Lock, {}, what + ": end that process, the service goes on at once"};
        case Beat::Driver:
            return Trouble{Trouble::Kind::Hang, {}, "the service " + what + ": start it again"};
        case Beat::Unknown:
            break;
    }
    return Trouble{Trouble::Kind::Hang, {}, "the main loop " + what + ": start the service again"};
}

std::string Station(std::uint8_t number)
{
    return "station " + std::to_string(number);
}

// What a station's last call says, when it failed.
std::string FailureText(const StatsStation& station, std::uint8_t number, std::int64_t now, std::int64_t started)
{
    const bool timeOut = station.lastBadResult == PLC_DRV_TIMEOUT;
    const std::string off = " (t in voqctl top switches it off meanwhile)";
    if (station.lastGood == 0) {
        const std::string since = " since the service started " + AgeText(now - started) + " ago: ";
        return Station(number) + (timeOut ? " has never answered in time" + since +
                                                "is it there, is its number right? The log says when it is slow" + off
                                          : " could never be read" + since + "the log says what it is");
    }
    const std::string age = " for " + AgeText(now - station.lastGood) + ": ";
    return Station(number) + (timeOut ? " has not answered in time" + age + "see to its power and its cable" + off
                                      : " has failed" + age + "see to its cable; the log says what it is");
}

// Where the PLC is, as far as the port's record tells.
std::string Place(const ComInfoRecord& port)
{
    if (port.linkType != LINK_ETHERNET) return "at the other end of the line";
    const std::uint32_t address = port.baudOrAddress;
    return "at " + std::to_string(address >> 24) + "." + std::to_string(address >> 16 & 255) + "." +
           std::to_string(address >> 8 & 255) + "." + std::to_string(address & 255);
}

class Judge
{
public:
    Judge(const Statistics& statistics, const std::vector<std::uint8_t>& off, std::int64_t now)
        : statistics_(statistics), off_(off), now_(now), subscribed_(CountRanges(statistics.ranges))
    {
    }

    void Stations(std::vector<Trouble>& troubles) const
    {
        const std::vector<std::uint8_t> failing = Failing();
        if (const std::string all = Link(failing); !all.empty()) {
            troubles.push_back({Trouble::Kind::Link, failing, all});
            return;
        }
        for (const std::uint8_t number : failing) {
            const StatsStation& station = statistics_.stations[number];
            troubles.push_back(
                {Trouble::Kind::Station, {number}, FailureText(station, number, now_, statistics_.header.started)});
        }
        for (std::size_t number = 0; number < StatsStations; ++number) {
            if (subscribed_[number].refused != 0) troubles.push_back(Refusing(static_cast<std::uint8_t>(number)));
        }
    }

private:
    std::vector<std::uint8_t> Failing() const
    {
        std::vector<std::uint8_t> failing;
        for (std::size_t i = 0; i < StatsStations; ++i) {
            const auto number = static_cast<std::uint8_t>(i);
            if (std::find(off_.begin(), off_.end(), number) == off_.end() && Fails(number)) failing.push_back(number);
        }
        return failing;
    }

    // What is wrong when no station of several can be reached: the way to them.
    std::string Link(const std::vector<std::uint8_t>& failing) const
    {
        std::int64_t lastGood = 0;
        for (const StatsStation& station : statistics_.stations) lastGood = std::max(lastGood, station.lastGood);
        for (const std::uint8_t number : failing) {
            const StatsStation& station = statistics_.stations[number];
            if (station.lastBadResult == PLC_DRV_TIMEOUT || station.lastBad < lastGood) return "";
        }
        if (failing.size() < 2) return "";
        return "none of the " + std::to_string(failing.size()) + " stations can be reached " +
               Place(statistics_.port.comInfo) +
               (lastGood == 0
                    ? ", and none was since the service started " + AgeText(now_ - statistics_.header.started) + " ago"
                    : " for " + AgeText(now_ - lastGood)) +
               ": is that the right place, is it on? The log says what it is";
    }

    Trouble Refusing(std::uint8_t number) const
    {
        std::string first;
        for (const StatsRange& row : statistics_.ranges) {
            constexpr std::uint32_t Both = STATS_RANGE_SUBSCRIBED | STATS_RANGE_REFUSED;
            if (row.key.plcno != number || (row.flags & Both) != Both || !first.empty()) continue;
            first = Expression({row.key, TypeOfSize(RegElemSize(&row.key))});
        }
        return {Trouble::Kind::Refused,
                {number},
                Station(number) + " refuses " + std::to_string(subscribed_[number].refused) + " of its " +
                    std::to_string(subscribed_[number].ranges) + " subscribed range(s), " + first +
                    ": does it have these registers? voqctl explain names each"};
    }

    bool Fails(std::uint8_t number) const
    {
        const StatsStation& station = statistics_.stations[number];
        const bool wanted = subscribed_[number].ranges != 0 || now_ - station.lastBad < Minute;
        return wanted && station.lastBad > station.lastGood;
    }

    const Statistics& statistics_;
    const std::vector<std::uint8_t>& off_;
    std::int64_t now_;
    ByStation subscribed_;
};

}  // namespace

std::vector<Trouble> Troubles(const Statistics& statistics, const Heartbeat& heartbeat,
                              const std::vector<std::uint8_t>& stationsOff, std::int64_t now)
{
    std::vector<Trouble> troubles;
    if (const auto trouble = OfMainLoop(heartbeat)) troubles.push_back(*trouble);
    if (statistics.port.driver == 0) {
        troubles.push_back({Trouble::Kind::Driver,
                            {},
                            "no driver is loaded, so that nothing reaches the PLC: put it where the service's log says "
                            "(dlopen), and start the service again"});
    }
    Judge(statistics, stationsOff, now).Stations(troubles);
    for (const Advice& advice : Explain(statistics, stationsOff).advice) {
        if (advice.kind == Advice::Kind::TimeOut) troubles.push_back({Trouble::Kind::Slow, {}, advice.text});
    }
    return troubles;
}

}  // namespace voq
