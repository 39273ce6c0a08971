// What a user would write instead of the service, and the floors of its running costs. Runs until it is killed.
//     loop poll FOLDER RANGES LIMIT PERIOD_MS PAUSE_MS locks|open DRIVER|PORT
//         reads one-word registers, LIMIT in a request, a refresh every PERIOD_MS (0: at once) with PAUSE_MS behind
//         each request, and makes the service's file changes in FOLDER
//     loop wait MS...
//         waits the one, then the other
#include <algorithm>
#include <cctype>
#include <cstring>

#include "word_sources.h"

namespace
{
// Reads, then waits as the service's main loop does behind every read.
class Paused final : public WordSource
{
public:
    Paused(std::unique_ptr<WordSource> source, unsigned pauseMs) : source_(std::move(source)), pauseMs_(pauseMs) {}
    void Read(std::uint32_t addr, std::uint16_t count, unsigned char* values) override
    {
        source_->Read(addr, count, values);
        if (pauseMs_ > 0) usleep(pauseMs_ * 1000);
    }

private:
    std::unique_ptr<WordSource> source_;
    unsigned pauseMs_;
};

std::unique_ptr<WordSource> SourceOf(const char* text)
{
    if (std::isdigit(text[0]) != 0) return std::make_unique<ModbusSource>(std::atoi(text));
    return std::make_unique<DriverSource>(LoadDriver(text));
}

void Poll(char** argv)
{
    const double period = 1e3 * std::atoi(argv[3]);
    Paused source(SourceOf(argv[6]), static_cast<unsigned>(std::atoi(argv[4])));
    BarePolling polling(argv[0], static_cast<std::size_t>(std::atoi(argv[1])), std::strcmp(argv[5], "locks") == 0);
    for (double next = NowUs();; next = std::max(next + period, NowUs())) {
        if (const double early = next - NowUs(); early > 0) usleep(static_cast<useconds_t>(early));
        polling.Refresh(static_cast<std::uint16_t>(std::atoi(argv[2])), source);
    }
}

void Wait(char** argv)
{
    while (true) {
        for (char** ms = argv; *ms != nullptr; ++ms) usleep(static_cast<useconds_t>(std::atoi(*ms)) * 1000);
    }
}
}  // namespace

int main(int argc, char** argv)
{
    if (argc == 9 && std::strcmp(argv[1], "poll") == 0) Poll(argv + 2);
    if (argc >= 3 && std::strcmp(argv[1], "wait") == 0) Wait(argv + 2);
    return 2;
}
