// What the floors are made of: a file opened, locked as a whole, written and forced to the disk with the system calls
// that this takes and no others.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <string>

#include "report.h"

class RawFile
{
public:
    RawFile(const std::string& path, int flags) : file_(open(path.c_str(), flags, 0644))
    {
        struct flock lock {
        };
        lock.l_type = (flags & O_ACCMODE) == O_RDONLY ? F_RDLCK : F_WRLCK;
        if (file_ < 0 || fcntl(file_, F_SETLKW, &lock) != 0) Fail(path.c_str());
    }
    ~RawFile() { close(file_); }
    RawFile(const RawFile&) = delete;
    RawFile& operator=(const RawFile&) = delete;

    void Put(const void* bytes, std::size_t size, std::size_t offset) const
    {
        if (pwrite(file_, bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) Fail("write");
    }
    void Get(void* bytes, std::size_t size, std::size_t offset) const
    {
        if (pread(file_, bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) Fail("read");
    }
    void Sync() const { fsync(file_); }

private:
    int file_;
};

inline void SyncFolder(const std::string& folder)
{
    const int file = open(folder.c_str(), O_RDONLY | O_DIRECTORY);
    if (file < 0 || fsync(file) != 0) Fail(folder.c_str());
    close(file);
}
