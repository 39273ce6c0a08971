// The commands of voqctl: what each takes and what it returns as exit status. One source file each.
// They throw UsageError for arguments that make no sense and voq::Error for everything else that stops them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "tools/target.h"

inline constexpr int ExitOk = 0;
inline constexpr int ExitNegative = 1;  // the command's answer is no
inline constexpr int ExitUsage = 2;     // wrong arguments, or files that cannot be read

// Builds a project file from its TOML description, written beside the target and renamed over it.
int ProjectBuild(const std::string& toml, const std::string& output);
// Prints a project file as TOML that ProjectBuild takes.
int ProjectShow(const std::string& file);

struct WatchOptions {
    std::vector<std::string> what;  // names of the project's registers, or expressions
    unsigned intervalMs = 200;
    double forSeconds = 0;  // 0: no limit
    unsigned count = 0;     // live values of every range; 0: no limit
};
// 0 when a live value was seen, 1 when none was.
int Watch(const PortOptions& options, const WatchOptions& watch);

// 0 when the whole database was shown, 1 when its chain is damaged.
int Dump(const PortOptions& options, bool full);

// 0 sound, 1 broken.
int Check(const PortOptions& options, bool quiet);

// 0 when the service runs, 1 when it does not.
int Status(const PortOptions& options, double waitSeconds);
