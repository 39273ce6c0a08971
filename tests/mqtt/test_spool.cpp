// The spool, against a queue that keeps everything.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <csignal>
#include <deque>
#include <fstream>
#include <limits>
#include <random>

#include "client/error.h"
#include "folder.h"
#include "upstream/mqtt/database.h"
#include "upstream/mqtt/encoding.h"
#include "upstream/mqtt/spool.h"

namespace voq::mqtt
{

namespace
{

namespace fs = std::filesystem;
using std::chrono::seconds;

const std::vector<std::string> Names = {"first", "second", "third", "fourth"};

// Known by its time.
Sample Numbered(std::int64_t number)
{
    Sample sample;
    sample.metric = static_cast<std::uint32_t>(number) % Names.size();
    sample.state = State::Good;
    sample.time = sample.valueAt = 1'700'000'000'000'000 + number;
    sample.value = {number, static_cast<double>(number) / 10};
    return sample;
}
std::int64_t NumberOf(const Sample& sample)
{
    return sample.time - 1'700'000'000'000'000;
}

class SpoolTest : public testing::Test
{
protected:
    SpoolSettings Settings(std::uint64_t bytes = 1 << 20) const
    {
        SpoolSettings settings;
        settings.file = folder_.Path() + "/spool";
        settings.bytes = bytes;
        return settings;
    }
    static void Fill(Spool& spool, std::int64_t from, std::int64_t to)
    {
        for (; from < to; ++from) spool.Add(Numbered(from));
    }
    // Everything that can be taken is `from` to `to`.
    static void ExpectAll(Spool& spool, std::int64_t from, std::int64_t to)
    {
        for (;;) {
            const auto taken = spool.Take(1000);
            for (const Sample& each : taken) ASSERT_EQ(NumberOf(each), from++);
            if (taken.empty()) break;
        }
        EXPECT_EQ(from, to);
        EXPECT_TRUE(spool.Empty());
    }

    Folder folder_;
};

TEST(Encoding, GivesBackWhatItWasGiven)
{
    std::mt19937_64 random(1);
    using Limits = std::numeric_limits<std::int64_t>;
    const std::vector<std::int64_t> times = {0, 1, -1, Limits::max(), Limits::min(), 1'700'000'000'000'000};
    std::vector<Element> elements = {{}, 0.1, -0.0, 23.5, 1e300, "", std::string("a\0b", 3), std::string(300, 'x')};
    elements.insert(elements.end(), times.begin(), times.end());
    std::vector<Sample> samples;
    RowWriter writer;
    for (int i = 0; i < 500; ++i) {
        Sample sample{0, static_cast<State>(random() % States), times[random() % 6], times[random() % 6], {}};
        for (std::size_t n = random() % 5; n > 0; --n) {
            sample.value.insert(sample.value.end(), random() % 4, elements[random() % elements.size()]);
        }
        writer.Add(sample, random() >> random() % 64);
        samples.push_back(sample);
    }
    RowReader reader(writer.Bytes());
    for (const Sample& each : samples) {
        const auto read = reader.Next();
        ASSERT_TRUE(read.has_value());
        EXPECT_EQ(read->sample.state, each.state);
        EXPECT_EQ(read->sample.time, each.time);
        EXPECT_EQ(read->sample.valueAt, each.valueAt);
        EXPECT_EQ(read->sample.value, each.value);
    }
    EXPECT_FALSE(reader.Next().has_value());
    // Any bytes end, without an element more than they can tell.
    for (int i = 0; i < 2000; ++i) {
        std::string bytes = writer.Bytes().substr(random() % 1000, random() % 200);
        for (char& byte : bytes) byte = random() % 8 == 0 ? static_cast<char>(random()) : byte;
        RowReader any(bytes);
        for (std::size_t n = 0; any.Next(); ++n) ASSERT_LT(n, bytes.size());
    }
}

TEST_F(SpoolTest, IsAQueueAcrossWritesAndRestarts)
{
    for (const std::uint64_t bytes : {1u << 20, 16u << 20}) {
        std::mt19937 random(7);
        Spool::Clock::time_point now{};
        auto spool = std::make_unique<Spool>(Settings(bytes), Names);
        std::deque<std::int64_t> kept;  // the model
        std::size_t taken = 0;          // of them, from the front
        std::int64_t next = 0;
        for (int step = 0; step < 4000; ++step) {
            switch (random() % 8) {
                case 0:
                case 1:
                    for (unsigned n = random() % 30; n > 0; --n) {
                        kept.push_back(next);
                        spool->Add(Numbered(next++));
                    }
                    break;
                case 2:
                    spool->Tick(now += seconds(random() % 8));
                    break;
                case 3:
                case 4:
                case 5:
                    for (const Sample& each : spool->Take(random() % 25)) ASSERT_EQ(NumberOf(each), kept.at(taken++));
                    break;
                case 6: {
                    const std::size_t count = taken == 0 ? 0 : random() % (taken + 1);
                    spool->Done(count);
                    kept.erase(kept.begin(), kept.begin() + static_cast<std::ptrdiff_t>(count));
                    taken -= count;
                    break;
                }
                default:
                    if (random() % 4 != 0) break;
                    random() % 2 == 0 ? spool->Rewind() : spool.reset();
                    if (!spool) spool = std::make_unique<Spool>(Settings(bytes), Names);
                    taken = 0;
            }
            ASSERT_EQ(spool->Counted().samples, kept.size());
            ASSERT_EQ(spool->Empty(), taken == kept.size());
        }
        EXPECT_EQ(spool->Counted().dropped, 0u);
        spool->Rewind();
        ExpectAll(*spool, kept.empty() ? next : kept.front(), next);
        spool.reset();
        fs::remove_all(Settings().file);
    }
}

TEST_F(SpoolTest, KeepsItsBoundsAndDropsTheOldest)
{
    std::mt19937 random(3);
    for (const std::uint64_t bytes : {64u << 10, 256u << 10, 1u << 20}) {
        const SpoolSettings settings = Settings(bytes);
        Spool spool(settings, Names);
        Spool::Clock::time_point now{};
        std::int64_t next = 0, expected = 0;
        std::uint64_t taken = 0, largest = 0;
        for (int step = 0; step < 600; ++step) {
            for (unsigned n = random() % 100; n > 0; --n) {
                Sample sample = Numbered(next++);
                sample.value.emplace_back(std::string(random() % (bytes / 2000), 'x'));
                spool.Add(sample);
            }
            if (step % 3 != 0) spool.Tick(now += seconds(random() % 20));
            for (const Sample& each : spool.Take(step < 300 ? 0 : random() % 90)) {
                ASSERT_GE(NumberOf(each), expected);
                expected = NumberOf(each) + 1;
                ++taken;
            }
            spool.Done(random() % 100);
            largest = std::max<std::uint64_t>(largest, spool.Counted().bytes);
            std::error_code none;
            ASSERT_LE(fs::file_size(settings.file) + fs::file_size(settings.file + "-wal", none), bytes);
        }
        EXPECT_GT(largest, bytes / 2);
        EXPECT_GT(spool.Counted().dropped, 0u);
        for (auto more = spool.Take(500); !more.empty(); more = spool.Take(500)) taken += more.size();
        EXPECT_EQ(taken + spool.Counted().dropped, static_cast<std::uint64_t>(next));
        EXPECT_EQ(spool.Remark(), "");
        fs::remove(settings.file);
    }
}

TEST_F(SpoolTest, WritesNoMoreOftenThanItMay)
{
    Spool spool(Settings(16 << 20), Names);
    Spool::Clock::time_point now{};
    EXPECT_FALSE(spool.Due().has_value());
    // Ten minutes of 300 samples a second, and nothing lost.
    for (int step = 0; step < 6000; ++step) {
        Fill(spool, step * 30, step * 30 + 30);
        spool.Tick(now += std::chrono::milliseconds(100));
    }
    EXPECT_EQ(spool.Counted().dropped, 0u);
    EXPECT_GE(spool.Counted().writes, 59u);
    EXPECT_LE(spool.Counted().writes, 60u);
    ExpectAll(spool, 0, 180000);
}

// The log as a power cut, or the end of the process at any moment, may leave it.
TEST_F(SpoolTest, LosesNothingBeforeAnUnfinishedWrite)
{
    std::mt19937 random(9);
    Spool spool(Settings(16 << 20), Names);
    std::vector<std::uintmax_t> sizes;
    const std::string file = Settings().file, copy = file + ".copy";
    for (std::int64_t i = 0; i < 12; ++i) {
        Fill(spool, i * 100, i * 100 + 100);
        spool.Flush();
        sizes.push_back(fs::file_size(file + "-wal"));
    }
    ASSERT_LT(sizes[10], sizes[11]);
    for (int round = 0; round < 20; ++round) {
        const auto size = sizes[10] + random() % (sizes[11] - sizes[10]);
        for (const char* part : {"", "-wal"}) {
            fs::copy_file(file + part, copy + part, fs::copy_options::overwrite_existing);
        }
        fs::resize_file(copy + "-wal", size);
        if (round % 2 == 0) fs::resize_file(copy + "-wal", sizes[11]);  // zeros
        SpoolSettings settings = Settings();
        settings.file = copy;
        Spool mended(settings, Names);
        ExpectAll(mended, 0, 1100);
        EXPECT_EQ(mended.Remark(), "");
    }
}

TEST_F(SpoolTest, MovesAsideWhatIsNoSpool)
{
    const std::string file = Settings().file;
    const auto fresh = [&](const std::string& said) {
        Spool spool(Settings(), Names);
        const std::string remark = spool.Remark();
        EXPECT_NE(remark.find(said), std::string::npos) << remark;
        EXPECT_TRUE(fs::exists(file + ".bad"));
        Fill(spool, 0, 50);
        spool.Flush();
        ExpectAll(spool, 0, 50);
        EXPECT_EQ(spool.Remark(), "");
    };
    std::ofstream(file) << std::string(5000, 'x');
    fresh("not a database");
    fs::remove(file);
    {
        Database(file).Run("CREATE TABLE other(a)");
    }
    fresh("is no spool");
    {
        Database(file).Run("PRAGMA user_version=2");
    }
    fresh("of a newer version");
    {
        Database(file).Run("DROP TABLE state");
    }
    EXPECT_THROW(Spool(Settings(), Names), Error);

    SpoolSettings nowhere = Settings();
    nowhere.file = folder_.Path() + "/none/spool";
    EXPECT_THROW(Spool(nowhere, Names), Error);
    fs::remove(file);
    Spool one(Settings(), Names);
    EXPECT_THROW(Spool(Settings(), Names), Error);  // in use
}

TEST_F(SpoolTest, GoesOnWithADamagedFile)
{
    const std::string file = Settings().file;
    std::mt19937 random(11);
    for (int round = 0; round < 30; ++round) {
        fs::remove(file);
        {
            Spool spool(Settings(), Names);
            Fill(spool, 0, 3000);
        }
        const auto size = fs::file_size(file);
        if (round % 3 == 0) {
            fs::resize_file(file, random() % size);
        } else {
            std::fstream bytes(file, std::ios::in | std::ios::out | std::ios::binary);
            for (int n = 0; n < 20; ++n) {
                bytes.seekp(static_cast<std::streamoff>(100 + random() % (size - 100)));
                bytes.put(static_cast<char>(random()));
            }
        }
        std::unique_ptr<Spool> spool;
        ASSERT_NO_THROW(spool = std::make_unique<Spool>(Settings(), Names)) << round;
        Fill(*spool, 3000, 3100);
        std::int64_t last = -1;
        for (int n = 0; n < 100 && !spool->Empty(); ++n) {
            for (const Sample& each : spool->Take(100)) {
                ASSERT_GT(NumberOf(each), last);  // and none that was not written
                ASSERT_EQ(each.value, Numbered(NumberOf(each)).value);
                last = NumberOf(each);
            }
        }
        EXPECT_EQ(last, 3099) << round;
        spool->Flush();
    }
}

TEST_F(SpoolTest, WaitsInMemoryWhileTheDiskIsFull)
{
    Spool spool(Settings(), Names);
    Fill(spool, 0, 1000);
    spool.Flush();
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit before{};
    getrlimit(RLIMIT_FSIZE, &before);
    const rlimit none{4096, before.rlim_max};
    setrlimit(RLIMIT_FSIZE, &none);
    Fill(spool, 1000, 2000);
    spool.Flush();
    spool.Flush();
    const std::string remark = spool.Remark();
    const std::string again = spool.Remark();
    // More than the memory's share: the oldest of it go, those in the file stay.
    Fill(spool, 2000, 12000);
    setrlimit(RLIMIT_FSIZE, &before);
    EXPECT_NE(remark.find("wait in memory"), std::string::npos) << remark;
    EXPECT_EQ(again, "");
    const std::uint64_t dropped = spool.Counted().dropped;
    EXPECT_GT(dropped, 0u);
    spool.Flush();
    EXPECT_EQ(spool.Counted().samples + dropped, 12000u);
    std::vector<Sample> all = spool.Take(20000);
    ASSERT_EQ(all.size() + dropped, 12000u);
    EXPECT_EQ(NumberOf(all[999]), 999);
    EXPECT_EQ(NumberOf(all[1000]), 1000 + static_cast<std::int64_t>(dropped));
}

TEST_F(SpoolTest, KnowsMetricsByTheirNames)
{
    {
        Spool spool(Settings(), Names);
        Fill(spool, 0, 8);
    }
    Spool spool(Settings(), {"third", "new", "first"});
    spool.Add(Numbered(9));  // "new"
    const auto all = spool.Take(100);
    ASSERT_EQ(all.size(), 5u);
    const std::uint32_t metrics[] = {2, 0, 2, 0, 1};
    for (std::size_t i = 0; i < all.size(); ++i) EXPECT_EQ(all[i].metric, metrics[i]);
    EXPECT_EQ(spool.Counted().dropped, 4u);
    spool.Rewind();
    EXPECT_EQ(spool.Take(100).size(), 5u);
    EXPECT_EQ(spool.Counted().dropped, 4u);
    spool.Done(5);
    EXPECT_EQ(spool.Counted().samples, 0u);
}

}  // namespace

}  // namespace voq::mqtt
