// The claims file of a port (`claims` in its directory): which request number is whose. The clients make it and keep
// it; the service knows nothing of it.
//
// For each number N there is one RegRequest at N * 32. Whoever uses the number holds an exclusive lock on these 32
// bytes for as long ("open file description" lock, not waited for): it ends with the client, however that ends. The
// record says what is open under the number, and outlives its client: whoever finds one without a lock closes what it
// names.
//
// record
//   all zeros            nothing
//   cmd LogOn            a subscription; subcmd 1: through the GUI FIFO; orgoffset: the service that it was sent to,
//                        the low half of `started` in its statistics, 0 when it may not have been sent or that is not
//                        known
//   any other cmd        a one-shot that may still be answered; orgoffset: seconds since 1970 when it was sent
#pragma once

#include <cstdint>

#include "voq/request.h"

constexpr std::uint64_t ClaimOffset(std::uint16_t number)
{
    return std::uint64_t{number} * sizeof(RegRequest);
}

inline constexpr std::uint8_t ClaimThroughGui = 1;

// A one-shot that was sent so long ago is not answered any more.
inline constexpr std::uint32_t ClaimForgottenSeconds = 600;
