// The figures of all ports in the text format that Prometheus scrapes: docs/web.md lists them. Pure.
//
// Counters are those of the service and begin at 0 with it, which Prometheus takes for what it is. While a service is
// away its last figures stay, but for voq_up.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "web/port_view.h"

namespace voq::web
{

// Of this program itself.
struct OwnFigures {
    std::size_t readers = 0;
    std::uint64_t requests = 0, refused = 0;
};

std::string MetricsText(const std::vector<PortView>& ports, const OwnFigures& own);

}  // namespace voq::web
