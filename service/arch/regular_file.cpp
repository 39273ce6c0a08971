// statx and not fstat: on a 32-bit system that one fails for a file whose number, size or times take more than 32 bits.
#include "arch/regular_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

namespace
{
struct Facts {
    FileKind kind;
    bool trusted;  // root's or our own
};

Facts LookAt(int descriptor)
{
    struct statx facts;
    if (statx(descriptor, "", AT_EMPTY_PATH, STATX_TYPE | STATX_UID, &facts) != 0) return {FileKind::None, false};
    const bool trusted = facts.stx_uid == 0 || facts.stx_uid == geteuid();
    if (S_ISREG(facts.stx_mode)) return {FileKind::Regular, trusted};
    return {S_ISFIFO(facts.stx_mode) ? FileKind::Fifo : FileKind::Other, trusted};
}

// By a descriptor: what translates paths between the service and the kernel may not know statx.
Facts LookAt(const char* path)
{
    const int descriptor = open(path, O_PATH | O_NOFOLLOW | O_CLOEXEC);
    if (descriptor < 0) return {FileKind::None, false};
    const Facts facts = LookAt(descriptor);
    close(descriptor);
    return facts;
}
}  // namespace

FileKind KindOf(const char* path)
{
    return LookAt(path).kind;
}

bool TrustedFile(const char* path)
{
    const Facts facts = LookAt(path);
    return facts.kind == FileKind::Regular && facts.trusted;
}

bool TrustedFile(int descriptor)
{
    const Facts facts = LookAt(descriptor);
    return facts.kind == FileKind::Regular && facts.trusted;
}

int OpenRegular(const char* path, int flags)
{
    const int descriptor = open(path, flags | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC, 0666);
    if (descriptor < 0 || LookAt(descriptor).kind == FileKind::Regular) return descriptor;
    close(descriptor);
    errno = EINVAL;
    return -1;
}

bool MakeEmptyFile(const char* path)
{
    const int descriptor = OpenRegular(path, O_RDWR | O_CREAT | O_TRUNC);
    if (descriptor >= 0) close(descriptor);
    return descriptor >= 0;
}
