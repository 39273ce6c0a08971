// The way of a frame into a client FIFO.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "client/error.h"

namespace voq
{

// No reader at the other end: the service does not run, or runs as a slave and has no FIFOs.
class ServiceNotRunning : public Error
{
public:
    using Error::Error;
};

// Writes one frame. A FIFO takes frames up to 4096 bytes as a whole; a longer one can be cut by another writer and is
// refused unless the caller says that it is the only writer. Waits up to five seconds for room. The process must ignore
// SIGPIPE. Throws ServiceNotRunning or Error.
enum class Writers { Several, OnlyThis };
void SendFrame(const std::string& fifo, std::span<const std::uint8_t> frame, Writers writers = Writers::Several);

// True when a process has the FIFO open for reading. False also when there is no FIFO.
bool FifoHasReader(const std::string& fifo);

}  // namespace voq
