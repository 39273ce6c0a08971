// Resolves the port options. Main thread; reads the project's description.
#include "tools/target.h"

#include <algorithm>

#include "client/heartbeat.h"
#include "client/value_image.h"
#include "tools/printable.h"
#include "voq/reg_range.h"

using voq::LinkFromByte;
using voq::LinkFromName;
using voq::LinkName;

namespace
{

bool Is(const ComInfoRecord& record, const voq::PortDir& port)
{
    return record.portNo == port.number && LinkFromByte(record.linkType) == port.link;
}

voq::Description Load(const PortOptions& options)
{
    try {
        return voq::LoadDescription(options.project, DriverDirsOf(options.drivers));
    } catch (const voq::Error& error) {
        throw UsageError(error.what());
    }
}

std::optional<ServiceOrder> OrderOfService(const voq::PortDir& port)
{
    try {
        const auto statistics = voq::ReadStatistics(port.Stats());
        if (!statistics || !voq::WriterLives(*statistics)) return std::nullopt;
        return ServiceOrder{statistics->port.comInfo.byteOrder, statistics->port.panelOrder};
    } catch (const voq::Error&) {
        return std::nullopt;  // who may not read it has to say the word
    }
}

// The port that number and link name, and its place in the project.
void ResolveNumber(const PortOptions& options, Target& target)
{
    const auto link = LinkFromName(options.link.value_or("ethernet"));
    if (!link) throw UsageError("--link: \"" + *options.link + "\" is none of ethernet, serial, can");
    target.port.link = *link;
    target.port.number = *options.number;
    target.index = options.index.value_or(0);
    target.indexKnown = options.index || target.project;
    if (!target.project) return;
    const auto& ports = target.project->ports;
    const auto found = std::find_if(ports.begin(), ports.end(),
                                    [&](const voq::DescribedPort& port) { return Is(port.record, target.port); });
    const std::string name = std::string(LinkName(*link)) + " port " + std::to_string(target.port.number);
    if (found == ports.end()) throw UsageError("--port: " + options.project + " has no " + name);
    target.index = static_cast<std::uint16_t>(found - ports.begin());
    if (options.index.value_or(target.index) != target.index) {
        throw UsageError("--index: " + options.project + " has " + name + " at index " + std::to_string(target.index));
    }
}

// The port at a place in the project.
void ResolveIndex(const PortOptions& options, Target& target)
{
    const auto& ports = target.project->ports;
    target.index = options.index.value_or(0);
    target.indexKnown = true;
    if (target.index >= ports.size()) {
        throw UsageError("--index: " + options.project + " has " + std::to_string(ports.size()) +
                         " port(s), the first is 0");
    }
    target.port.link = LinkFromByte(ports[target.index].record.linkType).value_or(voq::LinkType::Ethernet);
    target.port.number = ports[target.index].record.portNo;
}

}  // namespace

Target Resolve(const PortOptions& options)
{
    Target target;
    target.port.user = options.dir;
    target.byteOrder = options.byteOrder;
    if (!options.project.empty()) target.project = Load(options);
    if (!options.number && options.link) throw UsageError("--link goes with --port");
    if (options.number) {
        ResolveNumber(options, target);
    } else if (target.project) {
        ResolveIndex(options, target);
    } else {
        throw UsageError("which port? Give --project (and --index, when it has several ports), or --port (and --link)");
    }
    if (options.fifo != "gui" && options.fifo != "mek") {
        throw UsageError("--fifo: \"" + options.fifo + "\" is neither gui nor mek");
    }
    target.service = OrderOfService(target.port);
    target.fifo = options.fifo == "gui" ? target.port.GuiFifo() : target.port.MekFifo();
    if (options.numbers.first > options.numbers.last) {
        throw UsageError("--first-number: " + std::to_string(options.numbers.first) + " is above --last-number " +
                         std::to_string(options.numbers.last));
    }
    return target;
}

voq::DriverDirs DriverDirsOf(const std::vector<std::string>& given)
{
    return given.empty() ? voq::StandardDriverDirs() : given;
}

std::vector<Target> ResolveAll(PortOptions options)
{
    std::vector<Target> targets;
    options.index = 0;
    do {
        targets.push_back(Resolve(options));
        ++*options.index;
    } while (*options.index < targets[0].project->ports.size());
    return targets;
}

voq::DescribedRegister Describe(const Target& target, const RegKey& key)
{
    if (const auto* found = target.project ? target.project->Find(key) : nullptr)
        return {found->name, {key, found->reg.type, found->reg.order}, found->station, found->meaning, found->line};
    voq::DescribedRegister plain;
    plain.reg = {key, voq::TypeOfSize(RegElemSize(&key))};
    return plain;
}

voq::DescribedRegister ResolveRegister(const Target& target, const std::string& text)
{
    voq::DescribedRegister found;
    if (const auto* named = target.project ? target.project->Find(text) : nullptr) {
        found = *named;
    } else if (voq::LooksLikeExpression(text)) {
        try {
            found.reg = voq::ParseExpression(text, target.port.number);
        } catch (const voq::Error& error) {
            throw UsageError(error.what());
        }
    } else {
        throw UsageError("\"" + text + "\" is no expression and " +
                         (target.project ? "no register of the project" : "there is no --project to look it up in"));
    }
    if (found.reg.key.portno == target.port.number) return found;
    throw UsageError(text + ": the range is of port " + std::to_string(found.reg.key.portno) + ", not of port " +
                     std::to_string(target.port.number));
}

namespace
{

std::uint16_t OrderOfService(const Target& target, const RegKey& key)
{
    return key.portno == REG_PORT_LOCAL ? target.service->panel : target.service->port;
}

void NoteOtherOrder(const Target& target, const voq::Register& reg, const std::string& what)
{
    if (!target.service || !voq::NeedsByteOrder(reg)) return;
    if (ByteOrderOf(target, reg.key) == OrderOfService(target, reg.key)) return;
    Complain(what + ": the service goes by another byte-order word than " +
             (target.byteOrder ? "--byte-order" : "the project") + ": what it computes is wrong for one of them");
}

}  // namespace

std::uint16_t ByteOrderOf(const Target& target, const RegKey& key)
{
    if (target.byteOrder) return *target.byteOrder;
    if (target.project) return target.project->ByteOrderOf(key.portno, static_cast<std::uint8_t>(target.port.link));
    return target.service ? OrderOfService(target, key) : 0;
}

bool ByteOrderKnown(const Target& target)
{
    return target.byteOrder || target.project || target.service;
}

bool ByteOrderMissing(const Target& target, const voq::Register& reg)
{
    return !ByteOrderKnown(target) && voq::NeedsByteOrder(reg);
}

void RequireByteOrder(const Target& target, const voq::Register& reg, const std::string& what)
{
    if (!ByteOrderMissing(target, reg)) return NoteOtherOrder(target, reg, what);
    throw UsageError(what + ": nothing says how the PLC lays out the bytes of a " + voq::TypeName(reg.type) +
                     ", and no service runs: give --project or --byte-order (0: lowest byte first); to write, "
                     "big_endian in the expression or raw:" +
                     std::to_string(reg.type.elemSize) + " will do too");
}

void NoteByteOrder()
{
    Complain(
        "nothing says how the PLC lays out bytes (no service, --project, --byte-order): values are shown lowest byte "
        "first");
}
