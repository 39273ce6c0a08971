// Counts what this program does to files, the service's work and that of the floors alike: a floor is only one when it
// makes the same changes, and opens, locks and reads no more.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <utility>

struct FileWork {
    std::uint64_t opens, locks, reads, bytesRead, writes, bytesWritten, syncs;
};

extern FileWork FileWorkSoFar;

// What the work does to files.
template <typename Work>
FileWork FileWorkOf(Work work)
{
    const FileWork before = FileWorkSoFar;
    work();
    const FileWork& now = FileWorkSoFar;
    return {now.opens - before.opens,         now.locks - before.locks,   now.reads - before.reads,
            now.bytesRead - before.bytesRead, now.writes - before.writes, now.bytesWritten - before.bytesWritten,
            now.syncs - before.syncs};
}

inline void DemandFloor(const char* what, const FileWork& service, const FileWork& floor)
{
    const bool sameChanges = floor.writes == service.writes && floor.bytesWritten == service.bytesWritten &&
                             floor.syncs == service.syncs && service.syncs > 0;
    const bool noMore = floor.opens <= service.opens && floor.locks <= service.locks && floor.reads <= service.reads &&
                        floor.bytesRead <= service.bytesRead;
    if (sameChanges && noMore) return;
    std::fprintf(stderr, "%s: the floor does not do the least of what the service does\n", what);
    for (const auto& [whose, work] : {std::pair{"service", service}, std::pair{"floor", floor}}) {
        std::fprintf(stderr, "  %s: %ju opens, %ju locks, %ju reads of %ju bytes, %ju writes of %ju bytes, %ju syncs\n",
                     whose, work.opens, work.locks, work.reads, work.bytesRead, work.writes, work.bytesWritten,
                     work.syncs);
    }
    std::exit(2);
}
