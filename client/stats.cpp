// Copies the sections of a mapped file by the sequence protocol of voq/stats.h.
#include "client/stats.h"

#include <fcntl.h>
#include <sys/mman.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <ctime>
#include <thread>

#include "client/error.h"

namespace voq
{

namespace
{

constexpr int Attempts = 200;
constexpr std::chrono::microseconds Pause(50);  // lets a writer go on that shares the processor

// The file as the service writes it, or nothing when it is no such file.
class Mapping
{
public:
    explicit Mapping(const std::string& path)
    {
        const int fd = open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
        if (fd < 0) {
            if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP) return;
            throw SystemError(path, errno);
        }
        struct stat status = {};
        if (fstat(fd, &status) == 0 && S_ISREG(status.st_mode) && status.st_size == sizeof(StatsFile)) {
            void* const at = mmap(nullptr, sizeof(StatsFile), PROT_READ, MAP_SHARED, fd, 0);
            if (at != MAP_FAILED) file_ = static_cast<const StatsFile*>(at);
        }
        close(fd);
    }
    ~Mapping()
    {
        if (file_ != nullptr) munmap(const_cast<StatsFile*>(file_), sizeof(StatsFile));
    }
    Mapping(const Mapping&) = delete;
    Mapping& operator=(const Mapping&) = delete;

    const StatsFile* File() const { return file_; }

private:
    const StatsFile* file_ = nullptr;
};

// The words of a record, whatever its fields are.
using Word [[gnu::may_alias]] = std::uint32_t;

template <typename Section>
bool Copy(const Section& shared, Section& copy)
{
    static_assert(offsetof(Section, sequence) == 0 && sizeof(Section) % sizeof(Word) == 0);
    constexpr std::size_t Words = sizeof(Section) / sizeof(Word);
    const Word* const from = reinterpret_cast<const Word*>(&shared);
    Word* const to = reinterpret_cast<Word*>(&copy);
    for (int attempt = 0; attempt < Attempts; ++attempt) {
        const std::uint32_t before = __atomic_load_n(from, __ATOMIC_ACQUIRE);
        if (before % 2 == 0) {
            for (std::size_t i = 1; i < Words; ++i) to[i] = __atomic_load_n(from + i, __ATOMIC_RELAXED);
            std::atomic_thread_fence(std::memory_order_acquire);
            if (__atomic_load_n(from, __ATOMIC_RELAXED) == before) return true;
        }
        std::this_thread::sleep_for(Pause);
    }
    return false;
}

template <typename Sections, typename Copies>
bool CopyEach(const Sections& shared, Copies& copies)
{
    std::size_t at = 0;
    for (const auto& section : shared) {
        if (!Copy(section, copies[at++])) return false;
    }
    return true;
}

}  // namespace

std::optional<Statistics> ReadStatistics(const std::string& path)
{
    const Mapping mapping(path);
    const StatsFile* const file = mapping.File();
    if (file == nullptr) return std::nullopt;
    const StatsHeader& header = file->header;
    if (header.magic != StatsMagic || header.version != StatsVersion || header.size != sizeof(StatsFile))
        return std::nullopt;
    std::optional<Statistics> copy(std::in_place);
    copy->header = header;
    copy->stations.resize(StatsStations);
    copy->ranges.resize(StatsRanges);
    const bool whole = Copy(file->port, copy->port) && CopyEach(file->threads, copy->threads) &&
                       CopyEach(file->intakes, copy->intakes) && Copy(file->loop, copy->loop) &&
                       Copy(file->driver, copy->driver) && CopyEach(file->stations, copy->stations) &&
                       CopyEach(file->ranges, copy->ranges);
    if (!whole) copy.reset();
    return copy;
}

StationState StateOf(const StatsStation& station)
{
    constexpr std::int64_t unanswered = 2000000;
    if (station.lastGood == 0 && station.lastBad == 0) return StationState::Silent;
    // One lost answer among good ones is not yet a dead station.
    const bool dead = station.lastGood == 0 || station.lastBad - station.lastGood > unanswered;
    return dead ? StationState::Dead : StationState::Answers;
}

std::set<std::uint32_t> SubscribedRecords(const Statistics& statistics)
{
    std::set<std::uint32_t> records;
    for (const StatsRange& row : statistics.ranges) {
        if ((row.flags & STATS_RANGE_SUBSCRIBED) != 0) records.insert(row.orgOffset);
    }
    return records;
}

std::uint64_t NowMono()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<std::uint64_t>(now.tv_sec) * 1000000 + static_cast<std::uint64_t>(now.tv_nsec) / 1000;
}

}  // namespace voq
