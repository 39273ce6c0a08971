// "voqctl project diff" and "voqctl project apply". Main thread.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <span>

#include "client/fifo.h"
#include "client/locked_file.h"
#include "tools/commands.h"
#include "tools/port.h"
#include "tools/printable.h"
#include "tools/project_diff.h"
#include "tools/stop.h"

namespace
{

constexpr std::size_t AtOnce = 50;  // log-ons before what is registered is told

voq::OrgImage ReadOrg(const voq::PortDir& port)
{
    const auto bytes = voq::ReadLocked(port.Org());
    if (!bytes) throw voq::Error(port.Org() + ": no such file");
    return {*bytes};
}

std::string Name(const voq::DescribedRegister& reg)
{
    const std::string range = voq::Expression(reg.reg);
    return reg.name.empty() ? range : reg.name + "  " + range;
}

std::string Range(const RegKey& key)
{
    return voq::Expression({key, voq::TypeOfSize(RegElemSize(&key))});
}

// What a registered range has otherwise, in the description's words.
std::string Otherwise(const RegKey& registered, const RegKey& described)
{
    constexpr std::uint32_t priority = REG_FLAG_PRIORITY_MASK << REG_FLAG_PRIORITY_SHIFT;
    std::string text;
    const auto compare = [&](const char* key, std::uint32_t is, std::uint32_t wanted) {
        if (is == wanted) return;
        text += (text.empty() ? "" : "; ") + std::string(key) + ": " + std::to_string(is) + ", described " +
                std::to_string(wanted);
    };
    compare("priority", (registered.flag & priority) >> REG_FLAG_PRIORITY_SHIFT,
            (described.flag & priority) >> REG_FLAG_PRIORITY_SHIFT);
    compare("bcd", (registered.flag & REG_FLAG_BCD) != 0, (described.flag & REG_FLAG_BCD) != 0);
    compare("flag", registered.flag & ~(priority | REG_FLAG_BCD), described.flag & ~(priority | REG_FLAG_BCD));
    compare("convpara", registered.convpara, described.convpara);
    compare("subaddr", registered.subaddr, described.subaddr);
    compare("port", registered.portno, described.portno);
    return text;
}

// What only a restart brings. False when nobody can tell.
bool Settings(const Target& target, const std::string& running, std::vector<std::string>& lines)
{
    if (running.empty()) return false;
    const auto& described = target.project->ports.at(target.index).record;
    for (const ComInfoRecord& port : LoadProjectFile(running).ports) {
        if (port.portNo != described.portNo || port.linkType != described.linkType) continue;
        lines = ComparePorts(port, described);
        return true;
    }
    throw voq::Error(running + ": has no port " + std::to_string(described.portNo) + " of this link");
}

void PrintLeft(const ProjectDifference& difference, bool applied)
{
    for (const ChangedRange& each : difference.changed) {
        std::printf("~ %s  %s\n", Name(*each.described).c_str(),
                    Otherwise(each.registered, each.described->reg.key).c_str());
    }
    for (const RegKey& key : difference.gone) std::printf("- %s\n", Range(key).c_str());
    if (!applied || (difference.changed.empty() && difference.gone.empty())) return;
    std::printf(
        "%zu range(s) changed (~) and %zu not described (-): they stay as they are registered until the service is "
        "stopped, org removed from the port's directory and the service started\n",
        difference.changed.size(), difference.gone.size());
}

void PrintSettings(bool known, const std::vector<std::string>& lines)
{
    for (const std::string& line : lines) std::printf("! %s\n", line.c_str());
    if (!lines.empty()) std::printf("port settings differ (!): build the project and restart the service\n");
    if (!known) std::printf("port settings not compared: give --running with the project file of the service\n");
}

// Logs some ranges on until the service has made their records, or the time is over. Those in time are printed. Returns
// how many were not.
std::size_t RegisterSome(const Target& target, const PortOptions& options,
                         std::span<const voq::DescribedRegister* const> regs, voq::Port::Clock::time_point until)
{
    std::vector<voq::Range> ranges(regs.size());
    const auto port = OpenPort(target, options);
    for (std::size_t i = 0; i < regs.size(); ++i) {
        ranges[i].key = regs[i]->reg.key;
        port->Subscribe(ranges[i]);
    }
    const auto there = [](const voq::Range& range) { return range.followed->state != voq::StateUnknown; };
    while (!std::all_of(ranges.begin(), ranges.end(), there) && Stopped == 0 && voq::Port::Clock::now() < until) {
        Await(*port, until);
        if (!port->Running()) voq::RequireReader(target.fifo);
        while (port->NextEvent()) continue;
    }
    std::size_t late = 0;
    for (std::size_t i = 0; i < regs.size(); ++i) {
        if (there(ranges[i])) {
            std::printf("+ %s\n", Name(*regs[i]).c_str());
            continue;
        }
        Complain(Name(*regs[i]) + ": not registered in time");
        ++late;
    }
    return late;
}

std::size_t Register(const Target& target, const PortOptions& options, const ProjectDifference& difference,
                     double timeoutSeconds)
{
    const auto until = voq::Port::Clock::now() + std::chrono::microseconds(std::llround(timeoutSeconds * 1e6));
    const std::span added(difference.added);
    for (std::size_t at = 0; at < added.size(); at += AtOnce) {
        const auto some = added.subspan(at, std::min(AtOnce, added.size() - at));
        const std::size_t late = RegisterSome(target, options, some, until);
        if (late != 0) return late + added.size() - at - some.size();
    }
    return 0;
}

}  // namespace

int ProjectDiff(const PortOptions& options, const std::string& running)
{
    const Target target = Resolve(options);
    const auto difference = CompareWithDatabase(*target.project, target.port.number, ReadOrg(target.port));
    std::vector<std::string> settings;
    const bool known = Settings(target, running, settings);
    for (const auto* added : difference.added) std::printf("+ %s\n", Name(*added).c_str());
    PrintLeft(difference, false);
    PrintSettings(known, settings);
    const bool same =
        difference.added.empty() && difference.gone.empty() && difference.changed.empty() && settings.empty();
    return same ? ExitOk : ExitNegative;
}

int ProjectApply(const PortOptions& options, const std::string& running, double timeoutSeconds)
{
    CheckedDescription({options.project, options.drivers, options.dir});
    const Target target = Resolve(options);
    const auto difference = CompareWithDatabase(*target.project, target.port.number, ReadOrg(target.port));
    std::vector<std::string> settings;
    const bool known = Settings(target, running, settings);
    CatchSignals();
    std::size_t late = 0;
    try {
        if (!difference.added.empty()) late = Register(target, options, difference, timeoutSeconds);
    } catch (const voq::ServiceNotRunning& error) {
        Complain(error.what());
        return ExitNotRunning;
    }
    std::printf("%zu range(s) registered\n", difference.added.size() - late);
    PrintLeft(difference, true);
    PrintSettings(known, settings);
    return late == 0 ? ExitOk : ExitNegative;
}
