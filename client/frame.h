// Request frames and the way into a client FIFO.
#pragma once

#include <cstdint>
#include <span>
#include <string>

#include "client/bytes.h"
#include "client/error.h"
#include "voq/request.h"

namespace voq
{

// Subscribes a range. With `orgoffset` 0 the service finds or creates the range's record and counts the log-on in it; a
// known record offset goes straight to the list of subscribed ranges. A log-off must use the same form.
Bytes LogOnFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset = 0);
Bytes LogOffFrame(const RegKey& key, std::uint16_t fileno, std::uint32_t orgoffset = 0);

Bytes ReadFrame(const RegKey& key, std::uint16_t fileno);

// `value` is the whole range, in the PLC's byte order. Throws Error when its length is not the range's, or when the
// frame would be longer than its 16-bit length field can say.
Bytes WriteFrame(const RegKey& key, std::uint16_t fileno, std::span<const std::uint8_t> value);

// `operand` is the change descriptor, or the value image when `subcmd` names neither a pulse nor a change.
Bytes ReadChangeWriteFrame(const RegKey& key, std::uint8_t subcmd, std::uint16_t fileno,
                           std::span<const std::uint8_t> operand);

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
