// Writes the figures. A metric's samples stand together, behind its help and type.
#include "web/metrics.h"

#include <unistd.h>

#include <charconv>
#include <cstdio>
#include <fstream>
#include <functional>
#include <map>

#include "voq/rt_item.h"
#include "web/views.h"

namespace voq::web
{

namespace
{

constexpr const char* CommandNames[] = {"read", "write"};
constexpr const char* ThreadNames[] = {"main", "gui_intake", "mek_intake", "watchdog"};
constexpr const char* FifoNames[] = {"gui", "mek"};

std::string Escaped(const std::string& text)
{
    std::string escaped;
    for (const char c : text) {
        if (c == '\\' || c == '"') escaped += '\\';
        escaped += c == '\n' ? std::string("\\n") : std::string(1, c);
    }
    return escaped;
}

class Text
{
public:
    void Metric(const char* name, const char* type, const char* help)
    {
        name_ = name;
        out_ += std::string("# HELP ") + name + ' ' + help + "\n# TYPE " + name + ' ' + type + '\n';
    }

    struct Label {
        const char* name;
        std::string value;
    };
    void Sample(const std::vector<Label>& labels, double value, const char* suffix = "")
    {
        out_ += name_ + suffix;
        for (std::size_t i = 0; i < labels.size(); ++i) {
            out_ += std::string(i == 0 ? "{" : ",") + labels[i].name + "=\"" + Escaped(labels[i].value) + '"';
        }
        char number[40];
        const auto end = std::to_chars(number, number + sizeof number, value).ptr;
        out_.append(labels.empty() ? " " : "} ").append(number, end).append("\n");
    }

    std::string Take() { return std::move(out_); }

private:
    std::string name_, out_;
};

double Count(std::uint64_t number)
{
    return static_cast<double>(number);
}

double SecondsOf(std::uint64_t us)
{
    return static_cast<double>(us) / 1e6;
}

using Ports = std::vector<PortView>;

void OfPorts(Text& text, const Ports& ports, const std::function<double(const PortView&)>& value)
{
    for (const PortView& port : ports) text.Sample({{"port", port.name}}, value(port));
}

void OfStatistics(Text& text, const Ports& ports, const std::function<double(const Statistics&)>& value)
{
    for (const PortView& port : ports) {
        if (port.statistics) text.Sample({{"port", port.name}}, value(*port.statistics));
    }
}

void ServiceFigures(Text& text, const Ports& ports)
{
    text.Metric("voq_up", "gauge", "1 while a service serves the port.");
    OfPorts(text, ports, [](const PortView& port) { return port.State() == Service::Away ? 0 : 1; });
    text.Metric("voq_loop_hung", "gauge", "1 while the service's main loop stands still.");
    OfPorts(text, ports, [](const PortView& port) { return port.State() == Service::Hangs ? 1 : 0; });
    text.Metric("voq_link_failing", "gauge", "1 while the marker of a failing link stands.");
    for (const PortView& port : ports) {
        text.Sample({{"port", port.name}, {"kind", "timeout"}}, port.status.timeout);
        text.Sample({{"port", port.name}, {"kind", "comerror"}}, port.status.comerror);
    }
    text.Metric("voq_start_time_seconds", "gauge", "Start of the service, seconds since 1970.");
    OfStatistics(text, ports, [](const Statistics& s) { return static_cast<double>(s.header.started) / 1e6; });
    text.Metric("voq_loop_turns_total", "counter", "Turns of the service's main loop.");
    OfStatistics(text, ports, [](const Statistics& s) { return Count(s.Thread(StatsThreadOf::Main).turns); });
    text.Metric("voq_lock_waits_total", "counter", "Waits of the service for a lock that another process held.");
    for (const PortView& port : ports) {
        for (std::size_t i = 0; port.statistics && i < StatsThreads; ++i) {
            text.Sample({{"port", port.name}, {"thread", ThreadNames[i]}},
                        Count(port.statistics->threads[i].lockWaits));
        }
    }
    text.Metric("voq_lock_wait_seconds_total", "counter",
                "Time that the service has waited for other processes' locks.");
    for (const PortView& port : ports) {
        for (std::size_t i = 0; port.statistics && i < StatsThreads; ++i) {
            text.Sample({{"port", port.name}, {"thread", ThreadNames[i]}},
                        SecondsOf(port.statistics->threads[i].lockTime));
        }
    }
}

void PollingFigures(Text& text, const Ports& ports)
{
    text.Metric("voq_rounds_total", "counter", "Rounds of polling: ways once through all subscribed ranges.");
    OfStatistics(text, ports, [](const Statistics& s) { return Count(s.loop.round.rounds); });
    text.Metric("voq_round_duration_seconds", "gauge", "Length of the last whole round.");
    OfStatistics(text, ports, [](const Statistics& s) { return SecondsOf(s.loop.round.length); });
    text.Metric("voq_round_lost_seconds", "gauge", "Time of the last whole round that time-outs took.");
    OfStatistics(text, ports, [](const Statistics& s) { return SecondsOf(s.loop.round.lostTime); });
    text.Metric("voq_round_reads", "gauge", "Driver reads of the last whole round.");
    OfStatistics(text, ports, [](const Statistics& s) { return s.loop.round.reads; });
    text.Metric("voq_subscribed_ranges", "gauge", "Ranges that clients are subscribed to.");
    OfStatistics(text, ports, [](const Statistics& s) { return s.loop.subscribed; });
}

void RangeFigures(Text& text, const Ports& ports)
{
    text.Metric("voq_ranges", "gauge", "Ranges of the register database by their state.");
    for (const PortView& port : ports) {
        std::map<std::string, unsigned> states;
        for (const char* state : {"ok", "never read", "time-out", "error", "refused", "station off"}) states[state] = 0;
        for (const auto& range : port.ranges) ++states[range->state];
        for (const auto& [state, count] : states) text.Sample({{"port", port.name}, {"state", state}}, count);
    }
    text.Metric("voq_refused_ranges", "gauge", "Subscribed ranges that the device refuses even alone.");
    OfStatistics(text, ports, [](const Statistics& s) {
        unsigned refused = 0;
        for (const StatsRange& row : s.ranges) {
            refused += (row.flags & STATS_RANGE_SUBSCRIBED) != 0 && (row.flags & STATS_RANGE_REFUSED) != 0;
        }
        return refused;
    });
}

void Results(Text& text, const std::vector<Text::Label>& labels, const auto& calls)
{
    const std::pair<const char*, std::uint64_t> results[] = {
        {"ok", calls.ok}, {"timeout", calls.timeouts}, {"error", calls.errors}, {"refused", calls.refused}};
    for (const auto& [name, count] : results) {
        std::vector<Text::Label> all = labels;
        all.push_back({"result", name});
        text.Sample(all, Count(count));
    }
}

using OfCommand = std::function<void(const std::vector<Text::Label>&, const StatsCalls&)>;
void EachCommand(const Ports& ports, const OfCommand& use)
{
    for (const PortView& port : ports) {
        if (!port.statistics) continue;
        const StatsDriver& driver = port.statistics->driver;
        use({{"port", port.name}, {"command", CommandNames[0]}}, driver.reads);
        use({{"port", port.name}, {"command", CommandNames[1]}}, driver.writes);
    }
}

// Every second power of two from 256 us to 16 s.
void Buckets(Text& text, const std::vector<Text::Label>& labels, const StatsCalls& calls)
{
    std::uint64_t below = 0;
    for (std::uint32_t step = 0; step < StatsTimeSteps - 1; ++step) {
        below += calls.answers[step];
        if (step < 8 || step > 24 || step % 2 != 0) continue;
        char bound[40];
        std::snprintf(bound, sizeof bound, "%.6f", SecondsOf(std::uint64_t{1} << step));
        std::vector<Text::Label> all = labels;
        all.push_back({"le", bound});
        text.Sample(all, Count(below), "_bucket");
    }
    const std::uint64_t answers = calls.ok + calls.refused;
    std::vector<Text::Label> all = labels;
    all.push_back({"le", "+Inf"});
    text.Sample(all, Count(answers), "_bucket");
    text.Sample(labels, SecondsOf(calls.answerTime), "_sum");
    text.Sample(labels, Count(answers), "_count");
}

void DriverFigures(Text& text, const Ports& ports)
{
    text.Metric("voq_driver_calls_total", "counter", "Calls of the driver by their result.");
    EachCommand(ports, [&](const auto& labels, const StatsCalls& calls) { Results(text, labels, calls); });
    text.Metric("voq_driver_lost_seconds_total", "counter", "Time of driver calls that ended with a time-out.");
    EachCommand(ports,
                [&](const auto& labels, const StatsCalls& calls) { text.Sample(labels, SecondsOf(calls.lostTime)); });
    text.Metric("voq_driver_answer_duration_seconds", "histogram", "Time of driver calls that the device answered.");
    EachCommand(ports, [&](const auto& labels, const StatsCalls& calls) { Buckets(text, labels, calls); });
}

using OfStation =
    std::function<void(const std::vector<Text::Label>&, const StatsStation&, const PortView&, std::uint8_t)>;
void EachStation(const Ports& ports, const OfStation& use)
{
    for (const PortView& port : ports) {
        for (std::size_t i = 0; port.statistics && i < port.statistics->stations.size(); ++i) {
            const StatsStation& row = port.statistics->stations[i];
            const auto number = static_cast<std::uint8_t>(i);
            if (row.calls != 0) use({{"port", port.name}, {"station", std::to_string(i)}}, row, port, number);
        }
    }
}

void StationFigures(Text& text, const Ports& ports)
{
    text.Metric("voq_station_calls_total", "counter", "Driver calls for a station by their result.");
    EachStation(ports, [&](const auto& labels, const StatsStation& row, auto&, auto) { Results(text, labels, row); });
    text.Metric("voq_station_answer_seconds_total", "counter", "Time of the calls that a station answered.");
    EachStation(ports, [&](const auto& labels, const StatsStation& row, auto&, auto) {
        text.Sample(labels, SecondsOf(row.answerTime));
    });
    text.Metric("voq_station_lost_seconds_total", "counter", "Time of a station's calls that ended with a time-out.");
    EachStation(ports, [&](const auto& labels, const StatsStation& row, auto&, auto) {
        text.Sample(labels, SecondsOf(row.lostTime));
    });
    text.Metric("voq_station_last_answer_timestamp_seconds", "gauge", "Last answer of a station, 0 for none.");
    EachStation(ports, [&](const auto& labels, const StatsStation& row, auto&, auto) {
        text.Sample(labels, static_cast<double>(row.lastGood) / 1e6);
    });
    text.Metric("voq_station_last_failure_timestamp_seconds", "gauge",
                "Last time-out or error of a station, 0 for none.");
    EachStation(ports, [&](const auto& labels, const StatsStation& row, auto&, auto) {
        text.Sample(labels, static_cast<double>(row.lastBad) / 1e6);
    });
    text.Metric("voq_station_dead", "gauge", "1 while a station that is asked does not answer.");
    EachStation(ports, [&](const auto& labels, const StatsStation&, const PortView& port, std::uint8_t number) {
        text.Sample(labels, StateOf(port, number) == StationState::Dead);
    });
    text.Metric("voq_station_switched_off", "gauge", "1 while the operator has switched a station off.");
    EachStation(ports, [&](const auto& labels, const StatsStation&, const PortView& port, std::uint8_t number) {
        text.Sample(labels, StateOf(port, number) == StationState::Off);
    });
}

void RequestFigures(Text& text, const Ports& ports)
{
    const auto each = [&](const std::function<void(std::vector<Text::Label>, const StatsIntake&)>& use) {
        for (const PortView& port : ports) {
            for (std::size_t i = 0; port.statistics && i < StatsIntakes; ++i) {
                use({{"port", port.name}, {"fifo", FifoNames[i]}}, port.statistics->intakes[i]);
            }
        }
    };
    text.Metric("voq_requests_total", "counter",
                "Requests of clients by their kind; of one-shots those that were listed.");
    each([&](const auto& labels, const StatsIntake& intake) {
        const std::pair<const char*, std::uint64_t> kinds[] = {{"log_on", intake.logOns},
                                                               {"log_off", intake.logOffs},
                                                               {"one_shot", intake.listed},
                                                               {"reload", intake.reloads}};
        for (const auto& [kind, count] : kinds) text.Sample({labels[0], labels[1], {"kind", kind}}, Count(count));
    });
    text.Metric("voq_requests_refused_total", "counter", "One-shots that the service did not take.");
    each([&](const auto& labels, const StatsIntake& intake) {
        text.Sample(labels, Count(intake.refused + intake.refusedTimeout));
    });
    text.Metric("voq_request_dropped_bytes_total", "counter", "Bytes of clients that were no request.");
    each([&](const auto& labels, const StatsIntake& intake) { text.Sample(labels, Count(intake.droppedBytes)); });
    text.Metric("voq_answers_total", "counter", "One-shots that were answered, by their result.");
    for (const PortView& port : ports) {
        if (!port.statistics) continue;
        const StatsLoop& loop = port.statistics->loop;
        text.Sample({{"port", port.name}, {"result", "ok"}}, Count(loop.answeredOk));
        text.Sample({{"port", port.name}, {"result", "timeout"}}, Count(loop.answeredTimeout));
        text.Sample({{"port", port.name}, {"result", "error"}}, Count(loop.answeredError));
    }
    text.Metric("voq_requests_waiting", "gauge", "One-shots that wait now.");
    OfStatistics(text, ports, [](const Statistics& s) { return s.loop.listed; });
}

void OwnSamples(Text& text, const OwnFigures& own)
{
    text.Metric("voq_web_readers", "gauge", "Browsers that listen for changes.");
    text.Sample({}, Count(own.readers));
    text.Metric("voq_web_requests_total", "counter", "Requests to this server.");
    text.Sample({}, Count(own.requests));
    text.Metric("voq_web_requests_refused_total", "counter", "Requests to this server that were refused.");
    text.Sample({}, Count(own.refused));
    std::ifstream file("/proc/self/statm");
    std::uint64_t all = 0, resident = 0;
    if (!(file >> all >> resident)) return;
    text.Metric("process_resident_memory_bytes", "gauge", "Resident memory of this server.");
    text.Sample({}, Count(resident * static_cast<std::uint64_t>(sysconf(_SC_PAGESIZE))));
}

}  // namespace

std::string MetricsText(const std::vector<PortView>& ports, const OwnFigures& own)
{
    Text text;
    ServiceFigures(text, ports);
    PollingFigures(text, ports);
    RangeFigures(text, ports);
    DriverFigures(text, ports);
    StationFigures(text, ports);
    RequestFigures(text, ports);
    OwnSamples(text, own);
    return text.Take();
}

}  // namespace voq::web
