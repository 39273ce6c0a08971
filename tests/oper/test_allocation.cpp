// After start-up the polling path allocates nothing but what opening a stream takes: the allocator and fopen are
// counted while a pass or an intake step runs.
#include <dlfcn.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include "arch/work_file.h"
#include "list/log_on_off.h"
#include "list/rt_list.h"
#include "oper/fast_pass.h"
#include "oper/intake.h"
#include "oper/org_pass.h"
#include "oper/priority.h"
#include "oper/rt_pass.h"
#include "support/scratch.h"

namespace
{
thread_local bool Armed;
thread_local int Allocations, Opened;

void CountAllocation()
{
    if (Armed) ++Allocations;
}
}  // namespace

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* old, size_t size);
void* __libc_memalign(size_t alignment, size_t size);

void* malloc(size_t size)
{
    return CountAllocation(), __libc_malloc(size);
}
void* calloc(size_t count, size_t size)
{
    return CountAllocation(), __libc_calloc(count, size);
}
void* realloc(void* old, size_t size)
{
    return CountAllocation(), __libc_realloc(old, size);
}
void* aligned_alloc(size_t alignment, size_t size)
{
    return CountAllocation(), __libc_memalign(alignment, size);
}
int posix_memalign(void** out, size_t alignment, size_t size)
{
    CountAllocation();
    *out = __libc_memalign(alignment, size);
    return *out == nullptr;
}
FILE* fopen(const char* path, const char* mode)
{
    using Open = FILE* (*)(const char*, const char*);
    static const auto open = reinterpret_cast<Open>(dlsym(RTLD_NEXT, "fopen"));
    if (Armed) ++Opened;
    return open(path, mode);
}
}

namespace
{
struct Counts {
    int allocations, opened;
};

Counts Count(const auto& operation)
{
    Allocations = Opened = 0;
    Armed = true;
    operation();
    Armed = false;
    return {Allocations, Opened};
}

// A driver that allocates nothing, and whose every tenth call times out.
std::int32_t Driver(const char* command, void* target, void** args)
{
    static int instance, calls;
    if (std::strcmp(command, "Init") == 0) *static_cast<void**>(target) = &instance;
    if (command[0] != 'R' && command[0] != 'W') return 0;
    const PlcRequest& request = *static_cast<PlcRequest*>(args[0]);
    std::memset(request.data, 1, static_cast<std::size_t>(request.length));
    return ++calls % 10 == 0 ? PLC_DRV_TIMEOUT : PLC_DRV_OK;
}

TEST(Allocation, OnlyOpeningAStreamAllocates)
{
    const Scratch scratch;
    static char buffer[4096];  // as the service does at its start
    std::setvbuf(stdout, buffer, _IOLBF, sizeof buffer);
    _cmd = Driver;
    ComInfo.wordLimit = 8;
    ComInfo.wordGap = 2;
    InitPriRange();
    ResetRtList();
    int ends[2];
    ASSERT_EQ(0, pipe(ends));
    GuiFifo_fd = ends[0];

    const Counts open = Count([] {
        std::FILE* stream = nullptr;
        for (int i = 0; i < 100; ++i) {
            if (FsOpenFileRW(DataFileName, &stream) == 0) std::fclose(stream);
        }
    });
    ASSERT_EQ(100, open.opened);
    ASSERT_GE(open.allocations, 100);  // the counting works
    const int perOpen = open.allocations / 100;

    std::vector<std::string> frames;
    for (std::uint16_t i = 0; i < 300; ++i) {
        for (const int cmd : {1, 3, 6, 7, 2}) {
            if (cmd == 2 && i % 3 != 0) continue;
            RegRequest request{WordKey(3u * (i * 7 % 300), 2), static_cast<std::uint8_t>(cmd), 0x80, i, 0};
            request.key.plcno = static_cast<std::uint8_t>(i % 2);
            std::string frame("\xFE\x43\0", 3);  // 32 payload bytes: a change that adds within limits
            frame.append(reinterpret_cast<const char*>(&request), sizeof request);
            frame += std::string("\x1C\0\0\0\1\0\0\0\2\0\2\0\1\0\0\0\xFF\x7F", 18) + std::string(14, '\0');
            frames.push_back(frame);
        }
    }
    std::size_t step = 0;
    long opened = 0;
    for (const std::string& frame : frames) {
        ASSERT_EQ(std::ssize(frame), write(ends[1], frame.data(), frame.size()));
        const Counts counts = Count([] {
            CheckGuiRtList();
            OperRtList();
            OperFastList();
            OperFastList_NoPack();
            OperOrgList();
            OperOrgList_NoPack();
        });
        ASSERT_EQ(counts.opened * perOpen, counts.allocations) << "step " << step;
        opened += counts.opened;
        ++step;
    }
    EXPECT_GT(opened, 10 * std::ssize(frames));  // the passes did work
    EXPECT_EQ(200, FastHead().count);
    for (const int end : ends) close(end);
}
}  // namespace
