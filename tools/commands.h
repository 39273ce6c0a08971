// The commands of voqctl: what each takes and what it returns as exit status. One source file each.
// They throw UsageError for arguments that make no sense and voq::Error for everything else that stops them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/change.h"
#include "tools/rows.h"
#include "tools/selection.h"
#include "tools/target.h"

inline constexpr int ExitOk = 0;
inline constexpr int ExitNegative = 1;  // the command's answer is no
inline constexpr int ExitUsage = 2;     // wrong arguments, or files that cannot be read
// Of one-shot requests.
inline constexpr int ExitPlcTimeout = 3;    // the PLC did not answer the service
inline constexpr int ExitComError = 4;      // the PLC or the line to it reported an error
inline constexpr int ExitRefused = 5;       // the service did not take the request
inline constexpr int ExitNoAnswer = 6;      // the service did not answer in time
inline constexpr int ExitNotRunning = 7;    // no service reads the FIFO
inline constexpr int ExitLocked = 8;        // the service waits for another process's lock
inline constexpr int ExitSignalBase = 128;  // plus the number of the signal that ended the waiting

struct ProjectOptions {
    std::string description;           // TOML
    std::vector<std::string> drivers;  // where drivers lie, empty for the usual places
    std::string dir;                   // user data directory of the service, empty when nobody knows
};
// Prints all that is wrong with a description: 0 nothing but warnings, 1 errors.
int ProjectCheck(const ProjectOptions& options);
// The description of a file that has no errors: they go to standard error, as the warnings do, and voq::Error ends it.
voq::Description CheckedDescription(const ProjectOptions& options);
// What a description and a port's register database do not share, and with the project file that the service was
// started with, `running`, the settings that differ: 0 nothing, 1 something.
int ProjectDiff(const PortOptions& options, const std::string& running);
// Registers what is new in the running service: 0 all of it, 1 not all, or ExitNotRunning.
int ProjectApply(const PortOptions& options, const std::string& running, double timeoutSeconds);
struct ImportOptions {
    std::string csv;
    std::string ports;      // description whose ports and stations the registers go to; empty: registers alone
    std::string output;     // empty: standard output
    std::string addresses;  // "plain", "manual" or "hex"
    std::vector<std::string> drivers;
};
// Makes a description of a table of registers: 0, or 1 when something in it is wrong; then nothing is written.
int ProjectImport(const ImportOptions& options);
// The registers of a description as such a table.
int ProjectExport(const ProjectOptions& options, const std::string& output);
// Builds a project file from its TOML description, written beside the target and renamed over it.
int ProjectBuild(const ProjectOptions& options, const std::string& output);
// Prints a project file as TOML that ProjectBuild takes.
int ProjectShow(const std::string& file);
// Prints the names of the described registers, one a line.
int ProjectNames(const std::string& toml);
// Throws voq::Error that begins with the file's name.
voq::Project LoadProjectFile(const std::string& file);
// Writes the register database that the service would build into a directory that is new or empty.
int ProjectPrepare(const std::string& file, std::uint16_t index, std::string directory);
// 0 when two register databases are the same but for what changes while they are used, 1 when not.
int Compare(const std::string& a, const std::string& b);

struct WatchOptions {
    SelectOptions select;
    unsigned intervalMs = 200;
    double forSeconds = 0;  // 0: no limit
    unsigned count = 0;     // live values of every range; 0: no limit
    bool plot = false;
    double plotMinutes = 5;
};
// 0 when a live value was seen, 1 when none was.
int Watch(const PortOptions& options, const WatchOptions& watch, const OutputOptions& output);

struct RequestTimes {
    double timeoutSeconds = 10;
    double graceSeconds = 600;  // how long a late answer is waited for in order to remove it
};
struct ReadOptions {
    SelectOptions select;
    RequestTimes times;
    bool orders = false;  // values under every byte order
};
// 0 when the service read every range, else the status of the first failure in their order.
int Read(const PortOptions& options, const ReadOptions& read, const OutputOptions& output);

struct OneShotOptions {
    std::string what;  // name of a register of the project, or an expression
    RequestTimes times;
    bool onlyWriter = false;  // no other client writes into the FIFO
    bool raw = false;         // values, steps and limits are as they lie, not scaled
};
struct PulseOptions {
    std::optional<std::uint32_t> bit;
    unsigned value = 1;
    std::uint32_t milliseconds = 0;
};
// 0 when the service did it, or one of the statuses of one-shot requests above.
int Write(const PortOptions& options, const OneShotOptions& request, const std::vector<std::string>& values);
int Change(const PortOptions& options, const OneShotOptions& request, const voq::ChangeText& change);
int Pulse(const PortOptions& options, const OneShotOptions& request, const PulseOptions& pulse);

// 0 when the whole database was shown, 1 when its chain is damaged.
int Dump(const PortOptions& options, bool full, const OutputOptions& output);

// 0 sound, 1 broken.
int Check(const PortOptions& options, bool quiet);

struct TopOptions {
    unsigned intervalMs = 1000;
    bool allPorts = false;  // of the project
};
// Runs until a key or a signal ends it: 0. As rows it looks twice, an interval apart, and ends.
int Top(const PortOptions& options, const TopOptions& top, const OutputOptions& output);

// How the subscribed ranges are polled: those that are meant, or all. 1 when there are none.
int Explain(const PortOptions& options, const SelectOptions& select, const OutputOptions& output);

// Reads every range that the port knows once: 0 when each has its value, else the status of the first failure in the
// order of the records, ExitNoAnswer when not all were read in time, ExitNotRunning.
int Refresh(const PortOptions& options, double timeoutSeconds);

// 0 when the service runs, 1 when it does not.
int Status(const PortOptions& options, double waitSeconds, const OutputOptions& output);
// By the main loop's heartbeat alone, which takes no lock: 0 when it goes on or nothing is known of it, 1 when it
// hangs, ExitLocked when it waits for a lock that another process holds. A driver call may last `driverSeconds`.
int StatusOfHeartbeat(const PortOptions& options, double driverSeconds);
