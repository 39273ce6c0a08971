// The connection to the broker. A thread of its own connects, sends and receives; what happened is told as events to
// the one other thread that uses it. Never waits but in the destructor.
#pragma once

#include <chrono>
#include <cstdint>
#include <memory>
#include <optional>
#include <string>

#include "upstream/mqtt/outlet.h"
#include "upstream/mqtt/settings.h"

namespace voq::mqtt
{

struct LinkEvent {
    enum class Type : std::uint8_t { Up, Down, Arrived, Acknowledged };
    Type type;
    // Of Arrived. `retain`: the broker had kept it; of a subscription that asks for none of those, with MQTT 5: its
    // sender wanted it kept.
    Message message = {};
    int number = 0;  // of Acknowledged: what Publish or Subscribe returned
    // For a person. Of Down: empty when the caller ended it. Of Acknowledged: why the broker refuses the message or the
    // subscription, which is done with nevertheless; empty when it took it.
    std::string reason = {};
};

class Link : public Outlet
{
public:
    // Throws Error when the library refuses the settings (a certificate that cannot be read).
    explicit Link(const BrokerSettings& settings);
    // Ends the thread, at most two seconds later; without Close the broker publishes the will. A thread that then still
    // waits for a name is left to itself: it holds what it needs, and ends when the resolver lets it go. Everything
    // else has an end of its own: 15 s from the resolved name to the broker's answer.
    ~Link() override;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Connects with a clean session and this will, after a pause unless it is the first time or the caller ended the
    // last connection: doubled after each attempt that failed or whose connection was shorter than the longest pause,
    // and drawn from half to the whole of it, so that many boxes do not come at once. Up or Down follows; after Down it
    // is to be called again. Where a name has addresses of both families, attempts change between them; of one family
    // the resolver's first is taken.
    void Connect(const Message& will);
    // Down follows. Waits for what was published and is not acknowledged one second at most.
    void Close(bool withWill) override;

    // For poll (POLLIN): Next has something.
    int Descriptor() const;
    std::optional<LinkEvent> Next();

    // What the broker's limit of messages in flight holds back waits here, and what is published or subscribed later
    // waits behind it. How much is on its way is the caller's to bound.
    std::optional<int> Publish(const Message& message) override;
    std::optional<int> Subscribe(const std::string& filter, int qos, bool kept = false) override;

    struct Figures {
        std::uint64_t sent = 0, received = 0;            // messages
        std::uint64_t bytesSent = 0, bytesReceived = 0;  // their topics and payloads
        std::uint64_t refused = 0;                       // sent, but by the broker or the library refused
        std::uint64_t lost = 0;                          // arrived, but too large or too many at once
        std::uint64_t connections = 0;
    };
    Figures Counted() const;

private:
    class Inner;
    std::shared_ptr<Inner> inner_;
};

}  // namespace voq::mqtt
