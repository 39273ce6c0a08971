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
    Message message = {};     // of Arrived; `retain` when the broker had kept it
    int number = 0;           // of Acknowledged: what Publish or Subscribe returned
    std::string reason = {};  // of Down, for a person; empty when the caller ended it
};

class Link : public Outlet
{
public:
    // Throws Error when the library refuses the settings (a certificate that cannot be read).
    explicit Link(const BrokerSettings& settings);
    // Ends the thread, at most two seconds later; without Close the broker publishes the will.
    ~Link() override;
    Link(const Link&) = delete;
    Link& operator=(const Link&) = delete;

    // Connects with a clean session and this will, after a pause when the last attempt failed or its connection was
    // short: doubled from attempt to attempt, and drawn from half to the whole of it, so that many boxes do not come at
    // once. Up or Down follows; after Down it is to be called again.
    void Connect(const Message& will);
    // Down follows.
    void Close(bool withWill) override;

    // For poll (POLLIN): Next has something.
    int Descriptor() const;
    std::optional<LinkEvent> Next();

    std::optional<int> Publish(const Message& message) override;
    std::optional<int> Subscribe(const std::string& filter, int qos) override;

    // Bytes that the socket took and gave, of MQTT's packets as far as known.
    struct Figures {
        std::uint64_t sent = 0, received = 0;            // messages
        std::uint64_t bytesSent = 0, bytesReceived = 0;  // their topics and payloads
        std::uint64_t connections = 0;
    };
    Figures Counted() const;

private:
    struct Inner;
    std::unique_ptr<Inner> inner_;
};

}  // namespace voq::mqtt
