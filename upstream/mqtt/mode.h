// How the box is told: topics, payloads, births and deaths of one convention. The main thread's. What it publishes it
// hands to the outlet itself.
#pragma once

#include <optional>
#include <span>
#include <string>
#include <vector>

#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/outlet.h"
#include "upstream/mqtt/sample.h"

namespace voq::mqtt
{

enum class PortState : std::uint8_t { Away, Runs, Timeout, Failing };  // of the service, and of its link to the PLCs

// What is so now; kept by the bridge, read by a mode.
struct BoxState {
    std::vector<Sample> samples;   // by metric
    std::vector<PortState> ports;  // by place in the catalogue
    std::vector<bool> devices;     // by place in the catalogue: answers, or has not yet failed
};

// A write that somebody asks for.
struct Command {
    std::uint32_t metric = 0;
    std::vector<std::string> texts;  // one an element, as EncodeScaled takes them
    std::string id;                  // of whoever asked, for the answer; may be empty
    std::string refused;             // why it is not to be carried out; empty: it is
};

class Mode
{
public:
    virtual ~Mode() = default;

    // Of the next connection: called once before each attempt.
    virtual Message Will() = 0;
    // The connection stands: subscribes, and tells everything when nothing has to be waited for.
    virtual void Up() = 0;
    virtual void Down() = 0;
    // Births are told, and nothing keeps values back: samples may be told.
    virtual bool Ready() const = 0;

    // What is told once for a connection holds every register's sample.
    virtual bool BirthsHoldValues() const { return true; }

    // Tells samples in their order, live ones or such that waited in the spool. The number of the last message when the
    // broker acknowledges it, 0 when it acknowledges none; nothing when it could not be sent: then none of it counts as
    // told.
    virtual std::optional<int> Tell(std::span<const Sample> samples, bool historical) = 0;
    // Asks the broker to acknowledge that it has handled everything before: the number, or nothing without a
    // connection.
    virtual std::optional<int> Probe() = 0;

    virtual void PortChanged(std::uint32_t port) = 0;
    virtual void DeviceChanged(std::uint32_t device) = 0;

    // What a message asks for: nothing when it asks for no write of a register.
    virtual std::vector<Command> Arrived(const Message& message) = 0;
    // What became of a command.
    virtual void Answered(const Command& command, bool written, const std::string& text) = 0;

    virtual void EachSecond() {}

    // The box goes: told before the connection is closed.
    virtual void Goodbye() = 0;

    // The primary host is away (Sparkplug): why nothing is told, for a person; empty otherwise.
    virtual std::string HeldUp() const { return {}; }
    // What else a person should know: why a message was passed over; empty when there is nothing new.
    virtual std::string Remark() { return {}; }
    // Samples of the spool that no longer fit their register.
    virtual std::uint64_t Unfit() const { return 0; }
};

}  // namespace voq::mqtt
