// What becomes of answers that nobody waits for any more.
#pragma once

#include <chrono>
#include <string>

#include "client/file_number.h"
#include "client/requests.h"

namespace voq
{

// Leaves a process behind that removes the answers when they come. It ends when the last one has, when the service does
// (nobody reads `fifo`), or when the time is over, and keeps the numbers meanwhile. All requests must have been given
// up. It keeps none of the caller's other files open and no terminal. Returns its id; throws Error when there is none.
// Forks: the process must have no other thread that holds a lock.
int LeaveRemover(Requests& requests, const FileNumbers& numbers, const std::string& fifo,
                 std::chrono::milliseconds atMost);

}  // namespace voq
