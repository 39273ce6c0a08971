// Reading a file of the service as a whole or in part, under the whole-file read lock that the service respects.
//
// Each call takes one lock, copies, and releases it: a caller can never hold two, so it can never be part of a deadlock
// with the service. A lock dies when the process closes any descriptor of the file; these calls therefore must not run
// at the same time on the same file in two threads of one process.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>

#include "client/bytes.h"

namespace voq
{

// A register database beyond this size is refused rather than copied.
inline constexpr std::uint64_t MaxFileBytes = 64u << 20;

// The file's content; nothing when there is no such file. Waits for the service. Throws Error when it cannot be read or
// is larger than MaxFileBytes.
std::optional<Bytes> ReadLocked(const std::string& path);

// At most `length` bytes from `offset`: fewer when the file ends first.
std::optional<Bytes> ReadLockedRange(const std::string& path, std::uint64_t offset, std::size_t length);

std::optional<std::uint64_t> FileSize(const std::string& path);

}  // namespace voq
