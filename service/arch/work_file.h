// Working files: opened by path for one operation, locked as a whole against the client processes, counted while open.
// What is no regular file, a link too, cannot be opened.
//
// The locks belong to the process: they die when any descriptor of the file is closed in it, and they never hold
// threads of the service apart. Whoever opens a file of the register database holds the register database lock, and no
// operation opens a file that another frame of its thread still holds.
//
// Records are moved at explicit offsets straight through the descriptor: a write has reached the system when it
// returns, in the order in which it was made, and a read never returns bytes from before the lock.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "arch/scoped_flag.h"

// Files opened through the three open operations and not yet closed; diagnosis only. Written by every thread, relaxed.
extern std::atomic<std::int32_t> VoqFileOpenCount;

// Open a working file, wait for its whole-file lock, and store the stream. 0 on success; -1 after a message, the system
// error on standard error, and a null stream.
int FsOpenFileCreat(const char* path, std::FILE** stream);  // create or truncate; write lock
int FsOpenFileRW(const char* path, std::FILE** stream);     // existing file; write lock
int FsOpenFileRO(const char* path, std::FILE** stream);     // existing file; read lock

// Told of a lock that must be waited for, on the waiting thread: the file's path before, null behind. Set once, before
// any other thread exists; must not wait itself.
inline void (*OnLockWait)(const char* path) = nullptr;

// Forces what was written to the file onto the disk. Returns false when the system reports a failure.
bool FsSync(std::FILE* stream);

// While one lives, no file is forced to the disk: for files that are made anew when their making is cut short. Main
// thread, before any other thread exists.
inline bool SyncsHeld = false;
using HeldSyncs = ScopedFlag<SyncsHeld>;

// An opened working file; closes it and lowers VoqFileOpenCount at the end of its scope.
class WorkFile
{
public:
    WorkFile() = default;
    ~WorkFile() { Close(); }
    WorkFile(const WorkFile&) = delete;
    WorkFile& operator=(const WorkFile&) = delete;

    // As the operations above; true on success. The file must not be open.
    [[nodiscard]] bool Create(const char* path) { return FsOpenFileCreat(path, &stream_) == 0; }
    [[nodiscard]] bool OpenRW(const char* path) { return FsOpenFileRW(path, &stream_) == 0; }
    [[nodiscard]] bool OpenRO(const char* path) { return FsOpenFileRO(path, &stream_) == 0; }
    // As OpenRW for a file in a directory that is open to everybody: one that is neither root's nor the service's own,
    // or no regular file, is passed over in silence, before anybody's lock is waited for.
    [[nodiscard]] bool OpenTrustedRW(const char* path);
    // Opens for reading without a lock, "rb", silently; counted like the others.
    [[nodiscard]] bool OpenUnlocked(const char* path);
    // The same for a file that the service is given, whatever the path leads to: the project, a gateway box's ports.
    [[nodiscard]] bool OpenGiven(const char* path);

    [[nodiscard]] bool IsOpen() const { return stream_ != nullptr; }
    // Result of the close, 0 on success; 0 when nothing is open.
    int Close();

    // Bytes in the file; UINT32_MAX, which every use refuses, when it cannot be measured.
    [[nodiscard]] std::uint32_t Size() const;
    // Up to `size` bytes at `offset`; returns how many there were.
    [[nodiscard]] std::size_t ReadSome(std::uint32_t offset, void* buffer, std::size_t size) const;
    // Exactly `size` bytes at `offset`; false on a short transfer.
    [[nodiscard]] bool ReadAt(std::uint32_t offset, void* buffer, std::size_t size) const;
    [[nodiscard]] bool WriteAt(std::uint32_t offset, const void* buffer, std::size_t size) const;
    // Appends `size` zero bytes at the end.
    [[nodiscard]] bool AppendZeros(std::uint32_t size) const;
    [[nodiscard]] bool Truncate(std::uint32_t size) const;
    bool Sync() const { return FsSync(stream_); }

    template <typename Record>
    [[nodiscard]] bool ReadRecord(std::uint32_t offset, Record& record) const
    {
        return ReadAt(offset, &record, sizeof record);
    }
    template <typename Record>
    [[nodiscard]] bool WriteRecord(std::uint32_t offset, const Record& record) const
    {
        return WriteAt(offset, &record, sizeof record);
    }

private:
    bool Take(std::FILE* opened);

    std::FILE* stream_ = nullptr;
};
