// Resolves the port options. Main thread; reads the project's description.
#include "tools/target.h"

#include "voq/reg_range.h"

using voq::LinkFromByte;
using voq::LinkFromName;

Target Resolve(const PortOptions& options)
{
    Target target;
    target.port.user = options.dir;
    target.index = options.index;
    target.byteOrder = options.byteOrder;
    if (!options.project.empty()) target.project = LoadProjectToml(options.project);
    if (options.number) {
        const auto link = LinkFromName(options.link);
        if (!link) throw UsageError("--link: \"" + options.link + "\" is none of ethernet, serial, can");
        target.port.link = *link;
        target.port.number = *options.number;
    } else if (target.project) {
        const auto& ports = target.project->project.ports;
        if (options.index >= ports.size()) {
            throw UsageError("--index: " + options.project + " has " + std::to_string(ports.size()) +
                             " port(s), the first is 0");
        }
        target.port.link = LinkFromByte(ports[options.index].linkType).value_or(voq::LinkType::Ethernet);
        target.port.number = ports[options.index].portNo;
    } else {
        throw UsageError("which port? Give --port with --link, or --project with --index");
    }
    if (options.fifo != "gui" && options.fifo != "mek") {
        throw UsageError("--fifo: \"" + options.fifo + "\" is neither gui nor mek");
    }
    target.fifo = options.fifo == "gui" ? target.port.GuiFifo() : target.port.MekFifo();
    return target;
}

std::vector<Target> ResolveAll(PortOptions options)
{
    std::vector<Target> targets;
    options.index = 0;
    do {
        targets.push_back(Resolve(options));
        ++options.index;
    } while (options.index < targets[0].project->project.ports.size());
    return targets;
}

Described Describe(const Target& target, const RegKey& key)
{
    const std::size_t known = target.project ? target.project->project.registers.size() : 0;
    for (std::size_t i = 0; i < known; ++i) {
        const RegKey& other = target.project->project.registers[i];
        if (other.portno == key.portno && SameGroup(other, key) && NodeCompare(other, key) == 0) {
            return {{key, target.project->types[i]}, target.project->names[i]};
        }
    }
    return {{key, voq::TypeOfSize(RegElemSize(&key))}, ""};
}

voq::Register ResolveRegister(const Target& target, const std::string& text)
{
    voq::Register reg;
    const auto found = target.project ? target.project->Find(text) : std::nullopt;
    if (found) {
        reg = {target.project->project.registers[*found], target.project->types[*found]};
    } else if (voq::LooksLikeExpression(text)) {
        try {
            reg = voq::ParseExpression(text, target.port.number);
        } catch (const voq::Error& error) {
            throw UsageError(error.what());
        }
    } else {
        throw UsageError("\"" + text + "\" is no expression and " +
                         (target.project ? "no register of the project" : "there is no --project to look it up in"));
    }
    if (reg.key.portno == target.port.number) return reg;
    throw UsageError(text + ": the range is of port " + std::to_string(reg.key.portno) + ", not of port " +
                     std::to_string(target.port.number));
}

std::uint16_t ByteOrderOf(const Target& target, const RegKey& key)
{
    if (target.byteOrder) return *target.byteOrder;
    if (!target.project) return 0;
    const voq::Project& project = target.project->project;
    if (key.portno == REG_PORT_LOCAL) return project.byteOrder;
    for (const ComInfoRecord& port : project.ports) {
        const bool same = port.portNo == target.port.number && LinkFromByte(port.linkType) == target.port.link;
        if (same) return port.byteOrder;
    }
    return 0;
}
