// Counts the changes of files that this program makes, the service's and those of the floors alike: a floor is only one
// when it makes the same.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>

struct FileChanges {
    std::uint64_t writes, bytes, syncs;
    bool operator==(const FileChanges&) const = default;
};

extern FileChanges Changes;  // so far

// The changes that the work makes.
template <typename Work>
FileChanges ChangesOf(Work work)
{
    const FileChanges before = Changes;
    work();
    return {Changes.writes - before.writes, Changes.bytes - before.bytes, Changes.syncs - before.syncs};
}

inline void DemandSame(const char* what, const FileChanges& service, const FileChanges& floor)
{
    if (service == floor && service.syncs > 0) return;
    const auto print = [](const char* whose, const FileChanges& changes) {
        std::fprintf(stderr, "  %s: %llu writes of %llu bytes, %llu syncs\n", whose,
                     static_cast<unsigned long long>(changes.writes), static_cast<unsigned long long>(changes.bytes),
                     static_cast<unsigned long long>(changes.syncs));
    };
    std::fprintf(stderr, "%s: the floor does not make the service's file changes\n", what);
    print("service", service);
    print("floor", floor);
    std::exit(2);
}
