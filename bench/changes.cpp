// Stands in front of the C library's calls for everything linked into the program.
#include "changes.h"

#include <sys/syscall.h>
#include <unistd.h>

FileChanges Changes;

extern "C" ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset)
{
    ++Changes.writes;
    Changes.bytes += size;
    return syscall(SYS_pwrite64, file, bytes, size, offset);
}

extern "C" int fsync(int file)
{
    ++Changes.syncs;
    return static_cast<int>(syscall(SYS_fsync, file));
}
