// When each register is to be told: on a change beyond its deadband, not too often, and from time to time without one.
// Pure; one thread.
#pragma once

#include <chrono>
#include <cstdint>
#include <optional>
#include <set>
#include <utility>
#include <vector>

#include "upstream/mqtt/catalogue.h"
#include "upstream/mqtt/sample.h"

namespace voq::mqtt
{

class Pacer
{
public:
    using Clock = std::chrono::steady_clock;

    // Nothing is due before it has changed, or All.
    explicit Pacer(const Catalogue& catalogue);

    // A register has another state or value.
    void Changed(const Sample& sample, Clock::time_point now);
    // All are to be told, whether they have changed or not.
    void All(Clock::time_point now);
    // It cannot be told before then.
    void Delay(std::uint32_t metric, Clock::time_point until) { Plan(metric, until); }
    // It has been told.
    void Told(const Sample& sample, Clock::time_point now);

    enum class Why : std::uint8_t { Refresh, Change };
    struct Due {
        std::uint32_t metric;
        Why why;
    };
    // What is due, at most so many, the longest due first. It stays due until it is told or changes back.
    std::vector<Due> DueAt(Clock::time_point now, std::size_t most) const;
    std::optional<Clock::time_point> Next() const;

private:
    struct Entry {
        State state = State::NoService;
        Value value;
        Clock::time_point told = {};  // when
        bool ever = false;
        bool changed = false;
        std::optional<Clock::time_point> due;
    };
    void Plan(std::uint32_t metric, std::optional<Clock::time_point> due);

    const Catalogue& catalogue_;
    std::vector<Entry> entries_;
    std::set<std::pair<Clock::time_point, std::uint32_t>> due_;
};

// True when a value is further from another than the deadband, or none of the same kind.
bool Beyond(double deadband, const Value& value, const Value& told);

}  // namespace voq::mqtt
