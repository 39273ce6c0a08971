// In which order the register database is written, and what is refused before anything is.
#include <random>

#include "arch/work_file.h"
#include "database/index.h"
#include "support/database_files.h"

// Order of the writes and place of the syncs: the region before its record, the record on the disk before a link to it,
// links towards the header, the index last; the folder before the index tells of a new map.
TEST_F(DatabaseTest, WritesGoFromTheRecordToTheHeader)
{
    for (const RegKey& key : {Key(1, 2, 5, 1), Key(2, 2, 5, 1)}) LogOn(key);
    const auto trace = [](const RegKey& key, OrgMode mode) {
        return ChangesOf([&] { EXPECT_EQ(0, Request(key, mode)); });
    };
    EXPECT_EQ(
        "data@4+2 data! org@124+56 org! org@68+56 org@12+56 org@0+12 im1_10_2_0@0+12 "
        "im1_10_2_0@12+12 im1_10_2_0! index@0+16 index! ",
        trace(Key(1, 2, 7, 1), OrgMode::LogOn));
    EXPECT_EQ(
        "data@6+2 data! org@180+56 org! org@68+56 org@0+12 org! index@32+16 index! im3_10_2_0@0+12 im3_10_2_0! .! "
        "index@32+16 index! ",
        trace(Key(3, 2, 5, 1), OrgMode::LogOff));
    EXPECT_EQ("data@8+2 data! org@236+56 org! org@12+56 org@0+12 index@0+16 index! org! ",
              trace(Key(1, 2, 4, 1), OrgMode::Register));
}

TEST_F(DatabaseTest, RefusalsLeaveNothingBehind)
{
    const auto refused = [this](const Files& files, const RegKey& key, const char* message) {
        Store(files);
        std::string said;
        for (const OrgMode mode : {OrgMode::LogOn, OrgMode::LogOff, OrgMode::Register}) {
            said += Output([&] { Request(key, mode); });
        }
        EXPECT_NE(std::string::npos, said.find(message)) << said;
        EXPECT_TRUE(files == Load());
    };
    for (int filled = 0; filled < 2; ++filled) {
        const Files files = Load();
        Files without = files;
        without.erase("data");
        refused(files, Key(1, 0x28, 1, 8225), "*VOQ*range of 65800 bytes refused");
        refused(without, Key(1, 0x28, 8, 1), "RW open file");
        refused(without, Key(5, 0x28, 8, 1), "RW open file");
        Store(files);
        for (const RegKey& key : {Key(1, 0x28, 1, 8224), Key(2, 0x28, 1, 1), Key(1, 0x28, 5, 1)}) LogOn(key);
    }
    // Chain 12 -> 124 -> 68. Its damage ends every walk with a message, before anything is written.
    const Files sound = Load();
    const RegKey last = Key(1, 0x28, 9, 1), fresh = Key(3, 0x28, 9, 1);
    const std::tuple<const char*, std::uint32_t, std::uint32_t, RegKey, const char*> cases[] = {
        {"org", 124 + 52, 12, last, "the chain returns to offset 12"},
        {"org", 124 + 52, 69, last, "no record at offset 69"},
        {"org", 124 + 52, 180, last, "no record at offset 180"},
        {"org", 124 + 48, 68, Key(1, 0x28, 3, 1), "wrong next link in the record at offset 68"},
        {"org", 12 + 48, 68, Key(1, 0x28, 0, 1), "wrong next link in the record at offset 68"},
        {"org", 68 + 52, 12, fresh, "wrong next link in the record at offset 68"},
        {"org", 124 + 48, 0, Key(1, 0x28, 3, 1), "wrong previous link in the record at offset 124"},
        {"index", 8, 124, Key(1, 0x28, 3, 1), "index entry behind the start of its group at offset 124"},
        {"org", 8, 0xFFFFFFFC, fresh, "no record at offset 4294967292"},
        {"index", 8, 68, last, "another group"},
        {"index", 8, 0, last, "names no record"},
        {"index", 8, OrgNone, last, "names no"},
    };
    for (const auto& [file, at, value, key, message] : cases) {
        Files files = sound;
        SetWord(files[file], at, value);
        refused(files, key, message);
        Output([&sought = key] { EXPECT_NE(12u, GetOrgOffset(sought)); });
        Output([] { InitIndexMap(); });
    }
    // An index that outlived its org list: the new group is the first record.
    Files files = sound;
    files["org"].assign(12, '\0');
    Store(files);
    LogOn(fresh);
    EXPECT_EQ(1u, Word(Load()["org"], 0));
    EXPECT_EQ(12u, Word(Load()["index"], 32 + 8));
    EXPECT_EQ(0, VoqFileOpenCount.load());
}

// Reads come from pages that were read before; what was written since, and what lies behind the pages kept, must show.
TEST_F(DatabaseTest, RecordsAreReadAsTheFileHoldsThem)
{
    std::mt19937 random(3);
    std::vector<OrgNode> model(20000);  // more than the pages hold
    for (OrgNode& node : model) node.dataoffset = random();
    const auto bytes = [&model] {
        return std::string(12, '\0') + std::string(reinterpret_cast<const char*>(model.data()), 56 * model.size());
    };
    Files files = Load();
    files["org"] = bytes() + "half a record";
    Store(files);
    const MutexLock lock(DatabaseLock);
    for (int opened = 0; opened < 3; ++opened) {
        OrgFile file;
        ASSERT_TRUE(file.OpenRW());
        std::size_t place = 0;  // random places, and some behind each
        for (int i = 0; i < 30000; ++i) {
            place = (random() % 300 == 0 ? random() : place + 1) % model.size();
            auto at = static_cast<std::uint32_t>(place);
            OrgNode node{};
            ASSERT_TRUE(file.ReadNode(12 + 56 * at, node));
            ASSERT_EQ(model[at].dataoffset, node.dataoffset) << at;
            if (random() % 4 != 0) continue;
            if (at % 1000 == 0) {
                at = static_cast<std::uint32_t>(model.size());
                model.push_back(node);
                ASSERT_EQ(12 + 56 * at, file.AppendOffset());
            }
            model[at].dataoffset = random();
            ASSERT_TRUE(file.WriteNode(12 + 56 * at, model[at]));
        }
    }
    EXPECT_EQ(bytes(), Load()["org"].substr(0, bytes().size()));
}

// A search that starts where the last range went must not go by a record of another group or outside the chain.
TEST_F(DatabaseTest, LastPlaceIsOnlyAHint)
{
    // The two groups share their places.
    for (const auto& [addr, subaddr] : {std::pair{5u, 2048u}, {10, 0}, {20, 0}, {30, 2048}}) {
        LogOn(Key(1, 2, addr, 1, subaddr));
    }
    EXPECT_EQ("", Unsound(Load()));

    scratch.ResetDatabase();
    for (const std::uint32_t addr : {10, 40}) LogOn(Key(1, 2, addr, 1));
    const Files two = Load();
    LogOn(Key(1, 2, 20, 1));
    // An insertion that got no further than its record, and another one behind it.
    Files left = two;
    left["org"] += Load()["org"].substr(124);
    Store(left);
    LogOn(Key(1, 2, 30, 1));
    left = Load();
    Store(two);
    LogOn(Key(1, 2, 20, 1));
    Store(left);
    LogOn(Key(1, 2, 25, 1));
    EXPECT_EQ("", Unsound(Load()));
    EXPECT_EQ(4u, Word(Load()["org"], 0));

    // The table starts over in a file that still holds the records behind the first.
    LogOn(Key(1, 2, 35, 1));
    Files over = Load();
    over["index"] = "";
    Store(over);
    for (const std::uint32_t addr : {50, 35}) LogOn(Key(1, 2, addr, 1));
    EXPECT_EQ("", Unsound(Load()));
    EXPECT_EQ(2u, Word(Load()["org"], 0));
}
