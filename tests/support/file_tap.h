// A hand on every way in which the service changes a file: the calls are wrapped by the linker (target voq_file_tap)
// and shown to the tap before they are made.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>

struct FileChange {
    enum Kind { Write, Resize, Sync, Create, MakeDirectory, Remove, Rename } kind;
    int descriptor = -1;  // Write, Resize, Sync
    const char* path = nullptr;
    const char* to = nullptr;  // Rename
    std::uint32_t offset = 0;
    const void* data = nullptr;
    std::size_t size = 0;  // bytes to write, or the new size
};

// Says how many bytes of a write are made, and whether (not 0) any other change is. The service is told of success.
using FileTap = std::function<std::size_t(const FileChange&)>;
extern FileTap Tap;
extern bool Streams;  // false: none can be opened
inline std::size_t AllOf(const FileChange& change)
{
    return change.kind == FileChange::Write ? change.size : 1;
}
