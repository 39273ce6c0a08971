// One-shot requests to the real service on the memory file system, in ratios of one run: latency of a read against the
// main loop's turn, throughput against what the budget of a pass allows, the gain of packed reads, and what a flood of
// requests leaves to polling.
//     oneshot [quick]
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

// A turn of an idle port while requests keep it from waiting: its pause, as long as this machine makes it.
double TurnOfIdlePort()
{
    std::vector<double> turns;
    for (int i = 0; i < 101; ++i) {
        const double start = NowUs();
        usleep(1000);
        turns.push_back(NowUs() - start);
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
    // `what` names two figures: the median and the 99th percentile of the latency.
    void Give(const Report& report, const std::string& what, const char* unit) const
    {
        report.Figure((what + " median").c_str(), 0, unit, medians);
        report.Figure((what + " 99%").c_str(), 0, unit, highs);
    }
};

// Nothing subscribed: a turn waits 50 ms more, unless a request comes. In milliseconds.
void IdleLatency(const Report& report, int roundCount)
{
    const LiveService service(1, true);
    Rounds rounds;
    for (int round = 0; round < roundCount; ++round) {
        std::vector<double> latencies;
        for (const Span& span : TimeReads(service, 100, 50e3)) latencies.push_back((span.end - span.start) / 1e3);
        rounds.Add(latencies);
    }
    rounds.Give(report, "one-shot unsubscribed", "ms");
}

// One range subscribed; the turns are counted by its polling reads, each as long as it was.
void PollingLatency(const Report& report, int roundCount)
{
    const LiveService service(1, true);
    Subscribe(service, 1);
    Rounds rounds;
    std::vector<double> turns;
    for (int round = 0; round < roundCount; ++round) {
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
    rounds.Give(report, "one-shot", "turns");
    report.Figure("one-shot turn", 0, "us", {Percentile(turns, 0.5)});
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

void Packing(const Report& report, int bursts)
{
    constexpr std::uint16_t Count = 1000;
    std::vector<double> rates[2], ratios;
    for (const bool packed : {true, false}) {
        const LiveService service(1, packed);
        Subscribe(service, 1);
        service.Sim().delayUs = DelayUs;
        for (int run = 0; run < (packed ? bursts : 2); ++run) {
            const Burst burst = ReadNeighbours(service, Count);
            rates[packed].push_back(burst.perSecond);
            if (packed) ratios.push_back(burst.perRead);
        }
    }
    report.Figure("requests for each packed read", Count, "", ratios);
    report.Figure("packed one-shots", Count, "1/s", rates[1], rates[0]);
}

// Polling reads a second over half a second.
double PollRate(const LiveService& service, const std::function<void(double untilUs)>& client)
{
    const std::uint32_t since = service.Sim().logged;
    client(NowUs() + 500e3);
    const std::vector<double> starts = PollStarts(service.CallsSince(since));
    return static_cast<double>(starts.size() - 1) * 1e6 / (starts.back() - starts.front());
}

// Keeps requests in flight that no driver call can join, every other one a write: with more than the budget waiting,
// each phase of every pass finds all that it may serve.
class Window
{
public:
    Window(const LiveService& service, std::size_t size) : service_(service), size_(size) {}

    void Run(double untilUs)
    {
        while (NowUs() < untilUs) {
            Bytes stream;
            for (; inFlight_ < size_; ++inFlight_, ++sent_) {
                const auto fileno = static_cast<std::uint16_t>(sent_ % 60000 + 1);
                if (sent_ % 2 == 0)
                    AddFrame(stream, RequestCommand::Read, Apart(sent_), fileno);
                else
                    AddFrame(stream, RequestCommand::Write, Apart(sent_), fileno, {1, 2});
            }
            service_.Send(stream);
            const std::size_t answers = service_.TakeAnswers(10).size();
            inFlight_ -= answers;
            answered_ += answers;
        }
    }
    [[nodiscard]] std::size_t Answered() const { return answered_; }

private:
    const LiveService& service_;
    std::size_t size_, inFlight_ = 0, answered_ = 0;
    std::uint32_t sent_ = 0;
};

// What a pass of three turns takes on paper, when it makes `driverCalls` for one-shots; `quietRate` in turns a second.
double PassOnPaperUs(double quietRate, int driverCalls)
{
    const double pass = TurnsPerPass * 1e6 / quietRate + driverCalls * static_cast<double>(DelayUs);
    std::fprintf(stderr,
                 "  on paper: %d turns of %.2f ms and %d driver calls of %.0f ms take %.1f ms, for %d polling reads\n",
                 TurnsPerPass, 1e3 / quietRate, driverCalls, DelayUs / 1e3, pass / 1e3, TurnsPerPass);
    return pass;
}

double QuietRate(const LiveService& service)
{
    return PollRate(service, [](double untilUs) {
        while (NowUs() < untilUs) usleep(1000);
    });
}

void Throughput(const Report& report, const char* what, bool idle, int seconds)
{
    const LiveService service(1, true);
    if (!idle) Subscribe(service, 1);
    service.Sim().delayUs = DelayUs;
    const double quiet = idle ? 1e6 / TurnOfIdlePort() : QuietRate(service);
    const double paper = 2 * PerPhase * 1e6 / PassOnPaperUs(quiet, 2 * PerPhase);
    Window window(service, 200);
    window.Run(NowUs() + 1e6);
    std::vector<double> rates, papers;
    for (int i = 0; i < seconds; ++i) {
        const std::size_t before = window.Answered();
        const double start = NowUs();
        window.Run(start + 1e6);
        rates.push_back(static_cast<double>(window.Answered() - before) * 1e6 / (NowUs() - start));
        papers.push_back(paper);
    }
    report.Figure(what, 200, "1/s", rates, papers);
}

// Polling reads a second under a load, and on paper.
void PollingUnder(const Report& report, const char* what, const LiveService& service, int driverCalls, double quietRate,
                  int rounds, const std::function<void(double)>& client)
{
    const double paper = TurnsPerPass * 1e6 / PassOnPaperUs(quietRate, driverCalls);
    std::vector<double> rates;
    client(NowUs() + 1e6);
    for (int i = 0; i < rounds; ++i) rates.push_back(PollRate(service, client));
    const std::vector<double> papers(rates.size(), paper);
    report.Figure(what, 0, "1/s", rates, papers);
}

void Flood(const Report& report, int rounds)
{
    const LiveService service(1, true);
    Subscribe(service, 10);
    service.Sim().delayUs = DelayUs;
    const double quiet = QuietRate(service);
    Window window(service, 900);
    PollingUnder(report, "polling reads, 900 one-shots in flight", service, 2 * PerPhase, quiet, rounds,
                 [&window](double untilUs) { window.Run(untilUs); });

    // Reads sent as fast as the service takes them in: most of them are refused.
    std::atomic<bool> stop = false;
    std::thread sender([&] {
        for (std::uint32_t sent = 0; !stop;) {
            Bytes stream;
            for (int i = 0; i < 50; ++i, ++sent) {
                AddFrame(stream, RequestCommand::Read, Apart(sent), static_cast<std::uint16_t>(sent % 60000 + 1));
            }
            service.Send(stream);
        }
    });
    PollingUnder(report, "polling reads, one-shots without a pause", service, PerPhase, quiet, rounds,
                 [&service](double untilUs) {
                     while (NowUs() < untilUs) static_cast<void>(service.TakeAnswers(1));
                 });
    stop = true;
    sender.join();
}

// Before whatever else the machine does, services started from now on included; what is not permitted stays as it is.
void GoFirst(bool realTime)
{
    const sched_param priority{realTime ? 1 : 0};
    const bool first = setpriority(PRIO_PROCESS, 0, -20) == 0 &&
                       sched_setscheduler(0, realTime ? SCHED_FIFO : SCHED_OTHER, &priority) == 0;
    if (!first) std::fputs("no right to a higher priority: the machine's other load shows\n", stderr);
}
}  // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::strcmp(argv[1], "quick") == 0;
    signal(SIGPIPE, SIG_IGN);
    const Report report;
    GoFirst(true);
    PollingLatency(report, quick ? 2 : 7);
    if (!quick) IdleLatency(report, 3);
    GoFirst(false);
    Throughput(report, "one-shots in flight", false, quick ? 1 : 5);
    Throughput(report, "one-shots in flight, idle port", true, quick ? 1 : 5);
    Packing(report, quick ? 1 : 9);
    if (!quick) Flood(report, 6);
}
