// A packed refresh of 64 neighbouring one-word ranges, against a bare program that does the same driver read and the
// same opens, locks, record writes and syncs. Both on the memory file system, with the simulator driver at zero delay,
// in turns. Prints both medians and their ratio; fails above the limit.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/time.h>

#include <algorithm>
#include <chrono>
#include <cstdio>

#include "list/log_on_off.h"
#include "oper/fast_pass.h"
#include "oper/priority.h"
#include "support/scratch.h"

namespace
{
constexpr std::uint16_t Ranges = 64;
constexpr int Samples = 25;
constexpr int RefreshesPerSample = 100;
constexpr double Limit = 1.5;

std::FILE* OpenLocked(const char* path, const char* mode, short type)
{
    std::FILE* stream = std::fopen(path, mode);
    struct flock lock {
    };
    lock.l_type = type;
    if (stream == nullptr || fcntl(fileno(stream), F_SETLKW, &lock) != 0) std::abort();
    return stream;
}

void Put(std::FILE* stream, const void* bytes, std::size_t size, std::size_t offset)
{
    if (pwrite(fileno(stream), bytes, size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size)) std::abort();
    fsync(fileno(stream));
}

OrgNode Records[Ranges];  // what the bare program writes; it reads none

void BareRefresh()
{
    static unsigned char values[2 * Ranges];
    std::fclose(OpenLocked(OrgFileName, "r", F_RDLCK));
    if (DriverTransfer("RdOne", WordKey(0, Ranges), values) != PLC_DRV_OK) std::abort();
    timeval now;
    gettimeofday(&now, nullptr);
    std::FILE* org = OpenLocked(OrgFileName, "r+", F_WRLCK);
    for (std::size_t i = 0; i < Ranges; ++i) {
        std::FILE* data = OpenLocked(DataFileName, "r+", F_WRLCK);
        Put(data, values + 2 * i, 2, 2 * i);
        std::fclose(data);
        Records[i].stamp = {static_cast<std::int32_t>(now.tv_sec), static_cast<std::int32_t>(now.tv_usec)};
        Put(org, &Records[i], sizeof Records[i], 12 + 56 * i);
    }
    std::fclose(org);
}

double MicrosecondsPer(void (*refresh)())
{
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < RefreshesPerSample; ++i) refresh();
    const std::chrono::duration<double, std::micro> took = std::chrono::steady_clock::now() - start;
    return took.count() / RefreshesPerSample;
}

double Median(std::vector<double> samples)
{
    std::ranges::nth_element(samples, samples.begin() + Samples / 2);
    return samples[Samples / 2];
}

bool AllRead()
{
    const std::string org = FileBytes(OrgFileName);
    for (std::uint32_t i = 0; i < Ranges; ++i) {
        Records[i] = ReadOrgNode(org, 12 + 56 * i);
        if (Records[i].state != 1) return false;
    }
    return true;
}
}  // namespace

int main(int argc, char** argv)
{
    const Scratch scratch;
    void* library = dlopen(argc > 1 ? argv[1] : VOQ_SIM, RTLD_NOW);
    if (library == nullptr) {
        std::fprintf(stderr, "%s\n", dlerror());
        return 2;
    }
    _cmd = reinterpret_cast<PlcDrvCmdFn>(dlsym(library, PLC_DRV_ENTRY));
    ComInfo.wordLimit = 120;
    ComInfo.wordGap = 1;
    InitPriRange();
    for (std::uint16_t i = 0; i < Ranges; ++i) {
        const RegKey key = WordKey(i, 1);
        CheckOrgList(&key);
        AddFastIndex(key, i, 12u + 56u * i);
    }
    OperFastList();
    if (!AllRead() || CurrentFastList != FastHead().head) {
        std::fprintf(stderr, "one pass does not refresh all ranges\n");
        return 2;
    }

    std::vector<double> service, bare;
    for (int i = 0; i < Samples; ++i) {
        service.push_back(MicrosecondsPer(OperFastList));
        bare.push_back(MicrosecondsPer(BareRefresh));
    }
    const double ratio = Median(service) / Median(bare);
    if (!AllRead()) return 2;
    std::printf("packed refresh of %d ranges: service %.1f us, bare %.1f us, ratio %.2f (limit %.2f)\n", Ranges,
                Median(service), Median(bare), ratio, Limit);
    return ratio <= Limit ? 0 : 1;
}
