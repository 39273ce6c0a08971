// What is wrong with a port, as far as its statistics tell, each with what to do about it. Pure; any thread.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "client/heartbeat.h"
#include "client/stats.h"

namespace voq
{

struct Trouble {
    enum class Kind : std::uint8_t { Hang, Lock, Driver, Link, Station, Refused, Slow };
    Kind kind;
    std::vector<std::uint8_t> stations = {};  // of Link, Station and Refused
    std::string text;                         // a line: what, then what to do
};

// Of a service that lives. `now` is in microseconds since 1970; `stationsOff` are those that the operator has switched
// off, which fail for nobody. A station that no subscription polls counts for a minute after its last failure.
std::vector<Trouble> Troubles(const Statistics& statistics, const Heartbeat& heartbeat,
                              const std::vector<std::uint8_t>& stationsOff, std::int64_t now);

}  // namespace voq
