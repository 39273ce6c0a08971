// The way of a frame into a client FIFO.
#pragma once

#include <chrono>
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

// The service has not made room in time.
class FifoFull : public Error
{
public:
    using Error::Error;
};

// Writes one frame, or several whole ones. A FIFO takes up to 4096 bytes as a whole; what is longer can be cut by
// another writer and is refused unless the caller says that it is the only writer. Waits for room for at most so long,
// and once a part of a longer frame is written for five seconds more. Raises no SIGPIPE. Throws ServiceNotRunning,
// FifoFull or Error.
enum class Writers { Several, OnlyThis };
inline constexpr std::chrono::milliseconds FifoPatience{5000};
void SendFrame(const std::string& fifo, std::span<const std::uint8_t> frame, Writers writers = Writers::Several,
               std::chrono::milliseconds patience = FifoPatience);

// Throws ServiceNotRunning when nobody reads the FIFO, or Error.
void RequireReader(const std::string& fifo);
// True when a process has the FIFO open for reading. False also when there is no FIFO.
bool FifoHasReader(const std::string& fifo);

}  // namespace voq
