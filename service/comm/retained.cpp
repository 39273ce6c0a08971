// Retained serial settings, on the main thread. The file is read without a lock.
#include "comm/retained.h"

#include <atomic>
#include <cstdio>

#include "arch/fs.h"
#include "arch/work_file.h"

int CheckSRWComPara(SerialSettings* settings)
{
    *settings = {};
    if (!FileExists(RetainedSettings)) return 0;
    WorkFile file;
    if (!file.OpenUnlocked(RetainedSettings)) return 0;
    const std::uint32_t slot = RetainedSlot(ComInfo.portNo);
    if (file.Size() <= slot) return 0;
    const bool whole = file.ReadRecord(slot, *settings);
    std::printf("*VOQ*Get bps form SRW:%u,%u,%u,%u,%u\r\n", settings->baud, settings->dataBits, settings->stopBits,
                settings->parity, settings->lineMode);
    return whole && settings->baud != 0 ? 1 : 0;
}

void Copy2ComInfo(const SerialSettings& settings)
{
    constexpr auto Relaxed = std::memory_order_relaxed;
    if (settings.baud > 100) std::atomic_ref(ComInfo.baudOrAddress).store(settings.baud, Relaxed);
    if (settings.dataBits == 7 || settings.dataBits == 8) {
        std::atomic_ref(ComInfo.dataBits).store(static_cast<std::uint8_t>(settings.dataBits), Relaxed);
    }
    if (settings.stopBits == 1 || settings.stopBits == 2)
        ComInfo.stopBits = static_cast<std::uint8_t>(settings.stopBits);
    if (settings.parity <= 2) {
        std::atomic_ref(ComInfo.parity).store(static_cast<std::uint8_t>(settings.parity), Relaxed);
    }
    if (settings.lineMode <= 2) ComInfo.lineMode = settings.lineMode;
}
