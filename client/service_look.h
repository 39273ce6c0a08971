// Whether a service serves a port, and whether it is still the one that did.
#pragma once

#include <string>

#include "client/port_dir.h"

namespace voq
{

struct ServiceLook {
    bool running = false;
    int process = 0;  // its id; 0: not known, since it runs in another namespace of processes or keeps no lock

    // True for two looks at one service: nothing that it was told is forgotten.
    bool SameAs(const ServiceLook& other) const
    {
        return running && other.running && process != 0 && process == other.process;
    }
};

// Waits for nothing. `fifo` is the one that its reader is looked for in.
ServiceLook LookAtService(const PortDir& port, const std::string& fifo);

}  // namespace voq
