// "voqctl explain": how the subscribed ranges are polled, and what would make that faster. Main thread; only reads.
#include <algorithm>
#include <cstdio>

#include "client/explain.h"
#include "client/fifo.h"
#include "client/station_off.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "voq/reg_range.h"
#include "voq/rt_item.h"

namespace
{

std::vector<std::uint8_t> Off(std::uint16_t port)
{
    try {
        return voq::StationsOff(port);
    } catch (const voq::Error&) {
        return {};  // the panel's own file
    }
}

const char* Many(unsigned count, const char* one, const char* many)
{
    return count == 1 ? one : many;
}

void PrintRead(const voq::RangeExplained& range, std::uint32_t reads)
{
    std::printf("    travels in read %u", range.read);
    if (range.read <= reads) std::printf(" of %u", reads);
    std::printf(": %u %s, ", range.width, Many(range.width, "element", "elements"));
    if (range.others == 0) {
        std::printf("alone");
    } else {
        std::printf("with %u %s", range.others, Many(range.others, "other range", "other ranges"));
    }
    if (range.gaps != 0) std::printf(", %u of them wanted by none", range.gaps);
    std::printf("\n");
}

std::string AchievedText(const voq::RangeExplained& range)
{
    if (range.stationOff) return "not read: its station is switched off";
    if (range.refusedSince != 0) return "not read: the device refuses it";
    if (range.result > 1) {
        const std::string failed = range.result == PLC_TIMEOUT ? "no answer in time" : "it fails";
        return failed + (range.achieved == 0 ? "" : ", tried every " + voq::DurationText(range.achieved));
    }
    return range.achieved == 0 ? "not read twice yet" : "read every " + voq::DurationText(range.achieved);
}

void PrintRange(const Target& target, const std::string& name, const voq::RangeExplained& range, std::uint32_t reads)
{
    std::printf("%s: asked for %s, %s\n", Printable(name).c_str(), voq::PeriodText(range.asked).c_str(),
                AchievedText(range).c_str());
    if (range.read != 0 && range.refusedSince == 0) PrintRead(range, reads);
    if (range.refusedSince != 0) {
        std::printf("    refused since %s; it is tried again ever more rarely, at the longest after an hour\n",
                    IsoTime(range.refusedSince * 1000000).c_str());
    }
    if (range.apartFrom) {
        std::printf("    never read together with %s: the device has refused that\n",
                    Printable(SelectedOf(target, *range.apartFrom).name).c_str());
    }
}

void PrintRound(const voq::RoundExplained& round)
{
    std::printf("a round of %u %s takes %s: %u %s of %s and pauses of %s", round.ranges,
                Many(round.ranges, "range", "ranges"), voq::DurationText(round.length).c_str(), round.reads,
                Many(round.reads, "read", "reads"),
                voq::DurationText(round.reads == 0 ? 0 : round.driver / round.reads).c_str(),
                voq::DurationText(round.pauses).c_str());
    if (round.lost != 0) std::printf("; %s of it is lost in time-outs", voq::DurationText(round.lost).c_str());
    if (round.lost != 0 && round.lostStation) std::printf(", most for station %u", *round.lostStation);
    std::printf("\n");
}

void PrintAdvice(const std::vector<voq::Advice>& advice)
{
    for (const voq::Advice& one : advice) {
        const std::string saves = one.saves == 0 ? "" : ", saves " + voq::DurationText(one.saves) + " of it";
        std::printf("would help: %s%s\n", one.text.c_str(), saves.c_str());
    }
}

Cell Microseconds(std::uint64_t us)
{
    return us == 0 ? Cell{} : Cell::Seconds(static_cast<std::int64_t>(us));
}

Row RangeRow(const Target& target, const voq::RangeExplained& range)
{
    const Selected selected = SelectedOf(target, range.key);
    const bool read = range.read != 0;
    Row row;
    row.emplace_back("kind", Cell::Text("range"));
    row.emplace_back("name", Cell::Text(selected.name));
    row.emplace_back("port", Cell::Number(range.key.portno));
    row.emplace_back("station", Cell::Number(range.key.plcno));
    row.emplace_back("expression", Cell::Text(voq::Expression(selected.reg)));
    row.emplace_back("asked_s", Cell::Seconds(range.asked));
    row.emplace_back("achieved_s", Microseconds(range.achieved));
    row.emplace_back("read", read ? Cell::Number(range.read) : Cell{});
    row.emplace_back("elements", read ? Cell::Number(range.width) : Cell{});
    row.emplace_back("gaps", read ? Cell::Number(range.gaps) : Cell{});
    row.emplace_back("others", read ? Cell::Number(range.others) : Cell{});
    row.emplace_back("station_off", Cell::Flag(range.stationOff));
    row.emplace_back("refused_since",
                     range.refusedSince == 0 ? Cell{} : Cell::Text(IsoTime(range.refusedSince * 1000000)));
    row.emplace_back("apart_from", range.apartFrom ? Cell::Text(SelectedOf(target, *range.apartFrom).name) : Cell{});
    return row;
}

void WriteRows(const Target& target, const voq::PortExplained& port, const std::vector<voq::RangeExplained>& ranges)
{
    RowWriter writer(RowForm::Json);
    for (const voq::RangeExplained& range : ranges) writer.Write(RangeRow(target, range));
    if (!port.polled) return;
    const voq::RoundExplained& round = port.round;
    writer.Write({{"kind", Cell::Text("round")},
                  {"reads", Cell::Number(round.reads)},
                  {"ranges", Cell::Number(round.ranges)},
                  {"length_s", Cell::Seconds(round.length)},
                  {"driver_s", Cell::Seconds(round.driver)},
                  {"pauses_s", Cell::Seconds(round.pauses)},
                  {"lost_s", Cell::Seconds(round.lost)},
                  {"lost_station", round.lostStation ? Cell::Number(*round.lostStation) : Cell{}}});
    for (const voq::Advice& advice : port.advice) {
        writer.Write({{"kind", Cell::Text("advice")},
                      {"text", Cell::Text(advice.text)},
                      {"saves_s", Microseconds(advice.saves)}});
    }
}

// The subscribed ranges that are meant. Throws UsageError for one that nobody has subscribed.
std::vector<voq::RangeExplained> Meant(const Target& target, const voq::PortExplained& port,
                                       const SelectOptions& select)
{
    if (select.what.empty() && !select.all) return port.ranges;
    std::vector<voq::RangeExplained> meant;
    for (const Selected& selected : Select(target, select)) {
        const auto found = std::find_if(port.ranges.begin(), port.ranges.end(), [&](const voq::RangeExplained& range) {
            return SameRange(range.key, selected.reg.key);
        });
        if (found != port.ranges.end()) {
            meant.push_back(*found);
        } else if (!select.all) {
            Complain(selected.name + ": no client has subscribed it, so it is not polled");
        }
    }
    return meant;
}

}  // namespace

int Explain(const PortOptions& options, const SelectOptions& select, const OutputOptions& output)
{
    const Target target = Resolve(options);
    const auto statistics = voq::ReadStatistics(target.port.Stats());
    if (!statistics) {
        throw voq::Error(target.port.Stats() + ": no statistics; is there a service of this version on the port?");
    }
    if (!voq::FifoHasReader(target.fifo)) Complain("no service runs: this is how the last one polled");
    const voq::PortExplained port = voq::Explain(*statistics, Off(target.port.number));
    const std::vector<voq::RangeExplained> ranges = Meant(target, port, select);
    if (output.rows == RowForm::Json) {
        WriteRows(target, port, ranges);
        return ranges.empty() ? ExitNegative : ExitOk;
    }
    for (const voq::RangeExplained& range : ranges) {
        PrintRange(target, SelectedOf(target, range.key).name, range, port.round.reads);
    }
    if (port.ranges.empty()) std::printf("nothing is subscribed, so nothing is polled\n");
    if (port.polled) PrintRound(port.round);
    PrintAdvice(port.advice);
    return ranges.empty() ? ExitNegative : ExitOk;
}
