// Looks at the lock that a service holds for its life, and at its FIFO. Any thread; closes what it opens, which the
// service's own lock does not notice.
#include "client/service_look.h"

#include <fcntl.h>
#include <unistd.h>

#include "client/fifo.h"

namespace voq
{

ServiceLook LookAtService(const PortDir& port, const std::string& fifo)
{
    ServiceLook look;
    const int file = open(port.Lock().c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (file >= 0) {
        struct flock lock = {};
        lock.l_type = F_WRLCK;
        lock.l_whence = SEEK_SET;
        const bool known = fcntl(file, F_OFD_GETLK, &lock) == 0;
        close(file);
        if (known && lock.l_type == F_UNLCK) return look;
        if (known && lock.l_pid > 0) look.process = lock.l_pid;
    }
    look.running = FifoHasReader(fifo);
    return look;
}

}  // namespace voq
