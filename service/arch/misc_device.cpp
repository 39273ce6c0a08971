// The box's misc device, on the main thread; the device calls do not wait.
#include "arch/misc_device.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <cstdio>

#include "arch/box_path.h"

namespace
{
constexpr unsigned long SetModeRequest[2][3] = {{0x40020, 0x40028, 0x40024}, {0x4002c, 0x40034, 0x40030}};
constexpr unsigned long UnitIdRequest = 0x40040;

int OpenMiscDevice()
{
    const int device = open(MiscDevice, O_RDWR);
    if (device < 0) std::puts("failed to open file /dev/qumisc\r");
    return device;
}
}  // namespace

void COM_SetMode(std::uint32_t port, std::uint32_t mode)
{
    const int device = OpenMiscDevice();
    if (device < 0) return;
    if (port < 2 && mode < 3) ioctl(device, SetModeRequest[port][mode], 0UL);
    close(device);
}

void GetUID(void* buffer)
{
    const int device = OpenMiscDevice();
    if (device < 0) return;
    std::printf("get Uid: ");
    ioctl(device, UnitIdRequest, buffer);
    close(device);
}
