// voq-mqtt: the values of a box at an MQTT broker. The main thread reads the command line and runs the bridge until a
// signal ends it.
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cstdio>
#include <filesystem>

#include "client/bridge_state.h"
#include "client/error.h"
#include "upstream/mqtt/bridge.h"

namespace
{

struct Options {
    std::string dir, project, settings;
    bool check = false;
};

int EndingSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) sigaddset(&signals, signal);
    sigprocmask(SIG_BLOCK, &signals, nullptr);  // the link's thread inherits it
    signal(SIGPIPE, SIG_IGN);
    signal(SIGCHLD, SIG_IGN);  // nobody waits for the process that a write without an answer leaves
    const int descriptor = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (descriptor < 0) throw voq::SystemError("signalfd", errno);
    return descriptor;
}

void PrintTold(const voq::mqtt::Settings& settings, const voq::mqtt::Catalogue& catalogue)
{
    std::size_t writable = 0;
    for (const auto& each : catalogue.metrics) writable += each.rule.writable ? 1 : 0;
    std::printf("voq-mqtt: %zu register(s) of %zu station(s) as %s of %s to %s:%u%s; %zu may be written\n",
                catalogue.metrics.size(), catalogue.devices.size(), settings.box.c_str(), settings.base.c_str(),
                settings.broker.host.c_str(), unsigned{settings.broker.port}, settings.broker.tls ? " with TLS" : "",
                writable);
    std::fflush(stdout);
}

// Nothing when the spool's folder is there and may be written.
std::string SpoolTrouble(const voq::mqtt::Settings& settings)
{
    const std::string folder = std::filesystem::absolute(settings.spool.file).parent_path();
    if (access(folder.c_str(), W_OK | X_OK) == 0) return "";
    return voq::SystemError(settings.file + ": [spool] file: " + folder, errno).what();
}

int Run(const Options& options)
{
    const auto settings = voq::mqtt::LoadSettings(options.settings);
    const auto catalogue = voq::mqtt::MakeCatalogue(voq::LoadDescription(options.project), settings, options.dir);
    for (const std::string& each : catalogue.remarks) std::fprintf(stderr, "voq-mqtt: %s\n", each.c_str());
    PrintTold(settings, catalogue);
    const std::string trouble = SpoolTrouble(settings);
    if (options.check) {
        // Who checks may have other rights than the unit, whose own folders are there only while it runs.
        const bool units =
            settings.spool.file.starts_with("/run/voq-mqtt/") || settings.spool.file.starts_with("/var/lib/voq-mqtt/");
        if (!units && !trouble.empty()) std::fprintf(stderr, "voq-mqtt: %s\n", trouble.c_str());
        return 0;
    }
    if (!trouble.empty()) throw voq::Error(trouble);
    const int ending = EndingSignals();
    voq::mqtt::Bridge bridge(settings, catalogue, options.dir + "/" + voq::MqttStateFile);
    bridge.Run(ending);
    close(ending);
    return 0;
}

}  // namespace

int main(int argc, char** argv)
{
    Options options;
    CLI::App app{"Tells an MQTT broker the registers of a voq project, and writes what it asks for.", "voq-mqtt"};
    app.add_option("--dir", options.dir, "user data directory, the service's fourth argument")->required();
    app.add_option("--project", options.project, "the project's description (TOML)")->required();
    app.add_option("--settings", options.settings, "broker, names, what is told and how often (TOML)")->required();
    app.add_flag("--check", options.check, "read both files, say what would be told, and end");
    CLI11_PARSE(app, argc, argv);
    try {
        return Run(options);
    } catch (const std::exception& error) {
        std::fprintf(stderr, "voq-mqtt: %s\n", error.what());
        return 1;
    }
}
