// One-shot requests to the real service on the memory file system, in ratios of one run: latency of a read against the
// main loop's turn, the gain of packed reads, and what a flood of requests leaves to polling. Prints what was measured
// and how; fails when a limit is missed.
#include <sched.h>
#include <sys/resource.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <random>
#include <thread>

#include "live_service.h"

namespace
{
constexpr double LatencyTurns = 4;    // at the 99th percentile, most
constexpr double FewerReads = 8;      // requests for each driver read, least
constexpr double Throughput = 5;      // packed against unpacked, least
constexpr double ShareOfPaper = 0.5;  // of the refresh rate that the pass budget leaves, least
constexpr int TurnsPerPass = 3;
constexpr int PerPhase = 4;  // requests that one phase of a pass serves on a panel
constexpr std::uint8_t PollStation = 7;
constexpr std::uint32_t DelayUs = 2000;

double Percentile(std::vector<double> samples, double part)
{
    std::ranges::sort(samples);
    const double rank = part * static_cast<double>(samples.size());
    return samples[std::min(samples.size() - 1, static_cast<std::size_t>(rank))];
}

// Subscribes ranges that no read can join, and waits until they are polled.
void Subscribe(const LiveService& service, int ranges)
{
    Bytes stream;
    for (int i = 0; i < ranges; ++i) {
        AddFrame(stream, RequestCommand::LogOn, Words(PollStation, 1, 200u * static_cast<unsigned>(i)),
                 static_cast<std::uint16_t>(60001 + i));
    }
    service.Send(stream);
    Await([&] { return service.Sim().logged > 20; }, "no polling");
}

std::vector<double> PollStarts(const std::vector<SimCall>& calls)
{
    std::vector<double> starts;
    for (const SimCall& call : calls) {
        if (call.command == SIM_RDONE && call.plcno == PollStation) starts.push_back(static_cast<double>(call.startUs));
    }
    return starts;
}

// A place that no other request in flight shares a driver read with.
RegKey Apart(std::uint32_t n)
{
    return Words(static_cast<std::uint8_t>(n % 6), static_cast<std::uint16_t>(n / 6 % 4), n / 24 % 300 * 100);
}

// Eight reads that no driver call can join take two passes: the fifth begins three turns after the first.
double TurnOfIdlePort(const LiveService& service)
{
    std::vector<double> turns;
    for (int round = 0; round < 11; ++round) {
        const std::uint32_t since = service.Sim().logged;
        Bytes stream;
        for (std::uint16_t i = 0; i < 2 * PerPhase; ++i) AddFrame(stream, RequestCommand::Read, Apart(i), i + 1u);
        service.Send(stream);
        std::size_t answered = 0;
        Await([&] { return (answered += service.TakeAnswers(1).size()) == 2 * PerPhase; }, "reads without an answer");
        const std::vector<SimCall> calls = service.CallsSince(since);
        turns.push_back(static_cast<double>(calls[PerPhase].startUs - calls[0].startUs) / TurnsPerPass);
    }
    return Percentile(turns, 0.5);
}

// Where in the run of turns a moment lies: turns since the first polling read, each as long as it was.
double TurnAt(const std::vector<double>& polls, double when)
{
    const auto next = std::ranges::upper_bound(polls, when);
    if (next == polls.begin() || next == polls.end()) Fail("a moment without polling around it");
    return static_cast<double>(next - polls.begin() - 1) + (when - next[-1]) / (*next - next[-1]);
}

struct Span {
    double start, end;
};

// From the write into the FIFO to the complete result file; reads sent at any moment of a pass and the turns behind it.
std::vector<Span> TimeReads(const LiveService& service, int samples, double turn)
{
    static std::mt19937 random(1);
    std::vector<Span> spans;
    for (int i = 0; i < samples; ++i) {
        usleep(static_cast<useconds_t>(random() % static_cast<unsigned>(TurnsPerPass * turn)));
        Bytes stream;
        AddFrame(stream, RequestCommand::Read, Apart(static_cast<unsigned>(i)), static_cast<std::uint16_t>(i + 1));
        const double start = NowUs();
        service.Send(stream);
        const auto answers = service.TakeAnswers(5000);
        if (answers.size() != 1 || answers[0].item.result != PLC_SUCCESS) Fail("a read without its answer");
        spans.push_back({start, answers[0].whenUs});
    }
    return spans;
}

// In rounds, so that a moment in which the machine was busy with something else does not decide.
struct Rounds {
    std::vector<double> medians, highs;

    void Add(const std::vector<double>& latencies)
    {
        medians.push_back(Percentile(latencies, 0.5));
        highs.push_back(Percentile(latencies, 0.99));
    }
    [[nodiscard]] bool Report(const char* what, double turnUs) const
    {
        const double high = Percentile(highs, 0.5);
        std::printf(
            "one-shot read, %s; turn %.3f ms; latency in turns: median %.2f, 99%% %.2f (%zu rounds: %.2f to %.2f; "
            "limit %.0f turns, the driver read counted as none)\n",
            what, turnUs / 1000, Percentile(medians, 0.5), high, highs.size(), Percentile(highs, 0),
            Percentile(highs, 1), LatencyTurns);
        return high <= LatencyTurns;
    }
};

bool IdleLatency()
{
    const LiveService service(1, true);
    const double turn = TurnOfIdlePort(service);
    Rounds rounds;
    for (int round = 0; round < 3; ++round) {
        std::vector<double> latencies;
        for (const Span& span : TimeReads(service, 100, turn)) latencies.push_back((span.end - span.start) / turn);
        rounds.Add(latencies);
    }
    return rounds.Report("idle port, which waits 50 ms a turn (a third of the time between two passes)", turn);
}

bool PollingLatency()
{
    const LiveService service(1, true);
    Subscribe(service, 1);
    Rounds rounds;
    std::vector<double> turns;
    for (int round = 0; round < 7; ++round) {
        const std::uint32_t since = service.Sim().logged;
        usleep(50000);
        const std::vector<Span> spans = TimeReads(service, 400, 1000);
        usleep(50000);
        const std::vector<double> polls = PollStarts(service.CallsSince(since));
        turns.push_back((polls.back() - polls.front()) / static_cast<double>(polls.size() - 1));
        std::vector<double> latencies;
        for (const Span& span : spans) latencies.push_back(TurnAt(polls, span.end) - TurnAt(polls, span.start));
        rounds.Add(latencies);
    }
    return rounds.Report("one range polled (turns counted by its polling reads)", Percentile(turns, 0.5));
}

struct Burst {
    double perSecond, perRead;
};

// `count` reads of neighbouring words, all listed when the main loop goes on.
Burst ReadNeighbours(const LiveService& service, std::uint16_t count)
{
    service.Hold();
    Bytes stream;
    for (std::uint16_t i = 0; i < count; ++i) AddFrame(stream, RequestCommand::Read, Words(1, 1, i), i + 1u);
    service.Send(stream);
    service.Release();
    const std::uint32_t since = service.Sim().logged;
    const double start = NowUs();
    double last = start;
    for (std::size_t answered = 0; answered < count;) {
        const auto answers = service.TakeAnswers(20000);
        if (answers.empty()) Fail("reads without an answer");
        for (const auto& answer : answers) {
            if (answer.item.result != PLC_SUCCESS) Fail("a read that failed");
            last = answer.whenUs;
        }
        answered += answers.size();
    }
    const auto calls = service.CallsSince(since);
    const auto reads = std::ranges::count_if(calls, [](const SimCall& call) { return call.plcno != PollStation; });
    return {count * 1e6 / (last - start), static_cast<double>(count) / static_cast<double>(reads)};
}

bool Packing()
{
    constexpr std::uint16_t Count = 1000;
    std::vector<double> rates[2], ratios;
    for (const bool packed : {true, false}) {
        const LiveService service(1, packed);
        Subscribe(service, 1);
        service.Sim().delayUs = DelayUs;
        for (int run = 0; run < (packed ? 9 : 2); ++run) {
            const Burst burst = ReadNeighbours(service, Count);
            rates[packed].push_back(burst.perSecond);
            if (packed) ratios.push_back(burst.perRead);
        }
    }
    const double gain = Percentile(rates[1], 0.5) / Percentile(rates[0], 0.5);
    const double fewest = Percentile(ratios, 0);
    std::printf(
        "%d reads in flight, driver delay 2 ms: %.1f requests for each driver read (limit %.0f); packed %.0f "
        "a second (%.0f to %.0f), unpacked %.0f (%.0f to %.0f), ratio %.1f (limit %.0f)\n",
        Count, fewest, FewerReads, Percentile(rates[1], 0.5), Percentile(rates[1], 0), Percentile(rates[1], 1),
        Percentile(rates[0], 0.5), Percentile(rates[0], 0), Percentile(rates[0], 1), gain, Throughput);
    return fewest >= FewerReads && gain >= Throughput;
}

// Polling reads a second over half a second.
double PollRate(const LiveService& service, const std::function<void(double untilUs)>& client)
{
    const std::uint32_t since = service.Sim().logged;
    client(NowUs() + 500e3);
    const std::vector<double> starts = PollStarts(service.CallsSince(since));
    return static_cast<double>(starts.size() - 1) * 1e6 / (starts.back() - starts.front());
}

// Keeps 900 requests in flight, every other one a write: each phase of every pass finds more than it may serve.
class Window
{
public:
    explicit Window(const LiveService& service) : service_(service) {}

    void Run(double untilUs)
    {
        while (NowUs() < untilUs) {
            Bytes stream;
            for (; inFlight_ < 900; ++inFlight_, ++sent_) {
                const auto fileno = static_cast<std::uint16_t>(sent_ % 60000 + 1);
                if (sent_ % 2 == 0)
                    AddFrame(stream, RequestCommand::Read, Apart(sent_), fileno);
                else
                    AddFrame(stream, RequestCommand::Write, Apart(sent_), fileno, {1, 2});
            }
            service_.Send(stream);
            inFlight_ -= service_.TakeAnswers(10).size();
        }
    }

private:
    const LiveService& service_;
    std::uint32_t sent_ = 0;
    std::size_t inFlight_ = 0;
};

bool Report(const char* what, const LiveService& service, int driverCalls, double quietRate,
            const std::function<void(double)>& client)
{
    constexpr int Ranges = 10;
    std::vector<double> rates;
    client(NowUs() + 1e6);
    for (int i = 0; i < 6; ++i) rates.push_back(PollRate(service, client));
    const double turn = 1e3 / quietRate, calls = driverCalls * DelayUs / 1000.0;
    const double paper = TurnsPerPass * 1e3 / (TurnsPerPass * turn + calls);
    const double measured = Percentile(rates, 0.5), share = measured / paper;
    std::printf(
        "%s: on paper %d turns of %.2f ms and %d driver calls of 2 ms take %.1f ms for %d polling reads: %.1f "
        "refreshes of %d ranges a second; measured %.1f (%.1f to %.1f), share %.2f (limit %.2f)\n",
        what, TurnsPerPass, turn, driverCalls, TurnsPerPass * turn + calls, TurnsPerPass, paper / Ranges, Ranges,
        measured / Ranges, Percentile(rates, 0) / Ranges, Percentile(rates, 1) / Ranges, share, ShareOfPaper);
    return share >= ShareOfPaper;
}

bool Flood()
{
    const LiveService service(1, true);
    Subscribe(service, 10);
    service.Sim().delayUs = DelayUs;
    const double quiet = PollRate(service, [](double untilUs) {
        while (NowUs() < untilUs) usleep(1000);
    });
    std::printf("refresh of 10 ranges without requests: %.1f a second\n", quiet / 10);
    Window window(service);
    const bool reached = Report("900 requests in flight", service, 2 * PerPhase, quiet,
                                [&window](double untilUs) { window.Run(untilUs); });

    // Reads sent as fast as the service takes them in: most of them are refused.
    std::atomic<bool> stop = false;
    std::atomic<std::uint32_t> sent = 0;
    std::thread sender([&] {
        while (!stop) {
            Bytes stream;
            for (int i = 0; i < 50; ++i, ++sent) {
                AddFrame(stream, RequestCommand::Read, Apart(sent), static_cast<std::uint16_t>(sent % 60000 + 1));
            }
            service.Send(stream);
        }
    });
    const double start = NowUs();
    const bool kept = Report("reads without a pause", service, PerPhase, quiet, [&service](double untilUs) {
        while (NowUs() < untilUs) static_cast<void>(service.TakeAnswers(1));
    });
    std::printf("  (%.0f reads a second sent)\n", sent * 1e6 / (NowUs() - start));
    stop = true;
    sender.join();
    return reached && kept;
}

// Before whatever else the machine does, services started from now on included; what is not permitted stays as it is.
void GoFirst(bool realTime)
{
    const sched_param priority{realTime ? 1 : 0};
    const bool first = setpriority(PRIO_PROCESS, 0, -20) == 0 &&
                       sched_setscheduler(0, realTime ? SCHED_FIFO : SCHED_OTHER, &priority) == 0;
    if (!first) std::puts("no right to a higher priority: the machine's other load shows");
}
}  // namespace

int main()
{
    signal(SIGPIPE, SIG_IGN);
    std::setvbuf(stdout, nullptr, _IOLBF, 0);
    GoFirst(true);
    bool reached = PollingLatency();
    reached = IdleLatency() && reached;
    GoFirst(false);
    reached = Packing() && reached;
    reached = Flood() && reached;
    return reached ? 0 : 1;
}
