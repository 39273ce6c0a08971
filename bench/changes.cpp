// Stands in front of the C library's calls for everything linked into the program.
#include "changes.h"

#include <dlfcn.h>
#include <fcntl.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdarg>

FileWork FileWorkSoFar;

extern "C" FILE* fopen(const char* path, const char* mode)
{
    static const auto next = reinterpret_cast<FILE* (*)(const char*, const char*)>(dlsym(RTLD_NEXT, "fopen"));
    ++FileWorkSoFar.opens;
    return next(path, mode);
}

extern "C" int open(const char* path, int flags, ...)
{
    va_list rest;
    va_start(rest, flags);
    const int mode = (flags & O_CREAT) != 0 ? va_arg(rest, int) : 0;
    va_end(rest);
    ++FileWorkSoFar.opens;
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

extern "C" int fcntl(int file, int command, ...)
{
    va_list rest;
    va_start(rest, command);
    void* const argument = va_arg(rest, void*);
    va_end(rest);
    if (command == F_SETLK || command == F_SETLKW) ++FileWorkSoFar.locks;
    return static_cast<int>(syscall(SYS_fcntl, file, command, argument));
}

extern "C" ssize_t pread(int file, void* bytes, size_t size, off_t offset)
{
    const ssize_t got = syscall(SYS_pread64, file, bytes, size, offset);
    ++FileWorkSoFar.reads;
    if (got > 0) FileWorkSoFar.bytesRead += static_cast<size_t>(got);
    return got;
}

extern "C" ssize_t pwrite(int file, const void* bytes, size_t size, off_t offset)
{
    ++FileWorkSoFar.writes;
    FileWorkSoFar.bytesWritten += size;
    return syscall(SYS_pwrite64, file, bytes, size, offset);
}

extern "C" int fsync(int file)
{
    ++FileWorkSoFar.syncs;
    return static_cast<int>(syscall(SYS_fsync, file));
}
