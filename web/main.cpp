// voq-web: a page and figures of the ports of a description. Main thread: the command line, then looks at the ports
// until a signal ends the program. The server and the writer have threads of their own.
#include <signal.h>

#include <CLI/CLI.hpp>
#include <chrono>
#include <cstdio>
#include <fstream>

#include "client/error.h"
#include "client/locked_file.h"
#include "web/metrics.h"
#include "web/model.h"
#include "web/server.h"
#include "web/writer.h"

namespace
{

using std::chrono::milliseconds;
using Clock = std::chrono::steady_clock;

constexpr milliseconds WatchedInterval{250}, UnwatchedInterval{1000};
constexpr int Idle = 9;  // times as long as a look took: the files belong to the service and its clients
constexpr milliseconds LongestLock{1000};
constexpr std::chrono::seconds PingInterval{5};
constexpr std::size_t ShortestToken = 16;

struct Options {
    std::string dir, project, listen = "127.0.0.1:8081", tokenFile;
    std::vector<std::string> hosts;
    bool writes = false;
};

std::string ReadToken(const std::string& file)
{
    std::string token;
    std::ifstream stream(file);
    if (!std::getline(stream, token)) throw voq::Error(file + ": no token can be read");
    if (token.size() < ShortestToken) {
        throw voq::Error(file + ": a token has at least " + std::to_string(ShortestToken) + " characters");
    }
    return token;
}

voq::web::Access AccessOf(const Options& options)
{
    voq::web::Access access{{"localhost", "127.0.0.1", "[::1]"}, options.writes, ""};
    access.hosts.insert(access.hosts.end(), options.hosts.begin(), options.hosts.end());
    if (options.writes) access.token = ReadToken(options.tokenFile);
    return access;
}

sigset_t EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    return signals;
}

// True when a signal came.
bool WaitForSignal(const sigset_t& signals, Clock::duration atMost)
{
    const auto ns = std::max<std::int64_t>(std::chrono::nanoseconds(atMost).count(), 0);
    const timespec wait = {static_cast<std::time_t>(ns / 1000000000), static_cast<long>(ns % 1000000000)};
    return sigtimedwait(&signals, nullptr, &wait) > 0;
}

void LookUntilSignal(voq::web::Model& model, voq::web::Feed& feed, voq::web::Server& server, const sigset_t& signals)
{
    const voq::LockPatience patience(LongestLock);
    auto pinged = Clock::now();
    auto looked = pinged;
    while (true) {
        server.EndOverdue();
        // Somebody who comes while nobody watches is not kept waiting for a whole interval.
        const auto next = looked + (feed.Readers() != 0 ? WatchedInterval : UnwatchedInterval);
        const auto now = Clock::now();
        if (now < next) {
            if (WaitForSignal(signals, std::min<Clock::duration>(next - now, WatchedInterval))) return;
            continue;
        }
        looked = now;
        model.Look(feed);
        if (now - pinged >= PingInterval) {
            feed.Ping();
            pinged = now;
        }
        if (WaitForSignal(signals, std::min<Clock::duration>(Idle * (Clock::now() - now), std::chrono::seconds(10)))) {
            return;
        }
    }
}

int Run(const Options& options)
{
    const sigset_t signals = EndingSignals();
    sigprocmask(SIG_BLOCK, &signals, nullptr);  // the threads inherit it
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);  // nobody waits for the process that a write without an answer leaves
    voq::web::Feed feed;
    voq::web::Model model(voq::LoadDescription(options.project), options.dir);
    voq::web::Writer writer;
    voq::web::Content content{
        .ranges = [&] { return model.Ranges(); },
        .ports = [&] { return model.Ports(); },
        .hello = [&] { return model.Hello(); },
        .metrics =
            [&](std::uint64_t requests, std::uint64_t refused) {
                const voq::web::OwnFigures own{feed.Readers(), requests, refused};
                return model.With([&](const auto& ports) { return voq::web::MetricsText(ports, own); });
            },
        .history = [&](std::uint32_t id) { return model.HistoryOf(id); },
        .explanation = [&](std::uint32_t id) { return model.ExplanationOf(id); },
        .write =
            [&](std::uint32_t id, std::vector<std::string> values, voq::web::Content::Done done) {
                auto what = model.WritingOf(id);
                if (what) return writer.Begin(std::move(*what), std::move(values), done);
                done(404, "there is no such range");
                return true;
            },
    };
    {
        const voq::LockPatience patience(LongestLock);
        model.Look(feed);
    }
    const int listening = voq::web::Listen(options.listen);
    voq::web::Server server(listening, AccessOf(options), content, feed);
    std::printf("voq-web: serves %zu port(s) at %s%s\n", model.With([](const auto& ports) { return ports.size(); }),
                options.listen.c_str(), options.writes ? ", with writes" : "");
    std::fflush(stdout);
    LookUntilSignal(model, feed, server, signals);
    writer.End();
    feed.End();
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"Serves a page and figures of the ports of a voq project.", "voq-web"};
    app.add_option("--dir", options.dir, "user data directory, the service's fourth argument")->required();
    app.add_option("--project", options.project, "the project's description (TOML)")->required();
    app.add_option("--listen", options.listen, "ADDRESS:PORT or unix:PATH")->capture_default_str();
    app.add_option("--host", options.hosts, "a further name that browsers may use for this server")
        ->allow_extra_args(false);
    auto* writes = app.add_flag("--writes", options.writes, "let pages write, with the token");
    auto* token = app.add_option("--token-file", options.tokenFile, "file whose first line is the token of writes");
    writes->needs(token);
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "voq-web: %s\n", error.what());
        return 1;
    }
}
