// The statistics file on its way from the service to a client: whole copies while it changes, and what is no such file.
#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <filesystem>
#include <thread>

#include "client/stats.h"
#include "stats/stats_file.h"
#include "support/scratch.h"

namespace
{
// Every byte of a row but its sequence.
void Fill(StatsRange& row, int with)
{
    std::memset(reinterpret_cast<unsigned char*>(&row) + sizeof row.sequence, with, sizeof row - sizeof row.sequence);
}

bool AllAlike(const StatsRange& row)
{
    const auto* bytes = reinterpret_cast<const unsigned char*>(&row) + sizeof row.sequence;
    return std::count(bytes, bytes + sizeof row - sizeof row.sequence, bytes[0]) == sizeof row - sizeof row.sequence;
}

TEST(Statistics, ACopyIsOneStateOfEachSection)
{
    const Scratch scratch;
    const std::string path = scratch.Folder() + "stats";
    EXPECT_FALSE(voq::ReadStatistics(path));
    StartStats(path.c_str(), 3);
    std::atomic<bool> ended = false;
    std::thread writer([&] {
        for (int turn = 0; !ended; ++turn) {
            Fill(Stats.ranges[turn % 3], turn);
            Show(Stats.ranges[turn % 3]);
        }
    });
    int copies = 0;
    unsigned seen[256] = {};
    while (copies < 500) {
        const auto stats = voq::ReadStatistics(path);
        if (!stats) continue;  // the writer never stands still
        ++copies;
        for (int i = 0; i < 3; ++i) {
            ASSERT_TRUE(AllAlike(stats->ranges[i])) << "copy " << copies;
            ++seen[stats->ranges[i].flags & 0xFF];
        }
    }
    ended = true;
    writer.join();
    EXPECT_GT(std::count_if(seen, seen + 256, [](unsigned count) { return count > 0; }), 10)
        << "the writer did not run";

    auto bytes = FileBytes(path);
    EXPECT_EQ(sizeof(StatsFile), bytes.size());
    ++bytes[offsetof(StatsHeader, version)];
    std::ofstream(scratch.Folder() + "newer", std::ios::binary) << bytes;
    std::ofstream(scratch.Folder() + "short", std::ios::binary) << FileBytes(path).substr(0, sizeof(StatsFile) - 1);
    std::filesystem::create_symlink(path, scratch.Folder() + "link");
    for (const char* name : {"newer", "short", "link", ""})
        EXPECT_FALSE(voq::ReadStatistics(scratch.Folder() + name)) << name;

    // A file that loses its bytes under the writer takes nothing with it.
    std::filesystem::resize_file(path, 0);
    Show(Stats.ranges[2000]);
    Show(Stats.loop);
    EXPECT_FALSE(std::filesystem::exists(path));
}
}  // namespace
