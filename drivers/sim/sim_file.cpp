// Opens and maps the simulator's state. Runs inside "Init" and "Destroy"; never changes a file that is not its own.
#include "sim_file.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace
{

SimControl* Map(int fd, int flags)
{
    void* memory = mmap(nullptr, sizeof(SimControl), PROT_READ | PROT_WRITE, flags, fd, 0);
    return memory == MAP_FAILED ? nullptr : static_cast<SimControl*>(memory);
}

// A new file is all zeros up to the registers' end; only its head is written here, so that settings a test made before
// the first "Init" stand.
SimControl* MapFile(const char* path, const char*& reason)
{
    const int fd = open(path, O_RDWR | O_CREAT | O_CLOEXEC, 0666);
    struct stat state;
    SimControl* control = nullptr;
    reason = "cannot be opened";
    if (fd >= 0 && fstat(fd, &state) == 0 && S_ISREG(state.st_mode)) {
        const auto size = static_cast<std::size_t>(state.st_size);
        reason = "is not a simulator file";
        if (size == sizeof(SimControl) || (size == 0 && ftruncate(fd, sizeof(SimControl)) == 0))
            control = Map(fd, MAP_SHARED);
    }
    if (fd >= 0) close(fd);
    if (control == nullptr) return nullptr;

    if (control->magic == 0) {
        control->version = SimVersion;
        control->size = sizeof(SimControl);
        control->magic = SimMagic;
    }
    if (control->magic == SimMagic && control->version == SimVersion) return control;
    munmap(control, sizeof(SimControl));
    return nullptr;
}

}  // namespace

bool OpenSimFile(SimFile& file)
{
    const char* path = std::getenv("VOQ_SIM");
    file.watched = path != nullptr && *path != '\0';
    const char* reason = "no memory";
    file.control = file.watched ? MapFile(path, reason) : Map(-1, MAP_PRIVATE | MAP_ANONYMOUS);
    if (file.control != nullptr) return true;
    std::printf("*SIM*%s %s\r\n", file.watched ? path : "registers:", reason);
    return false;
}

void CloseSimFile(SimFile& file)
{
    if (file.control != nullptr) munmap(file.control, sizeof(SimControl));
    file.control = nullptr;
}
