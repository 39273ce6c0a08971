// Judges the statistics of a port.
#include "client/troubles.h"

#include <algorithm>
#include <array>

#include "client/explain.h"
#include "client/value_text.h"
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
        return Station(number) + (timeOut ? " has never answered" + since + "is it there, is its number right?" + off
                                          : " could never be reached" + since + "see the port's address and the log");
    }
    const std::string age = " for " + AgeText(now - station.lastGood) + ": ";
    return Station(number) + (timeOut ? " has not answered" + age + "see to its power and its cable" + off
                                      : " has failed" + age + "see to its cable; the log says what it is");
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
        for (std::size_t i = 0; i < StatsStations; ++i) {
            const auto number = static_cast<std::uint8_t>(i);
            if (std::find(off_.begin(), off_.end(), number) != off_.end()) continue;
            if (Fails(number)) {
                const std::string text = FailureText(statistics_.stations[i], number, now_, statistics_.header.started);
                troubles.push_back({Trouble::Kind::Station, number, text});
            } else if (const unsigned refused = subscribed_[i].refused; refused != 0) {
                troubles.push_back({Trouble::Kind::Refused, number,
                                    Station(number) + " refuses " + std::to_string(refused) + " of its " +
                                        std::to_string(subscribed_[i].ranges) +
                                        " subscribed range(s): does its program have these registers? voqctl explain "
                                        "names them"});
            }
        }
    }

private:
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
