// One request to a station and its answer. Runs inside the driver's commands; waits for the answer, never longer than
// the limit. An answer to an earlier request that has timed out is told apart, named and passed over.
#pragma once

#include "connection.h"

// Sends the question over a connection that is ready and waits for `limitMs`. `data` gives the values of a write and
// takes those of a read.
[[nodiscard]] Reply Ask(Connection& connection, const ComInfoRecord& info, const Question& question, std::uint8_t* data,
                        std::uint32_t limitMs);

// Looks at what has come since the last request, without waiting for more.
void TakeLateAnswers(Connection& connection, const ComInfoRecord& info);
