// The ports of the box: what is subscribed there, and how the services and stations are. One thread. Waits for a file
// lock at most as long as a client may (LockPatience of the ports).
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "client/port.h"
#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/mode.h"

namespace voq::mqtt
{

class Source
{
public:
    struct Heard {
        std::function<void(std::uint32_t metric)> metric;  // its sample in Box() has another state or value
        std::function<void(std::uint32_t port)> port;
        std::function<void(std::uint32_t device)> device;
        std::function<void(Asked&)> answered;
        std::function<void(const std::string&)> trouble;  // in words; every time
    };

    // Subscribes everything of the catalogue, which must outlive it; where there is no port directory yet, in Look.
    Source(const Catalogue& catalogue, Heard heard);

    // For poll (POLLIN), by port.
    int Descriptor(std::uint32_t port) const { return ports_[port]->port.Descriptor(); }
    // Something has happened at a port.
    void Dispatch(std::uint32_t port);
    // Once a second: what no descriptor shows.
    void Look();

    const BoxState& Box() const { return box_; }
    // The same state and value as in Box(), with the time of the last reading.
    const Sample& Freshen(std::uint32_t metric);
    Port& PortAt(std::uint32_t port) { return ports_[port]->port; }

private:
    struct Followed : Range {
        std::uint32_t metric = 0;
        bool refused = false;
    };
    struct OnePort {
        explicit OnePort(PortDir dir) : port(std::move(dir)) {}
        std::vector<std::unique_ptr<Followed>> ranges;  // before the port, which logs them off when it ends
        Port port;
        std::vector<std::uint8_t> off;  // stations that are switched off
        Port::Clock::time_point troubledSince = {};
    };

    void Subscribe(OnePort& port);
    State StateOf(const OnePort& port, const Followed& range) const;
    void Take(const OnePort& port, const Followed& range);
    void TakeAll(const OnePort& port);
    void LookAtLink(std::uint32_t port);
    void LookAtStatistics(std::uint32_t port);

    const Catalogue& catalogue_;
    Heard heard_;
    BoxState box_;
    std::vector<std::unique_ptr<OnePort>> ports_;
    std::vector<const Followed*> byMetric_;
};

}  // namespace voq::mqtt
