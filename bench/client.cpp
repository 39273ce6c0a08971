// What the client library costs the program that uses it, against the real service on the memory file system: following
// 300 ranges, how soon a change is told, opening and closing, and the same through the Python module.
//     client [quick]
#include "voq/client.h"

#include <sys/resource.h>

#include <cstring>
#include <string>

#include "live_service.h"

namespace
{

constexpr int Ranges = 300;
constexpr std::uint8_t PauseMs = 1;
constexpr int IntervalMs = 100;

void Check(int code, voq_port* port)
{
    if (code >= 0) return;
    std::fprintf(stderr, "client: %s\n", port != nullptr ? voq_port_error(port) : voq_strerror(code));
    std::exit(2);
}

voq_port* Open(const LiveService& service, long interval)
{
    voq_port* port = nullptr;
    Check(voq_port_open(service.PortFolder().c_str(), &port, nullptr), nullptr);
    Check(voq_port_set(port, VOQ_BYTE_ORDER, 0), port);
    Check(voq_port_set(port, VOQ_INTERVAL_MS, interval), port);
    return port;
}

std::vector<voq_range*> Subscribe(voq_port* port, int count)
{
    std::vector<voq_range*> ranges;
    for (int i = 0; i < count; ++i) {
        ranges.push_back(nullptr);
        const std::string text = "s1:a1:u16@" + std::to_string(4 * i) + "*2,priority=1";
        Check(voq_range_new(port, text.c_str(), &ranges.back()), port);
        Check(voq_subscribe(ranges.back()), port);
    }
    return ranges;
}

void Drain(voq_port* port)
{
    voq_event event;
    while (voq_port_next_event(port, &event) == 1) continue;
}

// Until the service has read all of them.
void AwaitLive(voq_port* port, const std::vector<voq_range*>& ranges)
{
    const double end = NowUs() + 60e6;
    for (std::size_t live = 0; live < ranges.size();) {
        if (NowUs() > end) Fail("no live values");
        Check(voq_port_wait(port, 1000), port);
        Drain(port);
        live = 0;
        for (const voq_range* range : ranges) {
            voq_reading reading;
            Check(voq_range_reading(range, &reading), port);
            live += reading.live != 0 ? 1 : 0;
        }
    }
}

double CpuUs()
{
    rusage usage = {};
    getrusage(RUSAGE_SELF, &usage);
    const auto us = [](const timeval& time) {
        return static_cast<double>(time.tv_sec) * 1e6 + static_cast<double>(time.tv_usec);
    };
    return us(usage.ru_utime) + us(usage.ru_stime);
}

// Share of a core, in percent, for all values ten times a second; each window some seconds.
std::vector<double> Following(const LiveService& service, int windows, double seconds)
{
    voq_port* const port = Open(service, IntervalMs);
    const auto ranges = Subscribe(port, Ranges);
    AwaitLive(port, ranges);
    std::vector<double> shares;
    for (int window = 0; window < windows; ++window) {
        const double cpu = CpuUs(), begin = NowUs();
        while (NowUs() < begin + seconds * 1e6) {
            Check(voq_port_wait(port, IntervalMs), port);
            Drain(port);
            double values[2], sum = 0;
            for (const voq_range* range : ranges) {
                Check(voq_range_values(range, values, 2), port);
                sum += values[0];
            }
            // The next change is of interest when the interval is over.
            const double left =
                IntervalMs * 1e3 - static_cast<double>(static_cast<long>(NowUs() - begin) % (IntervalMs * 1000));
            if (sum >= 0) usleep(static_cast<useconds_t>(left));
        }
        shares.push_back(100 * (CpuUs() - cpu) / (NowUs() - begin));
    }
    voq_port_close(port);
    return shares;
}

// Milliseconds from a value's change in the PLC until a waiting client has it; and from one poll of it to the next.
void Telling(const LiveService& service, int changes, std::vector<double>& told, std::vector<double>& turns)
{
    voq_port* const port = Open(service, 0);
    const auto ranges = Subscribe(port, 1);
    AwaitLive(port, ranges);
    std::uint8_t* const value = service.Sim().registers[1][1];
    for (int i = 0; i < changes; ++i) {
        usleep(static_cast<useconds_t>(20000 + i * 7919 % 10000));
        Check(voq_port_dispatch(port), port);
        Drain(port);
        const std::uint32_t before = service.Sim().logged;
        const auto next = static_cast<std::uint8_t>(i % 250 + 1);
        const double begin = NowUs();
        *value = next;
        voq_reading reading = {};
        do {
            Check(voq_port_wait(port, 5000), port);
            Drain(port);
            Check(voq_range_reading(ranges[0], &reading), port);
        } while (*static_cast<const std::uint8_t*>(reading.data) != next);
        told.push_back((NowUs() - begin) / 1000);
        const auto calls = service.CallsSince(before > 2 ? before - 2 : before);
        if (calls.size() > 1) turns.push_back(static_cast<double>(calls[1].startUs - calls[0].startUs) / 1000);
    }
    voq_port_close(port);
}

// Kilobytes that the process has grown by, after as many cycles as before.
double Cycles(const LiveService& service, int cycles)
{
    const auto resident = [] {
        long pages = 0, ignored = 0;
        std::FILE* const file = std::fopen("/proc/self/statm", "r");
        if (file == nullptr || std::fscanf(file, "%ld %ld", &ignored, &pages) != 2) Fail("statm");
        std::fclose(file);
        return static_cast<double>(pages) * 4;
    };
    const auto cycle = [&] {
        voq_port* const port = Open(service, 0);
        Subscribe(port, 1);
        Check(voq_port_dispatch(port), port);
        voq_port_close(port);
    };
    for (int i = 0; i < cycles / 10; ++i) cycle();
    const double before = resident();
    for (int i = 0; i < cycles; ++i) cycle();
    return resident() - before;
}

}  // namespace

int main(int argc, char** argv)
{
    const bool quick = argc > 1 && std::strcmp(argv[1], "quick") == 0;
    const Report report;
    const LiveService service(PauseMs, true);
    report.Figure("client following", Ranges, "%", Following(service, quick ? 2 : 7, quick ? 1 : 3));
    std::vector<double> told, turns;
    Telling(service, quick ? 20 : 300, told, turns);
    report.Figure("client told", 1, "ms", told);
    report.Figure("client turn", 1, "ms", turns);
    std::vector<double> python;
    const std::string command = std::string("/usr/bin/python3 ") + VOQ_PYTHON_READER + " " + service.PortFolder();
    setenv("VOQ_CLIENT_LIBRARY", VOQ_LIBRARY, 1);
    std::FILE* const reader = popen(command.c_str(), "r");
    for (double sample = 0; reader != nullptr && std::fscanf(reader, "%lf", &sample) == 1;) python.push_back(sample);
    if (reader == nullptr || pclose(reader) != 0) Fail("the Python reader");
    report.Figure("client python", Ranges, "ms", python);
    const int cycles = quick ? 100 : 10000;
    report.Figure("client growth", cycles, "kB", {Cycles(service, cycles)});
    return 0;
}
