// Serving one request of an outside master through the call-backs. Runs inside "Loop"; may wait for another process's
// file lock in a call-back, never for the master.
#pragma once

#include <modbus.h>

#include <cstdint>

#include "voq/plc_driver.h"

// A whole request: a header, the function code at `pdu`, and behind the data `trailer` bytes of checksum.
struct Indication {
    const std::uint8_t* bytes;
    int length;
    int header;
    int trailer;
};

// Does what is asked and, unless it is a broadcast, answers on the context's socket. False when the answer could not be
// sent.
[[nodiscard]] bool ServeRequest(modbus_t* context, const Indication& indication, const UserOper& oper, bool broadcast);
