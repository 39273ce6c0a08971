// Checks descriptions beyond their form. Main thread.
#include "tools/project_check.h"

#include <algorithm>
#include <cstdio>
#include <map>
#include <set>
#include <tuple>

#include "client/description/port_fields.h"
#include "client/port_dir.h"
#include "tools/printable.h"
#include "voq/reg_range.h"

using voq::DescribedPort;
using voq::DescribedRegister;
using voq::Description;
using voq::Remarks;

namespace
{

constexpr std::size_t MaxPath = 63;               // of the service's working files
constexpr std::uint64_t AddressEnd = 1ull << 32;  // one behind the last address

constexpr std::uint32_t Bauds[] = {110,   300,   600,   1200,   2400,   4800,   9600,   14400,  19200,
                                   28800, 38400, 57600, 115200, 230400, 460800, 500000, 576000, 921600};
constexpr std::uint16_t FirstPanelArea = 253, LastPanelArea = 257;

using Registers = std::vector<const DescribedRegister*>;  // of one port

std::string NameOf(const DescribedRegister& reg)
{
    return "\"" + (reg.name.empty() ? voq::Expression(reg.reg) : reg.name) + "\"";
}

bool IsBits(const RegKey& key)
{
    return RegElemSize(&key) == 0;
}

std::uint32_t LimitOf(const ComInfoRecord& port, const RegKey& key)
{
    return IsBits(key) ? port.bitLimit : port.wordLimit;
}

const char* LimitName(const RegKey& key)
{
    return IsBits(key) ? "bit_limit" : "word_limit";
}

std::string Short(double number)
{
    char text[40];
    std::snprintf(text, sizeof text, "%.9g", number);
    return text;
}

// The number that a manual prints for address 0 of an area, five or six digits long; 0 for areas whose numbers look
// like addresses.
bool ManualNumber(const RegKey& key, std::uint32_t& address)
{
    if (key.regid != 1 && key.regid != 3 && key.regid != 4) return false;
    for (const std::uint32_t unit : {10000u, 100000u}) {
        const std::uint32_t first = key.regid * unit + 1;
        const std::uint32_t count = unit == 10000 ? 9999 : 65536;
        if (key.addr < first || key.addr >= first + count) continue;
        address = key.addr - first;
        return true;
    }
    return false;
}

void CheckAddress(const DescribedRegister& reg, Remarks& remarks)
{
    const RegKey& key = reg.reg.key;
    if (PollEnd(key) > AddressEnd) {
        remarks.Error(reg.line, NameOf(reg) + " ends behind the last address, 4294967295");
    }
    std::uint32_t address = 0;
    if (ManualNumber(key, address)) {
        remarks.Warning(reg.line, NameOf(reg) + ": address " + std::to_string(key.addr) +
                                      " looks like a manual's number; it would be address " + std::to_string(address) +
                                      " of area " + std::to_string(key.regid));
    }
    if (IsBits(key) && RegAddrType(&key) > 1) {
        remarks.Warning(reg.line, NameOf(reg) + ": " + std::to_string(RegAddrType(&key)) +
                                      " bytes an address, but every bit has an address of its own");
    }
    if (key.convpara >> 16 != 0) {
        remarks.Warning(reg.line,
                        NameOf(reg) + ": the service does not register it by itself: convpara is above 65535");
    }
}

void CheckSize(const DescribedRegister& reg, const ComInfoRecord& port, Remarks& remarks)
{
    const RegKey& key = reg.reg.key;
    const std::uint32_t limit = LimitOf(port, key);
    if (RegElemSize(&key) > 8) {
        remarks.Error(reg.line, NameOf(reg) + ": no driver gets an element of " + std::to_string(RegElemSize(&key)) +
                                    " bytes, 8 is the most");
    } else if (limit != 0 && std::uint64_t{limit} * ElemBytes(key) < UnitBytes(key)) {
        remarks.Error(reg.line, NameOf(reg) + ": " + LimitName(key) + " = " + std::to_string(limit) +
                                    " elements are less than one address, " + std::to_string(UnitBytes(key)) +
                                    " bytes: it is never read");
    } else if (limit != 0 && key.width > limit) {
        remarks.Warning(reg.line, NameOf(reg) + ": " + LimitName(key) + " = " + std::to_string(limit) + " cuts its " +
                                      std::to_string(key.width) + " elements into " +
                                      std::to_string((key.width + limit - 1) / limit) +
                                      " requests, which may be of different moments");
    }
}

// A limit that the type keeps by itself: the type is another than was meant, or the limit is.
void CheckLimit(const DescribedRegister& reg, const char* key, const std::optional<double>& limit, double low,
                double high, Remarks& remarks)
{
    if (!limit || (*limit >= low && *limit <= high)) return;
    remarks.Warning(reg.line, NameOf(reg) + ": " + key + " = " + Short(*limit) + " limits nothing, " +
                                  voq::TypeName(reg.reg.type) + " holds " + Short(low) + " to " + Short(high));
}

void CheckMeaning(const DescribedRegister& reg, Remarks& remarks)
{
    const voq::Meaning& meaning = reg.meaning;
    if (reg.reg.type.kind == voq::ValueKind::Raw || meaning.text != 0) return;
    const voq::ValueCoding coding = voq::CodingOf(reg.reg, 0);
    const double low = voq::LowestValue(coding).number, high = voq::HighestValue(coding).number;
    const auto [least, most] =
        std::minmax({low * meaning.scale + meaning.offset, high * meaning.scale + meaning.offset});
    if ((meaning.minimum && *meaning.minimum > most) || (meaning.maximum && *meaning.maximum < least)) {
        remarks.Error(reg.line,
                      NameOf(reg) + ": no value of " + voq::TypeName(reg.reg.type) + " is within min and max");
    } else {
        CheckLimit(reg, "min", meaning.minimum, least, most, remarks);
        CheckLimit(reg, "max", meaning.maximum, least, most, remarks);
    }
    if (!meaning.numberNames) return;
    for (const voq::NamedNumber& each : *meaning.numberNames) {
        const auto number = static_cast<double>(each.number);
        if (number >= low && number <= high) continue;
        remarks.Error(reg.line, NameOf(reg) + ": enum: " + std::to_string(each.number) + " (" + each.name +
                                    ") does not fit " + voq::TypeName(reg.reg.type));
    }
}

void CheckPanel(const DescribedRegister& reg, Remarks& remarks)
{
    const RegKey& key = reg.reg.key;
    if (key.portno != REG_PORT_LOCAL || (key.regid >= FirstPanelArea && key.regid <= LastPanelArea)) return;
    remarks.Warning(reg.line, NameOf(reg) + ": the panel's own registers have no area " + std::to_string(key.regid) +
                                  ", but 253 (RW), 254 (LB), 255 (LW), 256 (SRW) and 257 (SRB)");
}

void CheckDriver(const DescribedRegister& reg, const DescribedPort& port, Remarks& remarks)
{
    if (port.info == nullptr) return;
    const std::string why = voq::WhyRefused(*port.info, reg.reg.key);
    if (!why.empty()) remarks.Error(reg.line, NameOf(reg) + ": " + port.driver + ": " + Printable(why));
}

// Where the ranges lie that may overlap.
auto PlaceOf(const RegKey& key)
{
    return std::tuple(key.portno, key.plcno, key.regid, SubaddrLow(key), IsBits(key));
}

std::string TypeOf(const DescribedRegister& reg)
{
    return reg.meaning.text != 0 ? "text" : voq::TypeName(reg.reg.type);
}

// Of one type, but no element of the one is an element of the other.
bool Torn(const RegKey& key, const RegKey& other)
{
    return (std::uint64_t{key.addr} - other.addr) * UnitBytes(key) % ElemBytes(key) != 0;
}

void CheckPair(const DescribedRegister& reg, const DescribedRegister& other, Remarks& remarks)
{
    const auto& [first, second] = std::minmax(reg, other, [](const auto& a, const auto& b) { return a.line < b.line; });
    const std::string line = second.line == first.line ? "" : " of line " + std::to_string(first.line);
    if (SameRange(first.reg.key, second.reg.key)) {
        remarks.Warning(second.line, NameOf(second) + " is the same range as " + NameOf(first) + line +
                                         ": one record, shown as " + NameOf(first));
    } else if (TypeOf(first) == TypeOf(second)) {
        remarks.Warning(second.line, NameOf(second) + " overlaps a part of an element of " + NameOf(first) + line);
    } else {
        remarks.Warning(second.line, NameOf(second) + " (" + TypeOf(second) + ") overlaps " + NameOf(first) + " (" +
                                         TypeOf(first) + ")" + line);
    }
}

// Along the addresses of each place, against the range of every type that reaches farthest so far.
void CheckOverlaps(const Description& description, Remarks& remarks)
{
    std::vector<const DescribedRegister*> sorted;
    for (const DescribedRegister& each : description.registers) sorted.push_back(&each);
    std::stable_sort(sorted.begin(), sorted.end(), [](const auto* a, const auto* b) {
        const RegKey &x = a->reg.key, &y = b->reg.key;
        return std::tuple(PlaceOf(x), x.addr, x.width) < std::tuple(PlaceOf(y), y.addr, y.width);
    });
    std::map<std::string, const DescribedRegister*> farthest;  // by type
    const DescribedRegister* before = nullptr;
    for (const DescribedRegister* each : sorted) {
        const RegKey& key = each->reg.key;
        if (before != nullptr && PlaceOf(before->reg.key) != PlaceOf(key)) farthest.clear();
        const bool same = before != nullptr && SameRange(before->reg.key, key) && before->reg.key.portno == key.portno;
        if (same) CheckPair(*each, *before, remarks);
        for (const auto& [type, other] : farthest) {
            const bool fits = type == TypeOf(*each) && !Torn(key, other->reg.key);
            if (!fits && PollEnd(other->reg.key) > key.addr && !(same && other == before)) {
                CheckPair(*each, *other, remarks);
            }
        }
        const DescribedRegister*& reaches = farthest[TypeOf(*each)];
        if (reaches == nullptr || PollEnd(reaches->reg.key) < PollEnd(key)) reaches = each;
        before = each;
    }
}

void CheckPaths(const DescribedPort& port, const std::string& userDir, Remarks& remarks)
{
    if (userDir.empty()) return;
    const auto link = voq::LinkFromByte(port.record.linkType);
    const voq::PortDir dir{userDir, link.value_or(voq::LinkType::Ethernet), port.record.portNo};
    for (const std::string& path : {dir.ComError(), dir.Srw()}) {
        if (path.size() <= MaxPath) continue;
        remarks.Error(port.line, "the path " + path + " has " + std::to_string(path.size()) +
                                     " characters, the service takes " + std::to_string(MaxPath));
        return;
    }
}

void CheckNumber(const DescribedPort& port, Remarks& remarks)
{
    const std::uint16_t number = port.record.portNo;
    if (number == REG_PORT_LOCAL) {
        remarks.Error(port.line, "port 255 stands for the panel's own registers: no register of a PLC can be of it");
    } else if (number > 255) {
        remarks.Warning(port.line, "port " + std::to_string(number) +
                                       " is above 255: a reload frame has one byte for it, and the retained settings "
                                       "end at port 195");
    }
}

void CheckBaud(const DescribedPort& port, Remarks& remarks)
{
    const std::uint32_t baud = port.record.baudOrAddress;
    if (port.record.linkType != LINK_SERIAL || std::find(std::begin(Bauds), std::end(Bauds), baud) != std::end(Bauds))
        return;
    remarks.Warning(port.line, "baud = " + std::to_string(baud) + " is no usual speed of a line");
}

void CheckPort(const DescribedPort& port, Remarks& remarks)
{
    const ComInfoRecord& record = port.record;
    CheckNumber(port, remarks);
    CheckBaud(port, remarks);
    const bool master = record.masterSlaveMode != MODE_SLAVE;
    if (port.info != nullptr && port.info->linkType != record.linkType) {
        const auto link = voq::LinkFromByte(port.info->linkType);
        remarks.Error(port.line,
                      port.driver + " is a driver for " + voq::LinkName(link.value_or(voq::LinkType::Serial)));
    }
    if (record.linkType == LINK_ETHERNET && master && record.baudOrAddress == 0) {
        remarks.Warning(port.line, "the port has no address of a PLC");
    }
}

// The least time that one round of reads over a port's registers takes, as one read a turn.
struct PollingRound {
    std::size_t reads = 0;
    double milliseconds = 0;
};

// Joins ranges into reads as polling does, and counts them.
class ReadCounter
{
public:
    explicit ReadCounter(const ComInfoRecord& port) : port_(port) {}

    void Take(const RegKey& key)
    {
        if (!Joins(key)) {
            Close();
            read_ = key;
            open_ = true;
        } else {
            const std::uint64_t end = std::max(PollEnd(read_), PollEnd(key));
            read_.width = static_cast<std::uint16_t>(
                std::max<std::uint64_t>(ElementsOfSpan(end - read_.addr, read_), read_.width));
        }
    }

    PollingRound Finish()
    {
        Close();
        return round_;
    }

private:
    bool Joins(const RegKey& key) const
    {
        const std::uint32_t limit = LimitOf(port_, key);
        if (!open_ || (port_.flags & voq::PackingBits) != 0 || !SameGroup(read_, key) || key.width >= limit)
            return false;
        const std::uint32_t gap = IsBits(key) ? port_.bitGap : port_.wordGap;
        const std::uint64_t most = PollEnd(read_, limit);
        return key.addr < most && key.addr < PollEnd(read_) + AddressSpan(gap, read_) && PollEnd(key) <= most;
    }

    // A serial line moves ten bits a byte.
    void Close()
    {
        if (!open_) return;
        const std::uint32_t limit = LimitOf(port_, read_);
        const std::uint32_t requests = limit == 0 ? 1 : (read_.width + limit - 1) / limit;
        round_.reads += requests;
        round_.milliseconds += port_.pause;
        const std::uint64_t bytes = IsBits(read_) ? read_.width / 8u : GetRegBuffLen(&read_);
        if (port_.linkType == LINK_SERIAL && port_.baudOrAddress != 0) {
            round_.milliseconds += static_cast<double>(bytes) * 10 * 1000 / port_.baudOrAddress;
        }
        open_ = false;
    }

    const ComInfoRecord& port_;
    RegKey read_ = {};
    bool open_ = false;
    PollingRound round_;
};

PollingRound RoundOf(const Registers& registers, const DescribedPort& port)
{
    std::vector<RegKey> keys;
    for (const DescribedRegister* each : registers) keys.push_back(each->reg.key);
    std::sort(keys.begin(), keys.end(), [](const RegKey& a, const RegKey& b) {
        const auto order = [](const RegKey& key) {
            return std::tuple(key.plcno, key.regid, key.layout, SubaddrLow(key), GroupFlag(key), key.addr, key.width);
        };
        return order(a) < order(b);
    });
    ReadCounter counter(port.record);
    for (const RegKey& key : keys) counter.Take(key);
    return counter.Finish();
}

// What a priority promises: values get no older than this.
struct Promise {
    std::uint32_t priority;
    double milliseconds;
};
constexpr Promise Promises[] = {{3, 600}, {10, 10000}};

void CheckPriorities(const Registers& registers, const DescribedPort& port, Remarks& remarks)
{
    std::set<std::uint32_t> used;
    for (const DescribedRegister* each : registers) {
        used.insert(each->reg.key.flag >> REG_FLAG_PRIORITY_SHIFT & REG_FLAG_PRIORITY_MASK);
    }
    const PollingRound round = RoundOf(registers, port);
    for (const Promise& promise : Promises) {
        if (!used.contains(promise.priority) || round.milliseconds <= promise.milliseconds) continue;
        remarks.Warning(port.line, "priority " + std::to_string(promise.priority) + " means values of at most " +
                                       std::to_string(static_cast<unsigned>(promise.milliseconds)) +
                                       " ms, but a round of " + std::to_string(round.reads) + " reads takes at least " +
                                       std::to_string(static_cast<std::uint64_t>(round.milliseconds)) +
                                       " ms: lower pause_ms, or raise the limits and gaps");
    }
}

}  // namespace

void CheckDescription(const Description& description, const std::string& userDir, Remarks& remarks)
{
    const bool whole = remarks.Errors() == 0;  // else a register that could not be read may have been of any port
    std::map<std::uint16_t, Registers> registers;
    for (const DescribedRegister& reg : description.registers) registers[reg.reg.key.portno].push_back(&reg);
    std::map<std::uint16_t, const DescribedPort*> ports;  // the first of a number
    for (const DescribedPort& port : description.ports) {
        const Registers& own = registers[port.record.portNo];
        CheckPort(port, remarks);
        CheckPaths(port, userDir, remarks);
        CheckPriorities(own, port, remarks);
        if (whole && own.empty() && port.record.masterSlaveMode != MODE_SLAVE) {
            remarks.Warning(port.line, "no register is of port " + std::to_string(port.record.portNo));
        }
        ports.emplace(port.record.portNo, &port);
    }
    for (const DescribedRegister& reg : description.registers) {
        CheckAddress(reg, remarks);
        CheckMeaning(reg, remarks);
        const auto port = ports.find(reg.reg.key.portno);
        if (port == ports.end()) {
            CheckPanel(reg, remarks);
            continue;
        }
        CheckSize(reg, port->second->record, remarks);
        CheckDriver(reg, *port->second, remarks);
    }
    CheckOverlaps(description, remarks);
}
