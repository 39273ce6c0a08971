#include "arch/process.h"

#include <unistd.h>

std::uint32_t OwnProcessId()
{
    return static_cast<std::uint32_t>(getpid());
}
