// "voqctl project diff" and "voqctl project apply". Main thread.
#include <unistd.h>

#include <algorithm>
#include <cstdio>

#include "client/clock.h"
#include "client/fifo.h"
#include "client/frame.h"
#include "client/locked_file.h"
#include "tools/commands.h"
#include "tools/printable.h"
#include "tools/project_diff.h"
#include "tools/stop.h"

namespace
{

constexpr std::size_t AtOnce = 50;  // log-ons between two looks
constexpr unsigned LookMicroseconds = 20 * 1000;

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

// Logs ranges on and off again, so that the service makes their records.
class Registration
{
public:
    Registration(const Target& target, voq::FileNumberRange numbers) : target_(target), numbers_(target.port, numbers)
    {
    }

    void LogOn(const voq::DescribedRegister& reg)
    {
        const std::uint16_t fileno = numbers_.Next();
        voq::SendFrame(target_.fifo, voq::LogOnFrame(reg.reg.key, fileno));
        waiting_.push_back({&reg, fileno});
    }

    // Waits until the records are there; those in time are printed and logged off. Returns how many were not.
    std::size_t Finish(std::int64_t until)
    {
        std::size_t late = 0;
        for (const Waiting& each : waiting_) {
            while (voq::FindRange(target_.port, each.reg->reg.key) == 0 && Stopped == 0 &&
                   voq::NowMicroseconds() < until) {
                usleep(LookMicroseconds);
            }
            const bool there = voq::FindRange(target_.port, each.reg->reg.key) != 0;
            voq::SendFrame(target_.fifo, voq::LogOffFrame(each.reg->reg.key, each.fileno));
            if (there) std::printf("+ %s\n", Name(*each.reg).c_str());
            if (!there) Complain(Name(*each.reg) + ": not registered in time");
            late += there ? 0 : 1;
        }
        waiting_.clear();
        return late;
    }

private:
    struct Waiting {
        const voq::DescribedRegister* reg;
        std::uint16_t fileno;
    };
    const Target& target_;
    voq::FileNumbers numbers_;
    std::vector<Waiting> waiting_;
};

std::size_t Register(const Target& target, const PortOptions& options, const ProjectDifference& difference,
                     double timeoutSeconds)
{
    const std::int64_t until = voq::NowMicroseconds() + static_cast<std::int64_t>(timeoutSeconds * 1e6);
    std::size_t late = 0;
    for (std::size_t at = 0; at < difference.added.size() && late == 0; at += AtOnce) {
        Registration registration(target, options.numbers);
        const std::size_t end = std::min(at + AtOnce, difference.added.size());
        for (std::size_t i = at; i < end; ++i) registration.LogOn(*difference.added[i]);
        late = registration.Finish(until);
        if (late != 0) late += difference.added.size() - end;
    }
    return late;
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
