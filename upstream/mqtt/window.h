// Samples that were handed to the broker's connection and are not yet known to have arrived. Pure; one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <deque>
#include <optional>
#include <vector>

#include "upstream/mqtt/sample.h"

namespace voq::mqtt
{

class Window
{
public:
    using Clock = std::chrono::steady_clock;

    // `number`: what the broker's acknowledgement will name; 0: it takes a Probe.
    void Sent(std::vector<Sample> samples, bool historical, int number, Clock::time_point now);
    // A probe of this number was sent: it stands for everything that takes one.
    void Probed(int number);
    // When a probe is needed: since the oldest sample that takes one.
    std::optional<Clock::time_point> Unprobed() const;

    struct Arrived {
        std::size_t historical = 0;             // samples
        Clock::time_point historicalSent = {};  // when the last of them were sent
    };
    // The broker has all up to this number.
    Arrived Acknowledged(int number);
    // The connection is gone: the live samples that may not have arrived, in their order. Empties the window.
    std::vector<Sample> Lost();

    std::size_t Samples() const { return samples_; }
    bool HoldsHistory() const { return historical_ != 0; }

private:
    struct Piece {
        std::vector<Sample> samples;
        bool historical;
        int number;
        Clock::time_point sent;
    };
    std::deque<Piece> pieces_;
    std::size_t samples_ = 0, historical_ = 0;
};

}  // namespace voq::mqtt
