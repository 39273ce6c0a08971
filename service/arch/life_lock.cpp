// The descriptor is never closed. Children do not inherit the lock, and programs that they run not the descriptor.
#include "arch/life_lock.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "arch/clock.h"
#include "arch/regular_file.h"

namespace
{
constexpr int Attempts = 50;
constexpr std::uint32_t PauseMicroseconds = 20000;
}  // namespace

LifeLock LockForLife(const char* path)
{
    const int descriptor = OpenRegular(path, O_RDWR | O_CREAT);
    if (descriptor < 0) return LifeLock::None;
    struct flock lock = {};
    lock.l_type = F_WRLCK;
    lock.l_whence = SEEK_SET;
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        if (fcntl(descriptor, F_SETLK, &lock) == 0) return LifeLock::Held;
        if (errno != EACCES && errno != EAGAIN) break;
        SleepMicroseconds(PauseMicroseconds);
    }
    const int error = errno;
    close(descriptor);
    errno = error;
    return error == EACCES || error == EAGAIN ? LifeLock::HeldElsewhere : LifeLock::None;
}
