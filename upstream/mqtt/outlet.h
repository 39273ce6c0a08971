// Where a mode publishes: the link to the broker, or a test's.
#pragma once

#include <optional>
#include <string>

namespace voq::mqtt
{

struct Message {
    std::string topic;
    std::string payload;  // any bytes
    int qos = 0;
    bool retain = false;
};

class Outlet
{
public:
    virtual ~Outlet() = default;
    // Nothing without a connection. The number of what is sent with QoS 1 or 2, told when the broker has it; they come
    // in the order of sending. 0 for QoS 0.
    virtual std::optional<int> Publish(const Message& message) = 0;
    // The number is told when the broker has subscribed, and so has handled all that was sent before. `kept`: it shall
    // send what it has kept of these topics. MQTT 3.1.1 sends that in any case.
    virtual std::optional<int> Subscribe(const std::string& filter, int qos, bool kept = false) = 0;
    // Ends the connection behind all that was published, with MQTT's own goodbye: the broker forgets the will.
    // `withWill`: where MQTT 5 is spoken the broker publishes it all the same.
    virtual void Close(bool withWill) = 0;
};

}  // namespace voq::mqtt
