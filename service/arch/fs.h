// Names in the file system: existence, removal, directories, FIFOs. Any thread.
#pragma once

#include <cstddef>

// False only when the system says that there is none: a failing disk must not make what exists look missing.
[[nodiscard]] bool FileExists(const char* path);
// True only when the system says that it is there: for files whose presence alone has consequences.
[[nodiscard]] bool FileSurelyExists(const char* path);
// 0 on success, as remove().
int RemoveFile(const char* path);
void MakeDirectory(const char* path);
// Creates a FIFO with permissions 0777; false on failure.
[[nodiscard]] bool MakeFifo(const char* path);
// Makes creations and removals in a directory outlast a power cut; false when the system reports a failure.
bool SyncDirectory(const char* path);
[[nodiscard]] bool RenameFile(const char* from, const char* to);
// True when the command ended with success.
bool RunShell(const char* command);
// Removes every file of the directory whose name begins with `prefix` and a hexadecimal digit; looks at no more than
// `most` names.
void RemoveFilesByPrefix(const char* directory, const char* prefix, std::size_t most);

// Opens the reading end of a FIFO and waits for its first writer, then keeps a writing descriptor of its own, so that
// a later read waits for bytes instead of returning at once when every client has closed. Returns -1 on failure.
[[nodiscard]] int OpenFifo(const char* path);
// One read: the number of bytes, or -1 on failure. Waits for bytes.
[[nodiscard]] long ReadFifo(int descriptor, void* buffer, std::size_t size);

void IgnoreBrokenPipe();
