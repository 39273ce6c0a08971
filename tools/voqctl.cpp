// voqctl: builds project files, reads, changes and watches registers, looks into a port's register database. The
// command line only; the commands have files of their own.
#include <poll.h>
#include <unistd.h>

#include <CLI/CLI.hpp>
#include <cerrno>
#include <cmath>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>

#include "tools/commands.h"
#include "tools/printable.h"

namespace
{

// What the chosen command does, and the exit status when it throws.
struct Chosen {
    std::function<int()> run;
    int failure = ExitUsage;
};

struct Options {
    PortOptions port;
    OutputOptions output;
    SelectOptions select;
    WatchOptions watch;
    ReadOptions read;
    OneShotOptions oneShot;
    TopOptions top;
    voq::ChangeText change;
    PulseOptions pulse;
    std::vector<std::string> values;
    ProjectOptions project;
    ImportOptions import;
    std::string file, other;
    bool full = false, quiet = false;
    double wait = 11;
    std::optional<double> heartbeat;
    double registering = 30;
    double refreshing = 60;
};

const CLI::Validator NotEmpty{[](std::string& text) { return text.empty() ? std::string("is empty") : std::string(); },
                              ""};

// CLI::Range alone lets "nan" pass.
CLI::Validator Between(double least, double most)
{
    const auto check = [](std::string& text) {
        return std::isnan(std::strtod(text.c_str(), nullptr)) ? text + " is no number" : std::string();
    };
    return CLI::Range(least, most) & CLI::Validator{check, ""};
}

CLI::Validator Seconds(double most)
{
    return Between(0, most);
}

void AddPortOptions(CLI::App& command, Options& options)
{
    PortOptions& port = options.port;
    command.add_option("--dir", port.dir, "User data directory")->required()->check(NotEmpty);
    command.add_option("--link", port.link, "Link type of --port: ethernet (the default), serial or can");
    command.add_option("--port", port.number, "Port number");
    command.add_option("--project", port.project, "Project description (TOML): port and register names");
    command.add_option("--index", port.index, "Index of the port in the project, 0 when nothing tells");
}

void AddByteOrder(CLI::App& command, Options& options)
{
    command.add_option("--byte-order", options.port.byteOrder,
                       "Byte-order word in place of the service's and the project's");
}

void AddFifoOptions(CLI::App& command, Options& options)
{
    PortOptions& port = options.port;
    command.add_option("--fifo", port.fifo, "FIFO to write: mek or gui")->capture_default_str();
    command.add_option("--first-number", port.numbers.first, "First request number to use")->capture_default_str();
    command.add_option("--last-number", port.numbers.last, "Last request number to use")->capture_default_str();
}

void AddDescription(CLI::App& command, Options& options)
{
    command.add_option("description", options.project.description, "Description (TOML)")->required();
    command.add_option("--drivers", options.project.drivers, "Directory of drivers, in place of the usual ones")
        ->check(NotEmpty);
}

void AddTables(CLI::App& project, Options& options, Chosen& chosen)
{
    CLI::App& taken = *project.add_subcommand("import", "Make a description of a table of registers");
    ImportOptions& table = options.import;
    taken.add_option("csv", table.csv, "Table (CSV)")->required();
    taken.add_option("--ports", table.ports, "Description to put the registers behind: ports and stations");
    taken.add_option("-o,--output", table.output, "File to write, standard output when not given")->check(NotEmpty);
    taken.add_option("--addresses", table.addresses, "How addresses are written: plain, manual (40001), hex")
        ->check(CLI::IsMember({"plain", "manual", "hex"}))
        ->default_val("plain");
    taken.add_option("--drivers", table.drivers, "Directory of drivers, in place of the usual ones")->check(NotEmpty);
    taken.callback([&] { chosen = {[&] { return ProjectImport(options.import); }, ExitUsage}; });

    CLI::App& given = *project.add_subcommand("export", "Print the registers of a description as a table");
    AddDescription(given, options);
    given.add_flag("--csv")->description("As CSV, which is all there is")->required();
    given.add_option("-o,--output", options.file, "File to write, standard output when not given")->check(NotEmpty);
    given.callback([&] { chosen = {[&] { return ProjectExport(options.project, options.file); }, ExitUsage}; });
}

void AddAgainstRunning(CLI::App& project, Options& options, Chosen& chosen)
{
    const auto add = [&](const char* name, const char* text) -> CLI::App& {
        CLI::App& command = *project.add_subcommand(name, text);
        PortOptions& port = options.port;
        command.add_option("description", port.project, "Description (TOML)")->required();
        command.add_option("--drivers", port.drivers, "Directory of drivers, in place of the usual ones")
            ->check(NotEmpty);
        command.add_option("--dir", port.dir, "User data directory")->required()->check(NotEmpty);
        command.add_option("--link", port.link, "Link type of --port: ethernet (the default), serial or can");
        command.add_option("--port", port.number, "Port number");
        command.add_option("--index", port.index, "Index of the port in the description, 0 when nothing tells");
        command.add_option("--running", options.file, "ophmi.bin that the service was started with");
        return command;
    };
    CLI::App& diff = add("diff", "Compare a description with a port's register database");
    diff.callback([&] { chosen = {[&] { return ProjectDiff(options.port, options.file); }, ExitUsage}; });
    CLI::App& apply = add("apply", "Register what is new in a description in the running service");
    AddFifoOptions(apply, options);
    apply.add_option("--timeout", options.registering, "Seconds to wait for the service")
        ->check(Seconds(86400))
        ->capture_default_str();
    apply.callback([&] {
        chosen = {[&] { return ProjectApply(options.port, options.file, options.registering); }, ExitUsage};
    });
}

void AddProject(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& project = *app.add_subcommand("project", "Project files")->require_subcommand(1);
    CLI::App& check = *project.add_subcommand("check", "Say all that is wrong with a description");
    AddDescription(check, options);
    check.add_option("--dir", options.project.dir, "User data directory of the service: are its paths short enough?");
    check.callback([&] { chosen = {[&] { return ProjectCheck(options.project); }, ExitUsage}; });
    CLI::App& build = *project.add_subcommand("build", "Build ophmi.bin from a TOML description");
    AddDescription(build, options);
    build.add_option("-o,--output", options.file, "File to write")->required()->check(NotEmpty);
    build.callback([&] { chosen = {[&] { return ProjectBuild(options.project, options.file); }, ExitNegative}; });
    AddTables(project, options, chosen);
    AddAgainstRunning(project, options, chosen);
    CLI::App& show = *project.add_subcommand("show", "Print a project file as TOML");
    show.add_option("file", options.file, "ophmi.bin")->required();
    show.callback([&] { chosen = {[&] { return ProjectShow(options.file); }, ExitNegative}; });
    CLI::App& names = *project.add_subcommand("names", "Print the names of a description's registers");
    names.add_option("description", options.project.description, "Description (TOML)")->required();
    names.callback([&] { chosen = {[&] { return ProjectNames(options.project.description); }, ExitNegative}; });
    CLI::App& prepare = *project.add_subcommand("prepare", "Build a port's register database without the service");
    prepare.add_option("file", options.file, "ophmi.bin")->required();
    prepare.add_option("--port-index", options.port.index, "Index of the port in the project")->required();
    prepare.add_option("-o,--output", options.other, "Directory to make; it must be new or empty")
        ->required()
        ->check(NotEmpty);
    prepare.callback([&] {
        chosen = {[&] { return ProjectPrepare(options.file, *options.port.index, options.other); }, ExitNegative};
    });
}

void AddRows(CLI::App& command, Options& options)
{
    OutputOptions& output = options.output;
    const auto rows = [&output](RowForm form) { return [&output, form](std::int64_t) { output.rows = form; }; };
    CLI::Option* json = command.add_flag_function("--json", rows(RowForm::Json), "One JSON object a line");
    command.add_flag_function("--csv", rows(RowForm::Csv), "CSV behind a line of column names")->excludes(json);
}

void AddIso(CLI::App& command, Options& options)
{
    command.add_flag("--iso", options.output.iso, "Times as ISO 8601, UTC");
}

void AddRaw(CLI::App& command, Options& options)
{
    command.add_flag("--raw", options.output.raw, "Values as they lie: no scale, unit, names");
}

void AddSelection(CLI::App& command, Options& options)
{
    command.add_flag("--all", options.select.all, "Every register of the port in the project");
    command.add_option("what", options.select.what, "Register names, patterns (pump*) or expressions");
}

void AddTimes(CLI::App& command, RequestTimes& times)
{
    command.add_option("--timeout", times.timeoutSeconds, "Seconds to wait for the answer")
        ->check(Seconds(86400))
        ->capture_default_str();
    command.add_option("--grace", times.graceSeconds, "Seconds within which a later answer is still removed")
        ->check(Seconds(86400))
        ->capture_default_str();
}

CLI::App& AddOneShot(CLI::App& app, Options& options, const char* name, const char* description)
{
    CLI::App& command = *app.add_subcommand(name, description);
    AddPortOptions(command, options);
    AddByteOrder(command, options);
    AddFifoOptions(command, options);
    AddTimes(command, options.oneShot.times);
    command.add_option("what", options.oneShot.what, "Register name or expression")->required();
    return command;
}

void AddRead(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& read = *app.add_subcommand("read", "Read ranges from the PLC now");
    AddPortOptions(read, options);
    AddByteOrder(read, options);
    AddFifoOptions(read, options);
    AddTimes(read, options.read.times);
    AddSelection(read, options);
    AddRows(read, options);
    AddIso(read, options);
    AddRaw(read, options);
    read.add_flag("--orders", options.read.orders, "Values under every byte order, side by side");
    read.callback([&] {
        options.read.select = options.select;
        chosen = {[&] { return Read(options.port, options.read, options.output); }, ExitNegative};
    });
}

void AddWrite(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& write = AddOneShot(app, options, "write", "Write a range");
    write.add_flag("--only-writer", options.oneShot.onlyWriter, "Nobody else writes into the FIFO: any length goes");
    write.add_flag("--raw", options.oneShot.raw, "Values as they lie: no scale, names");
    write.add_option("values", options.values, "One value an element")->required();
    write.callback([&] {
        chosen = {[&] { return Write(options.port, options.oneShot, options.values); }, ExitNegative};
    });
}

void AddChanges(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& change = AddOneShot(app, options, "change", "Read, change and write a range in one go");
    change
        .add_option("operation", options.change.operation,
                    "add, sub, and, or, xor, not, toggle, set, clear, digit-up, digit-down, field")
        ->required();
    change.add_option("operands", options.change.operands,
                      "STEP, MASK, BIT (number or name), POSITION, or FIRST COUNT VALUE");
    change.add_option("--min", options.change.minimum, "Lower limit of add and sub");
    change.add_option("--max", options.change.maximum, "Upper limit of add and sub");
    change.add_flag("--wrap", options.change.wrap, "Go on from the other limit");
    change.add_flag("--bounce", options.change.bounce, "Turn round at a limit");
    change.add_flag("--reversed", options.change.reversed, "Add as sub and the reverse, as a bounce left it");
    change.add_flag("--raw", options.oneShot.raw, "Step and limits as they lie: no scale");
    change.callback([&] {
        chosen = {[&] { return Change(options.port, options.oneShot, options.change); }, ExitNegative};
    });

    CLI::App& pulse = AddOneShot(app, options, "pulse", "Set a bit and turn it back after a time");
    pulse.add_option("--ms", options.pulse.milliseconds, "Length in milliseconds, in steps of 100")->required();
    pulse.add_option("--bit", options.pulse.bit, "Bit of the range; needless where there is one only");
    pulse.add_option("--value", options.pulse.value, "What the bit is set to first")
        ->check(CLI::Range(0u, 1u))
        ->capture_default_str();
    pulse.callback([&] {
        chosen = {[&] { return Pulse(options.port, options.oneShot, options.pulse); }, ExitNegative};
    });
}

void AddWatch(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& watch = *app.add_subcommand("watch", "Subscribe ranges and show their values");
    AddPortOptions(watch, options);
    AddByteOrder(watch, options);
    AddFifoOptions(watch, options);
    watch.add_option("--interval", options.watch.intervalMs, "Milliseconds between readings")
        ->check(CLI::Range(10u, 3600000u))
        ->capture_default_str();
    watch.add_option("--for", options.watch.forSeconds, "End after so many seconds; 0: no limit")
        ->check(Seconds(1e9))
        ->capture_default_str();
    watch.add_option("--count", options.watch.count, "End after so many live values of every range; 0: no limit")
        ->capture_default_str();
    AddSelection(watch, options);
    AddRows(watch, options);
    AddIso(watch, options);
    AddRaw(watch, options);
    watch.add_flag("--plot", options.watch.plot, "Draw the last minutes of up to four values");
    watch.add_option("--minutes", options.watch.plotMinutes, "Minutes that --plot shows")
        ->check(Between(0.1, 60))
        ->capture_default_str();
    watch.callback([&] {
        options.watch.select = options.select;
        chosen = {[&] { return Watch(options.port, options.watch, options.output); }, ExitNegative};
    });
}

void AddRefresh(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& refresh = *app.add_subcommand("refresh", "Read every range that the port knows once");
    AddPortOptions(refresh, options);
    AddFifoOptions(refresh, options);
    refresh.add_option("--timeout", options.refreshing, "Seconds for all of it")
        ->check(Seconds(86400))
        ->capture_default_str();
    refresh.callback([&] { chosen = {[&] { return Refresh(options.port, options.refreshing); }, ExitNegative}; });
}

void AddTop(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& top = *app.add_subcommand("top", "Show ports and their ranges, live");
    AddPortOptions(top, options);
    AddByteOrder(top, options);
    top.add_option("--interval", options.top.intervalMs, "Milliseconds between looks")
        ->check(CLI::Range(100u, 60000u))
        ->capture_default_str();
    AddRows(top, options);
    top.callback([&] {
        options.top.allPorts = top.count("--port") + top.count("--index") == 0;
        chosen = {[&] { return Top(options.port, options.top, options.output); }, ExitUsage};
    });
}

void AddLookers(CLI::App& app, Options& options, Chosen& chosen)
{
    CLI::App& dump = *app.add_subcommand("dump", "Print the register database");
    AddPortOptions(dump, options);
    AddByteOrder(dump, options);
    dump.add_flag("--full", options.full, "Whole regions");
    AddRows(dump, options);
    AddIso(dump, options);
    AddRaw(dump, options);
    dump.callback([&] { chosen = {[&] { return Dump(options.port, options.full, options.output); }, ExitUsage}; });

    CLI::App& check = *app.add_subcommand("check", "Verify the register database");
    AddPortOptions(check, options);
    check.add_flag("--quiet", options.quiet, "Print only what is broken");
    check.callback([&] { chosen = {[&] { return Check(options.port, options.quiet); }, ExitUsage}; });

    CLI::App& compare = *app.add_subcommand("compare", "Compare two register databases");
    compare.add_option("a", options.file, "Directory of the first")->required()->check(NotEmpty);
    compare.add_option("b", options.other, "Directory of the second")->required()->check(NotEmpty);
    compare.callback([&] { chosen = {[&] { return Compare(options.file, options.other); }, ExitUsage}; });

    CLI::App& explain = *app.add_subcommand("explain", "Say how ranges are polled and what would make it faster");
    AddPortOptions(explain, options);
    explain.add_flag_function(
        "--json", [&](std::int64_t) { options.output.rows = RowForm::Json; }, "One JSON object a line");
    explain.add_option("what", options.select.what, "Register names, patterns or expressions; all without any");
    explain.callback([&] {
        chosen = {[&] { return Explain(options.port, options.select, options.output); }, ExitUsage};
    });

    CLI::App& status = *app.add_subcommand("status", "Show whether the service runs");
    AddPortOptions(status, options);
    status.add_option("--wait", options.wait, "Seconds to wait for the watchdog, 0 to go by the FIFOs")
        ->check(Seconds(11))
        ->capture_default_str();
    AddRows(status, options);
    status
        .add_option("--heartbeat", options.heartbeat, "Go by the main loop alone; its driver may take so many seconds")
        ->check(Seconds(86400))
        ->excludes("--json")
        ->excludes("--csv");
    status.callback([&] {
        chosen = {[&] {
                      return options.heartbeat ? StatusOfHeartbeat(options.port, *options.heartbeat)
                                               : Status(options.port, options.wait, options.output);
                  },
                  ExitUsage};
    });
}

// True for a pipe or a socket whose other end is closed.
bool OutputHasNoReader()
{
    pollfd output = {STDOUT_FILENO, 0, 0};
    return poll(&output, 1, 0) == 1 && (output.revents & POLLERR) != 0;
}

// Output that could not be written is a failure, but for that of a reader who wanted no more, as "head".
int Finished(int status, int failure)
{
    errno = 0;
    if ((std::fflush(stdout) == 0 && std::ferror(stdout) == 0) || OutputHasNoReader()) return status;
    Complain(std::string("standard output: ") + (errno != 0 ? std::strerror(errno) : "not all was written"));
    return status == ExitOk ? failure : status;
}

}  // namespace

int main(int argc, char** argv)
{
    std::signal(SIGPIPE, SIG_IGN);
    CLI::App app{"voqctl: project files, registers and the register database of voq"};
    app.require_subcommand(1);
    app.set_version_flag("--version", "voqctl " VOQ_VERSION);
    app.failure_message(
        [](const CLI::App*, const CLI::Error& error) { return "voqctl: " + Printable(error.what()) + "\n"; });
    Options options;
    Chosen chosen;
    AddProject(app, options, chosen);
    AddRead(app, options, chosen);
    AddWrite(app, options, chosen);
    AddChanges(app, options, chosen);
    AddWatch(app, options, chosen);
    AddRefresh(app, options, chosen);
    AddTop(app, options, chosen);
    AddLookers(app, options, chosen);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        return app.exit(error) == 0 ? ExitOk : ExitUsage;
    }
    try {
        return Finished(chosen.run(), chosen.failure);
    } catch (const UsageError& error) {
        Complain(error.what());
        return ExitUsage;
    } catch (const std::exception& error) {
        Complain(error.what());
        return chosen.failure;
    }
}
