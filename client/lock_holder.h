// Which process holds a lock on a file. Any thread; waits for nothing. Opens and closes the file, which ends the locks
// that the calling process itself holds on it in the older way (fcntl without "open file description").
#pragma once

#include <cstdint>
#include <optional>
#include <string>

namespace voq
{

struct LockHolder {
    std::int64_t pid = 0;  // 0: the system does not tell
    std::string name;      // of its program, empty when the system does not tell
};

// Who keeps a writer out; nothing when nobody does. The holder of an open file description lock is told of the caller's
// own processes alone, of everybody's to root.
std::optional<LockHolder> HolderOf(const std::string& path);

// "process 812 (python3)", "another process".
std::string HolderText(const LockHolder& holder);

}  // namespace voq
