// Reading a file of the service as a whole or in part, or changing a part of one, under the whole-file lock that the
// service respects.
//
// Each call takes one lock, copies, and releases it: a caller can never hold two, so it can never be part of a deadlock
// with the service. The lock belongs to the call's own descriptor, not to the process (an "open file description"
// lock): calls may run at the same time on the same file in several threads.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <span>
#include <string>

#include "client/bytes.h"

namespace voq
{

// A register database beyond this size is refused rather than copied.
inline constexpr std::uint64_t MaxFileBytes = 64u << 20;

// As long as one lives, this thread waits for a lock for at most so long: then a LockHeld names the process that holds
// it. Without one, without limit. The innermost counts.
class LockPatience
{
public:
    explicit LockPatience(std::chrono::milliseconds atMost);
    ~LockPatience();
    LockPatience(const LockPatience&) = delete;
    LockPatience& operator=(const LockPatience&) = delete;

private:
    std::optional<std::chrono::milliseconds> before_;
};

// The file's content; nothing when there is no such file. Waits for the service. Throws Error when it cannot be read or
// is larger than MaxFileBytes.
std::optional<Bytes> ReadLocked(const std::string& path);

// At most `length` bytes from `offset`: fewer when the file ends first.
std::optional<Bytes> ReadLockedRange(const std::string& path, std::uint64_t offset, std::size_t length);

// Pieces of a file, read under one lock; false when there is no such file. `have` is less than asked for where the file
// ends first.
struct FilePiece {
    std::uint64_t offset = 0;
    std::span<std::uint8_t> into = {};
    std::size_t have = 0;
};
bool ReadLockedPieces(const std::string& path, std::span<FilePiece> pieces);

std::optional<std::uint64_t> FileSize(const std::string& path);

// Changes `length` bytes at `offset` in one locked operation and forces them to the disk. Bytes behind the end read as
// zeros. A file that is missing or empty is made, `newSize` bytes of zeros.
void ChangeLocked(const std::string& path, std::size_t newSize, std::uint64_t offset, std::size_t length,
                  const std::function<void(std::span<std::uint8_t>)>& change);

}  // namespace voq
