// Names in the file system and the reading end of the client FIFOs. Any thread.
#include "arch/fs.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "arch/system_error.h"

bool FileExists(const char* path)
{
    return access(path, F_OK) == 0 || (errno != ENOENT && errno != ENOTDIR);
}

bool FileSurelyExists(const char* path)
{
    return access(path, F_OK) == 0;
}

int RemoveFile(const char* path)
{
    return std::remove(path);
}

void MakeDirectory(const char* path)
{
    mkdir(path, 0777);
}

bool MakeFifo(const char* path)
{
    return mkfifo(path, 0777) == 0;
}

bool SyncDirectory(const char* path)
{
    const int descriptor = open(path, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (descriptor < 0) return false;
    const bool synced = fsync(descriptor) == 0;
    close(descriptor);
    return synced;
}

bool RenameFile(const char* from, const char* to)
{
    return std::rename(from, to) == 0;
}

bool RunShell(const char* command)
{
    const bool done = std::system(command) == 0;
    if (!done) std::printf("*VOQ*shell command failed: %s\r\n", command);
    return done;
}

void RemoveFilesByPrefix(const char* directory, const char* prefix, std::size_t most)
{
    DIR* entries = opendir(directory);
    if (entries == nullptr) return;
    const std::size_t prefixLength = std::strlen(prefix);
    std::size_t seen = 0;
    // The plain readdir of a 32-bit system ends at the first file whose number or place takes more than 32 bits.
    for (const dirent64* entry = readdir64(entries); entry != nullptr && seen < most;
         entry = readdir64(entries), ++seen) {
        if (std::strncmp(entry->d_name, prefix, prefixLength) == 0 &&
            std::isxdigit(static_cast<unsigned char>(entry->d_name[prefixLength])) != 0)
            unlinkat(dirfd(entries), entry->d_name, 0);
    }
    closedir(entries);
}

int OpenFifo(const char* path)
{
    int descriptor;
    do {
        descriptor = open(path, O_RDONLY | O_CLOEXEC);
    } while (descriptor < 0 && errno == EINTR);
    // The writing descriptor lives as long as the process: nothing closes it.
    if (descriptor >= 0 && open(path, O_WRONLY | O_CLOEXEC) < 0) {
        PrintSystemError("open fifo for writing:");
        close(descriptor);
        return -1;
    }
    return descriptor;
}

long ReadFifo(int descriptor, void* buffer, std::size_t size)
{
    ssize_t got;
    do {
        got = read(descriptor, buffer, size);
    } while (got < 0 && errno == EINTR);
    return got;
}

void IgnoreBrokenPipe()
{
    std::signal(SIGPIPE, SIG_IGN);
}
