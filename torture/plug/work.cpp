// The client: one operation after the other, each followed to its end.
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <random>
#include <set>

#include "client/change.h"
#include "client/database.h"
#include "client/fifo.h"
#include "client/frame.h"
#include "client/locked_file.h"
#include "client/register.h"
#include "client/result_file.h"
#include "guest.h"
#include "voq/reg_range.h"

namespace
{
constexpr unsigned MostOperations = 100000;
constexpr unsigned Stations = 4, Areas = 3, Addresses = 4000;
constexpr unsigned FirstAtEnd = 10000;       // above it addresses ascend
constexpr std::uint16_t FirstPulse = 60000;  // request number of the first bit's
constexpr unsigned LongPulseMs = 600000;     // longer than the machine runs
constexpr unsigned MostSubscribed = 1500;    // the service takes 2047

struct Client {
    std::mt19937 random;
    std::vector<RegKey> known;
    std::set<std::string> names;
    std::uint32_t atEnd = FirstAtEnd;
    std::uint16_t number = 0;
    unsigned subscribed = 0;
    enum class Pulse { None, Asked, Running };
    std::array<Pulse, PulseBits> pulses{};

    unsigned Below(unsigned end) { return static_cast<unsigned>(random() % end); }
    std::uint16_t NextNumber() { return number = static_cast<std::uint16_t>(number % 50000 + 1); }
    std::string Fifo() { return Below(2) == 0 ? Port.GuiFifo() : Port.MekFifo(); }
    const RegKey& Some() { return known[Below(static_cast<unsigned>(known.size()))]; }

    void Step();
    void Register();
    void Confirm(const RegKey& key, std::uint32_t offset, const std::string& fifo);
    void OnAndOff();
    void Write();
    void Change();
    void StartPulse();
    void LookAtPulses();
    bool Ask(std::uint16_t fileno, const voq::Bytes& frame);
};

std::optional<OrgNode> RecordOf(std::uint32_t offset)
{
    const auto bytes = voq::ReadLockedRange(Port.Org(), offset, sizeof(OrgNode));
    return bytes ? voq::RecordAt<OrgNode>(*bytes, 0) : std::nullopt;
}

// A range that came to the end of its group is linked without a sync: the next operation on the file brings it. A group
// is a station and an area here.
bool LinkMayBeLost(const OrgNode& node)
{
    const auto ahead = node.prev == 0 ? std::nullopt : RecordOf(node.prev);
    const auto behind = node.next == 0 ? std::nullopt : RecordOf(node.next);
    const auto grouped = [&](const auto& other) { return other && SameStationArea(other->key, node.key); };
    return grouped(ahead) && !grouped(behind);
}

// Anywhere in its group, or at the end of it.
void Client::Register()
{
    const std::uint32_t addr = Below(3) == 0 ? (atEnd += 2) : 2 * Below(Addresses);
    const std::string text = "s" + std::to_string(1 + Below(Stations)) + ":a" + std::to_string(Below(Areas)) + ":u32@" +
                             std::to_string(addr);
    const RegKey key = voq::ParseExpression(text, Port.number).key;
    if (!names.insert(NameOf(key)).second) return;
    Say("ask " + NameOf(key), true);
    const std::string fifo = Fifo();
    const std::uint16_t fileno = NextNumber();
    std::uint32_t offset = 0;
    voq::SendFrame(fifo, voq::LogOnFrame(key, fileno));
    WaitFor("a registration", [&] { return (offset = voq::FindRange(Port, key)) != 0; });
    const auto node = RecordOf(offset);
    if (!node) throw voq::Error("no record where the range is said to be");
    Say((LinkMayBeLost(*node) ? "found " : "synced ") + NameOf(key));
    known.push_back(key);
    if (Below(3) == 0) Confirm(key, offset, fifo);
    if (subscribed == MostSubscribed || Below(5) != 0) {
        voq::SendFrame(fifo, voq::LogOffFrame(key, fileno));
    } else {
        ++subscribed;
    }
}

// A second log-on is counted in the record, and the file synced, links and all.
void Client::Confirm(const RegKey& key, std::uint32_t offset, const std::string& fifo)
{
    const std::uint16_t fileno = NextNumber();
    voq::SendFrame(fifo, voq::LogOnFrame(key, fileno));
    WaitFor("a log-on", [&] {
        const auto node = RecordOf(offset);
        return node && node->logtimes == 2;
    });
    Say("synced " + NameOf(key));
    voq::SendFrame(fifo, voq::LogOffFrame(key, fileno));
}

void Client::OnAndOff()
{
    const RegKey key = Some();
    const std::string fifo = Fifo();
    const std::uint16_t fileno = NextNumber();
    voq::SendFrame(fifo, voq::LogOnFrame(key, fileno));
    voq::SendFrame(fifo, voq::LogOffFrame(key, fileno));
}

bool Client::Ask(std::uint16_t fileno, const voq::Bytes& frame)
{
    voq::RemoveResult(Port, fileno);  // of a run before
    voq::SendFrame(Fifo(), frame);
    std::optional<voq::ResultFile> answer;
    WaitFor("an answer", [&] { return (answer = voq::ReadResult(Port, fileno)).has_value(); });
    voq::RemoveResult(Port, fileno);
    if (answer->item.result != PLC_SUCCESS) Say("failed " + std::to_string(answer->item.result));
    return answer->item.result == PLC_SUCCESS;
}

void Client::Write()
{
    const RegKey key = Some();
    const auto value = static_cast<std::uint32_t>(random()) | 1;
    voq::Bytes bytes;
    voq::PutRecord(bytes, 0, value);
    const std::uint16_t fileno = NextNumber();
    if (Ask(fileno, voq::WriteFrame(key, fileno, bytes))) Say("wrote " + NameOf(key) + " " + std::to_string(value));
}

void Client::Change()
{
    const RegKey key = Some();
    const voq::ChangeRequest change = voq::BuildChange({key, voq::TypeOfSize(4)}, 0, {"add", {"3"}, {}, {}, true});
    const std::uint16_t fileno = NextNumber();
    if (!Ask(fileno, voq::ReadChangeWriteFrame(change.key, change.subcmd, fileno, change.operand))) return;
    std::uint32_t value = 0;
    std::memcpy(&value, &Plc->registers[key.plcno][key.regid][key.addr * 2], sizeof value);
    if (value != 0) Say("wrote " + NameOf(key) + " " + std::to_string(value));
}

// Even bits are pulsed until the machine is gone, odd ones shortly, so that notes are struck off and used again.
bool LastsLonger(unsigned bit)
{
    return bit % 2 == 0;
}

void Client::StartPulse()
{
    const unsigned bit = Below(PulseBits);
    if (pulses[bit] != Pulse::None) return;
    Say("pulse " + std::to_string(bit), true);
    Plc->registers[PulseStation][PulseArea][bit] = 0;
    const voq::Register reg = voq::ParseExpression("s1:a3:bit@" + std::to_string(bit), Port.number);
    const unsigned milliseconds = LastsLonger(bit) ? LongPulseMs : 100 * (1 + Below(10));
    const voq::ChangeRequest pulse = voq::BuildPulse(reg, 0, {}, true, milliseconds);
    const auto fileno = static_cast<std::uint16_t>(FirstPulse + bit);
    voq::RemoveResult(Port, fileno);
    voq::SendFrame(Fifo(), voq::ReadChangeWriteFrame(pulse.key, pulse.subcmd, fileno, pulse.operand));
    pulses[bit] = Pulse::Asked;
}

// A bit that is set has been noted. Of a short pulse nothing can be relied on: it may be over before that is said.
void Client::LookAtPulses()
{
    for (unsigned bit = 0; bit < PulseBits; ++bit) {
        const bool set = *static_cast<volatile std::uint8_t*>(&Plc->registers[PulseStation][PulseArea][bit]) != 0;
        if (pulses[bit] == Pulse::Asked && set) {
            pulses[bit] = Pulse::Running;
            if (LastsLonger(bit)) Say("set " + std::to_string(bit));
        } else if (pulses[bit] == Pulse::Running && !set) {
            if (LastsLonger(bit)) throw voq::Error("a pulse ended before its time");
            pulses[bit] = Pulse::None;
        }
    }
}

void Client::Step()
{
    const unsigned kind = Below(100);
    if (kind < 45) {
        Register();
    } else if (kind < 55) {
        OnAndOff();
    } else if (kind < 75) {
        Write();
    } else if (kind < 85) {
        Change();
    } else {
        StartPulse();
    }
    LookAtPulses();
}
}  // namespace

void Work(unsigned seed, std::vector<RegKey> known)
{
    Client client{std::mt19937(seed), std::move(known), {}};
    for (const RegKey& key : client.known) {
        client.names.insert(NameOf(key));
        client.atEnd = std::max(client.atEnd, key.addr);
    }
    if (client.known.empty()) throw voq::Error("the project's ranges are not registered");
    for (unsigned done = 0; done < MostOperations; ++done) client.Step();
}
