// A file that other processes read through memory while the service changes it. Main thread, before any other exists.
#pragma once

#include <cstddef>

// Makes the file anew with `content`, under its name when it is whole, and maps it for as long as the process lives.
// Others may read it and not write it. Null with the reason in errno: when no more than that many bytes of it can be
// had, or when what lies in its place is no regular file. Once in a process.
//
// A file that is cut short or a disk that is full cannot end the process: the memory stays, from then on apart from the
// file, which is removed.
[[nodiscard]] void* MapNewFile(const char* path, const void* content, std::size_t size);
