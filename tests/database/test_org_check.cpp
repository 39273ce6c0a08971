// The start-up check on what an interrupted operation leaves, and on databases that nothing explains.
#include <algorithm>
#include <functional>

#include "arch/work_file.h"
#include "database/check.h"
#include "database/index.h"
#include "fileinit/database_files.h"
#include "state/com_state.h"
#include "support/database_files.h"

namespace
{
DatabaseState Check()
{
    DatabaseState state;
    Output([&] { state = CheckDatabase(MapCare::Judge); });
    return state;
}
}  // namespace

class OrgCheckTest : public DatabaseTest
{
protected:
    void Build()
    {
        for (const std::uint32_t addr : {10, 20, 30}) LogOn(Key(1, 0x22, addr, 2));
        for (const std::uint32_t addr : {10, 20}) LogOn(Key(2, 0x22, addr, 2));
        LogOn(Key(3, 0, 7, 70));
    }
};

TEST_F(OrgCheckTest, MendsWhatLags)
{
    Build();
    const Files base = Load();
    const auto mends = [&](const char* what, const std::function<void(Files&)>& damage) {
        Files files = base;
        damage(files);
        Store(files);
        const std::string said = Output([] { EXPECT_EQ(DatabaseState::Mended, CheckDatabase(MapCare::Judge)); });
        EXPECT_EQ(0u, said.find(std::string("*VOQ*register database mended:") + what + "\r\n")) << said;
        EXPECT_EQ("", Unsound(Load())) << what;
        EXPECT_EQ(DatabaseState::Sound, Check());
        return Load();
    };
    const std::tuple<const char*, const char*, std::uint32_t, std::uint32_t> restored[] = {
        {" header", "org", 0, 5},       {" header", "org", 0, 7},        {" header", "org", 8, 12},
        {" links", "org", 12 + 48, 68}, {" links", "org", 68 + 48, 292}, {" index", "index", 16 + 8, 12},
        {" maps", "index", 12, 2},      {" links", "org", 236 + 52, 0},  // an append whose link was not written
    };
    for (const auto& each : restored) {
        const auto damage = [&](Files& files) { SetWord(files[get<1>(each)], get<2>(each), get<3>(each)); };
        EXPECT_TRUE(base == mends(get<0>(each), damage)) << "case " << &each - restored;
    }
    mends(" cut-off record", [](Files& files) { files["org"] += "half a record"; });
    mends(" maps", [](Files& files) { files["im2_10_22_0"].resize(20); });
    mends(" index maps", [](Files& files) { files["index"].resize(40); });
    EXPECT_TRUE(base == mends(" index maps", [](Files& files) { files["index"].assign(48, '\0'); }));
    // A data file that lost its end: the values are read again.
    Files shorter = mends(" data file length", [](Files& files) {
        for (std::uint32_t at = 12; at < files["org"].size(); at += 56) files["org"][at + 36] = 1;
        files["data"] = "12345678901";
    });
    EXPECT_EQ("12345678901" + std::string(20 + 70 - 11, '\0'), shorter["data"]);
    for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(i < 2 ? 1 : 0, shorter["org"][12 + 56 * i + 36]) << i;
    // An index entry of which only the length reached the disk, one that has become another group's, one still to come.
    mends(" index maps", [](Files& files) { files["index"].replace(32, 16, 16, '\0'); });
    mends(" index maps", [](Files& files) { files["index"].replace(0, 16, files["index"], 32, 16); });
    Store({{"org", std::string(12, '\0')}, {"data", ""}, {"index", ""}});
    LogOn(Key(1, 0x22, 10, 2));
    const Files first = Load();
    Files unnamed = first;
    unnamed["index"] = "";
    Store(unnamed);
    EXPECT_EQ(DatabaseState::Mended, Check());
    EXPECT_TRUE(first == Load());
    // Without its record the list is empty, and so is its index.
    Store({{"org", std::string("\1\0\0\0\14\0\0\0\14\0\0\0", 12)},
           {"data", ""},
           {"index", base.at("index").substr(0, 16)}});
    EXPECT_EQ(DatabaseState::Mended, Check());
    EXPECT_TRUE((Files{{"org", std::string(12, '\0')}, {"data", ""}, {"index", ""}}) == Load());
}

TEST_F(OrgCheckTest, RefusesWhatNothingExplains)
{
    Build();
    const Files base = Load();
    const std::tuple<const char*, const char*, std::uint32_t, std::uint32_t> cases[] = {
        {"a link back into the chain", "org", 68 + 52, 12},
        {"a link to no record, offset 70", "org", 68 + 52, 70},
        {"a link to no record", "org", 124 + 52, 11 + 6 * 56},
        {"a link to no record", "org", 4, 0xFFFFFFFC},
        {"an index, but no chain, offset 0", "org", 4, 0},
        {"a chain that ends before its tail", "org", 68 + 52, 0},
        {"a record out of order", "org", 68 + 16, 9},
        {"a record out of order", "org", 68 + 16, 10},
        {"a group in two runs", "org", 292 + 8, 0x22010001},
        {"a region inside another", "org", 68 + 44, 3},
        {"a region outside the data file", "org", 68 + 44, 0x7FFFFFF0},
        {"an index entry of no group, offset 16", "index", 16, 0x00110002},
    };
    for (const auto& [what, damaged, at, value] : cases) {
        Files files = base, expected;
        SetWord(files[damaged], at, value);
        Store(files);
        for (const auto& [file, bytes] : files) expected[file.compare(0, 2, "im") == 0 ? file : file + ".bad"] = bytes;
        const std::string said = Output([] { EXPECT_EQ(DatabaseState::Refused, CheckDatabase(MapCare::Judge)); });
        EXPECT_EQ(0u, said.find(std::string("*VOQ*register database refused: ") + what)) << said;
        EXPECT_TRUE(expected == Load()) << what;
    }
    Files lost = base;  // the last record without its content
    lost["org"].replace(292, 48, 48, '\0');
    Store(lost);
    EXPECT_NE(std::string::npos,
              Output([] { CheckDatabase(MapCare::Judge); }).find("refused: a record that was never written"));
    // A file without a whole header waits for it; an index below one entry is empty and stays so.
    for (const auto& [name, size] : {std::pair{"org", 11}, {"index", 15}}) {
        Files files = base;
        files[name].resize(static_cast<std::size_t>(size));
        Store(files);
        EXPECT_EQ(DatabaseState::Sound, Check());
        EXPECT_TRUE(files == Load());
    }
}

TEST_F(OrgCheckTest, LeavesWhatTheServiceItselfLeaves)
{
    Build();
    Request(Key(1, 0x22, 15, 2), OrgMode::LogOff);  // a record that the group's map does not list
    Request(Key(2, 0x22, 5, 2), OrgMode::LogOff);
    const Files lagging = Load();
    EXPECT_EQ(DatabaseState::Sound, Check());
    EXPECT_TRUE(lagging == Load());
    // One map is made anew, no other file is touched. A missing one stays away.
    Files files = lagging;
    files["im2_10_22_0"].resize(20);
    files.erase("im3_10_0_0");
    Store(files);
    std::string made;
    Tap = [&](const FileChange& change) {
        if (change.kind == FileChange::Create) made += change.path;
        return AllOf(change);
    };
    EXPECT_EQ(DatabaseState::Mended, Check());
    Tap = nullptr;
    EXPECT_EQ(scratch.Folder() + "im2_10_22_0", made);
    EXPECT_EQ(36u, Load()["im2_10_22_0"].size());
    EXPECT_EQ(lagging.at("index").substr(0, 28), Load()["index"].substr(0, 28));
    EXPECT_EQ(0u, Load().count("im3_10_0_0"));
    // A set that was handed over keeps its maps, and a record that is larger than any can be.
    SetWord(files["org"], 68 + 12, 0xFFFF0010);
    Store(files);
    Output([] { EXPECT_EQ(DatabaseState::Sound, CheckDatabase(MapCare::Leave)); });
    EXPECT_TRUE(files == Load());
}

// It would be waited for at every start.
TEST_F(OrgCheckTest, ARegisterTableThatGotNoHeaderIsBuiltAnew)
{
    Store({});
    ComInfo.masterSlaveMode = MODE_SLAVE;
    for (const bool streams : {false, true}) {
        Streams = streams;
        Output([] { PrepareDatabase("no project", {}); });
        EXPECT_EQ(std::string(streams ? sizeof(OrgHeader) : 0, '\0'), Load().at("org"));
    }
}
