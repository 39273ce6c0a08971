// Opening by path what is surely a plain file. Others may write to the directories that the service works in: what they
// put in a file's place must neither lead elsewhere nor let the service wait. Any thread; never waits for another
// process.
#pragma once

enum class FileKind { None, Regular, Fifo, Other };  // a link is Other, wherever it leads

// None also when the system does not say.
[[nodiscard]] FileKind KindOf(const char* path);

// Whether it is a regular file of root's or of this process's own user; false also when the system does not say.
[[nodiscard]] bool TrustedFile(const char* path);
[[nodiscard]] bool TrustedFile(int descriptor);

// A regular file's descriptor, closed on exec, or -1 with the reason in errno: a link in the last component, and
// whatever else is no regular file, is refused. `flags` as for open(); a file that is made gets 0666 less the umask.
[[nodiscard]] int OpenRegular(const char* path, int flags);

// Makes the file, or empties the one that is there; false with the reason in errno.
[[nodiscard]] bool MakeEmptyFile(const char* path);
