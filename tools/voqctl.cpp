// voqctl: builds project files, watches registers, looks into a port's register database. The command line only; every
// command has a file of its own.
#include <CLI/CLI.hpp>
#include <csignal>
#include <cstdio>
#include <functional>

#include "tools/commands.h"

namespace
{

// What the chosen command does, and the exit status when it throws.
struct Chosen {
    std::function<int()> run;
    int failure = ExitUsage;
};

struct Options {
    PortOptions port;
    WatchOptions watch;
    std::string toml, file;
    bool full = false, quiet = false;
    double wait = 11;
};

void AddPortOptions(CLI::App& command, Options& options)
{
    PortOptions& port = options.port;
    command.add_option("--dir", port.dir, "User data directory")->required();
    command.add_option("--link", port.link, "Link type of --port: ethernet, serial or can")->capture_default_str();
    command.add_option("--port", port.number, "Port number");
    command.add_option("--project", port.project, "Project description (TOML): port and register names");
    command.add_option("--index", port.index, "Index of the port in the project")->capture_default_str();
}

void AddProject(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& project = *app.add_subcommand("project", "Project files")->require_subcommand(1);
    CLI::App& build = *project.add_subcommand("build", "Build ophmi.bin from a TOML description");
    build.add_option("toml", options.toml, "Description")->required();
    build.add_option("-o,--output", options.file, "File to write")->required();
    build.callback([&] { chosen = {[&] { return ProjectBuild(options.toml, options.file); }, ExitNegative}; });
    CLI::App& show = *project.add_subcommand("show", "Print a project file as TOML");
    show.add_option("file", options.file, "ophmi.bin")->required();
    show.callback([&] { chosen = {[&] { return ProjectShow(options.file); }, ExitNegative}; });
}

void AddWatch(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& watch = *app.add_subcommand("watch", "Subscribe ranges and show their values");
    AddPortOptions(watch, options);
    watch.add_option("--fifo", options.port.fifo, "FIFO to write: mek or gui")->capture_default_str();
    watch.add_option("--first-number", options.port.numbers.first, "First request number to use")
        ->capture_default_str();
    watch.add_option("--last-number", options.port.numbers.last, "Last request number to use")->capture_default_str();
    watch.add_option("--interval", options.watch.intervalMs, "Milliseconds between readings")
        ->check(CLI::Range(10u, 3600000u))
        ->capture_default_str();
    watch.add_option("--for", options.watch.forSeconds, "End after so many seconds")->check(CLI::Range(0.0, 1e9));
    watch.add_option("--count", options.watch.count, "End after so many live values of every range");
    watch.add_option("what", options.watch.what, "Register names or expressions")->required();
    watch.callback([&] { chosen = {[&] { return Watch(options.port, options.watch); }, ExitNegative}; });
}

void AddLookers(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& dump = *app.add_subcommand("dump", "Print the register database");
    AddPortOptions(dump, options);
    dump.add_flag("--full", options.full, "Whole regions");
    dump.callback([&] { chosen = {[&] { return Dump(options.port, options.full); }, ExitUsage}; });

    CLI::App& check = *app.add_subcommand("check", "Verify the register database");
    AddPortOptions(check, options);
    check.add_flag("--quiet", options.quiet, "Print only what is broken");
    check.callback([&] { chosen = {[&] { return Check(options.port, options.quiet); }, ExitUsage}; });

    CLI::App& status = *app.add_subcommand("status", "Show whether the service runs");
    AddPortOptions(status, options);
    status.add_option("--wait", options.wait, "Seconds to wait for the watchdog, 0 to go by the FIFOs")
        ->check(CLI::Range(0.0, 11.0))
        ->capture_default_str();
    status.callback([&] { chosen = {[&] { return Status(options.port, options.wait); }, ExitUsage}; });
}

}  // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app{"voqctl: project files, registers and the register database of voq"};
    app.require_subcommand(1);
    Options options;
    Chosen chosen;
    AddProject(app, options, chosen);
    AddWatch(app, options, chosen);
    AddLookers(app, options, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitOk : ExitUsage;
    }
    try {
        return chosen.run();
    } catch (const UsageError& error) {
        std::fprintf(stderr, "voqctl: %s\n", error.what());
        return ExitUsage;
    } catch (const std::exception& error) {
        std::fprintf(stderr, "voqctl: %s\n", error.what());
        return chosen.failure;
    }
}
