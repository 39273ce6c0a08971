// The register database and the fast list against a model of their own, and byte for byte in cases computed by hand.
#include <algorithm>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <random>
#include <tuple>
#include <vector>

#include "list/data_file.h"
#include "list/index.h"
#include "list_fixture.h"
#include "state/paths.h"

namespace
{
struct Model {
    struct Group {
        Run run;
        std::string map;
    };
    struct Subscription {
        RegKey key;
        std::uint16_t fileno, logtimes;
        std::uint32_t orgoffset;
    };
    std::vector<Group> groups;
    std::vector<Subscription> fast;
    std::uint32_t records = 0, bytes = 0;

    Group* Find(const RegKey& key)
    {
        const auto at = std::find_if(groups.begin(), groups.end(),
                                     [&](const Group& g) { return Identity(g.run[0].key) == Identity(key); });
        return at == groups.end() ? nullptr : &*at;
    }

    void Register(const RegKey& key, int mode)
    {
        const int step = mode == 1 ? 1 : mode == 2 ? -1 : 0;
        Group* group = Find(key);
        const bool fresh = group == nullptr;
        if (fresh) group = &groups.emplace_back();
        auto at = std::find_if(group->run.begin(), group->run.end(),
                               [&](const Row& r) { return Order(r.key) >= Order(key); });
        if (at != group->run.end() && Order(at->key) == Order(key)) {
            at->logtimes = static_cast<std::uint16_t>(at->logtimes + step);
            return;
        }
        group->run.insert(at, {key, static_cast<std::uint16_t>(step), 12 + 56 * records++, bytes});
        bytes += RegionBytes(key);
        if (mode == 1 || (fresh && mode == 2)) group->map = MapBytes(group->run);
    }

    std::uint32_t Offset(const RegKey& key)
    {
        const Group* group = Find(key);
        if (group == nullptr) return 0;
        for (; group != &groups.back() + 1; ++group) {
            for (const Row& r : group->run) {
                if (r.key.plcno != key.plcno || r.key.regid != key.regid || r.key.layout != key.layout) return 0;
                if (Order(r.key) == Order(key) && r.key.subaddr == key.subaddr && !((r.key.flag ^ key.flag) & 0x200)) {
                    return r.offset;
                }
            }
        }
        return 0xFFFFFFFF;
    }

    void Subscribe(const RegKey& key, std::uint16_t fileno)
    {
        std::size_t at = fast.size();
        for (std::size_t i = 0; i < fast.size(); ++i) {
            if (Identity(fast[i].key) != Identity(key)) continue;
            if (Order(fast[i].key) == Order(key)) {
                ++fast[i].logtimes;
                return;
            }
            at = Order(fast[i].key) < Order(key) ? i + 1 : std::min(at, i);
        }
        fast.insert(fast.begin() + static_cast<std::ptrdiff_t>(at), {key, fileno, 1, Offset(key)});
    }

    void Unsubscribe(std::uint16_t fileno)
    {
        const auto at = std::find_if(fast.begin(), fast.end(), [&](const auto& s) { return s.fileno == fileno; });
        if (at != fast.end() && --at->logtimes == 0) fast.erase(at);
    }

    void Compare(const Files& files) const
    {
        const std::string& org = files.at("org");
        ASSERT_EQ(12 + 56 * records, org.size());
        ASSERT_EQ(std::string(bytes, '\0'), files.at("data"));
        std::string fault, index;
        const std::vector<Run> runs = ReadChain(org, fault);
        ASSERT_EQ("", fault);
        ASSERT_EQ(groups.size(), runs.size());
        for (std::size_t g = 0; g < groups.size(); ++g) {
            const Run& expected = groups[g].run;
            ASSERT_EQ(expected.size(), runs[g].size());
            for (std::size_t i = 0; i < expected.size(); ++i) {
                const Row& row = runs[g][i];
                ASSERT_EQ(0, std::memcmp(&expected[i].key, &row.key, sizeof row.key));
                ASSERT_EQ(std::make_tuple(expected[i].logtimes, expected[i].offset, expected[i].dataoffset),
                          std::make_tuple(row.logtimes, row.offset, row.dataoffset));
                ASSERT_LE(std::time(nullptr) - Word(org, row.offset + 24), 60);
                ASSERT_EQ(std::string(10, '\0'), org.substr(row.offset + 34, 10));
            }
            const std::string name = MapName(expected[0].key);
            ASSERT_EQ(groups[g].map, files.count(name) != 0 ? files.at(name) : "") << name;
            index += IndexBytes(expected, static_cast<std::uint32_t>(groups[g].map.size() / 12));
        }
        ASSERT_EQ(index, files.at("index"));
        const ReadLock lock(fast_rwlock);
        ASSERT_EQ(fast.size(), OrgFastListHead.count);
        std::uint16_t slot = fast.empty() ? 0xFFFF : OrgFastListHead.head, before = 0;
        for (const Subscription& s : fast) {
            const FastItem& item = OrgFastList[slot];
            ASSERT_EQ(0, std::memcmp(&s.key, &item.key, 24));
            ASSERT_EQ(std::make_tuple(s.orgoffset, s.fileno, s.logtimes, before, 1),
                      std::make_tuple(item.orgoffset, item.fileno, item.logtimes, item.prev, item.inuse));
            before = slot;
            slot = item.next;
        }
        ASSERT_EQ(std::make_tuple(0xFFFF, before), std::make_tuple(slot, OrgFastListHead.tail));
    }
};

std::uint16_t FastNow()
{
    const ReadLock lock(fast_rwlock);
    return CurrentFastList;
}
}  // namespace

TEST_F(ListTest, RandomHistoryMatchesModel)
{
    std::mt19937 random(20);
    const auto pick = [&](auto... choices) {
        const std::uint32_t all[] = {static_cast<std::uint32_t>(choices)...};
        return all[random() % sizeof...(choices)];
    };
    Model model;
    for (int i = 0; i < 4000; ++i) {
        const RegKey key = Key(static_cast<std::uint8_t>(pick(1, 2)), static_cast<std::uint8_t>(pick(0, 0x22, 0x14)),
                               random() % 20, static_cast<std::uint16_t>(random() % 4),
                               pick(0, 5) | (random() % 10 == 0 ? 0x10000u : 0), pick(0, 0x100, 0x200));
        const auto fileno = static_cast<std::uint16_t>(random() % 400);
        const std::uint32_t kind = random() % 10;
        if (kind == 0) {
            model.Register(key, 0);
            EXPECT_EQ(0, CheckOrgList(&key));
        } else if (kind < 7) {
            model.Register(key, 1);
            model.Subscribe(key, fileno);
            LogOn(key, fileno);
        } else {
            model.Register(key, 2);
            model.Unsubscribe(fileno);
            LogOff(key, fileno);
        }
        if (i % 100 < 2) model.Compare(Load());
        if (HasFatalFailure()) FAIL() << "operation " << i;
    }
    model.Compare(Load());
    EXPECT_GT(model.records, 1000u);
    EXPECT_EQ(0, VoqFileOpenCount.load());
}

TEST_F(ListTest, FirstLogOnByteForByte)
{
    const RegKey key = Key(1, 0x22, 100, 3);
    const std::string said = Output([&] {
        const RegRequest request{key, 1, 0, 7, 0};
        EXPECT_EQ(0, LogOnOff2OrgList(&request, OrgMode::LogOn, 7));
    });
    EXPECT_EQ("*VOQ*Find list,Offset=c\r\n", said);
    Files files = Load();
    const std::string& org = files["org"];
    ASSERT_EQ(68u, org.size());
    EXPECT_EQ(std::string("\1\0\0\0\14\0\0\0\14\0\0\0", 12), org.substr(0, 12));
    EXPECT_EQ(std::string("\0\0\0\0\0\0\0\0\1\0\1\x22\20\0\3\0\144\0\0\0\0\0\0\0", 24), org.substr(12, 24));
    EXPECT_EQ("\1" + std::string(23, '\0'), org.substr(44));
    EXPECT_EQ(std::string("\1\0\20\0\0\0\x22\0\14\0\0\0\1\0\0\0", 16), files["index"]);
    EXPECT_EQ(std::string("\144\0\0\0\3\0\0\0\14\0\0\0", 12), files["im1_10_22_0"]);
    EXPECT_EQ(6u, files["data"].size());
    EXPECT_EQ(1, FastNow());

    LogOff(Key(1, 0x22, 5, 1));
    files = Load();
    EXPECT_EQ(0xFFFF, Word<std::uint16_t>(files["org"], 68 + 32));
    EXPECT_EQ(68u, Word(files["index"], 8)) << "the entry follows the group's new first record";
    EXPECT_EQ(1u, Word(files["index"], 12)) << "a log-off leaves the map as it was";
}

// Order of the writes and place of the syncs: the region before its record, links towards the header, the index last.
TEST_F(ListTest, WritesGoFromTheRecordToTheHeader)
{
    const auto trace = [](const RegKey& key, OrgMode mode) {
        std::string written;
        Gate.trace = &written;
        mode == OrgMode::Register ? void(CheckOrgList(&key)) : mode == OrgMode::LogOn ? LogOn(key) : LogOff(key);
        Gate.trace = nullptr;
        return written;
    };
    const auto region = [](int at) { return "data@" + std::to_string(at) + "+2 data! "; };
    const auto map = [](const std::string& name, int records) {
        std::string lines;
        for (int i = 0; i < records; ++i) lines += name + "@" + std::to_string(12 * i) + "+12 " + name + "! ";
        return lines;
    };
    EXPECT_EQ("index@0+16 index! " + region(0) + "org@0+12 org@12+56 org! ", trace(Key(1, 2, 5, 1), OrgMode::Register));
    EXPECT_EQ(region(2) + "org@68+56 org@12+56 org@0+12 org! index@16+16 index! " + map("im2_10_2_0", 1) +
                  "index@16+16 index! ",
              trace(Key(2, 2, 5, 1), OrgMode::LogOff));
    EXPECT_EQ(region(4) + "org@124+56 org@68+56 org@12+56 org@0+12 " + map("im1_10_2_0", 2) + "index@0+16 index! ",
              trace(Key(1, 2, 7, 1), OrgMode::LogOn))
        << "in front of another group";
    EXPECT_EQ(region(6) + "org@180+56 org@124+56 org@12+56 org@0+12 org! ", trace(Key(1, 2, 6, 1), OrgMode::LogOff))
        << "inside its group";
    EXPECT_EQ(region(8) + "org@236+56 org@12+56 org@0+12 index@0+16 index! org! ",
              trace(Key(1, 2, 4, 1), OrgMode::Register))
        << "new head";
    EXPECT_EQ(region(10) + "org@292+56 org@68+56 org@0+12 ", trace(Key(2, 2, 9, 1), OrgMode::LogOff)) << "at the end";
    EXPECT_EQ("org@292+56 org! ", trace(Key(2, 2, 9, 1), OrgMode::LogOn));
    EXPECT_EQ("org! ", trace(Key(2, 2, 9, 1), OrgMode::Register));
}

TEST_F(ListTest, LookupAnswersAndMessages)
{
    const auto lookup = [](const RegKey& key, std::uint32_t expected) {
        return Output([&] { EXPECT_EQ(expected, GetOrgOffset(key)); });
    };
    EXPECT_EQ("*VOQ*Index not find,need logon?\r\n", lookup(Key(1, 0x22, 0, 1), 0));
    LogOn(Key(1, 0x22, 5, 2));
    LogOn(Key(2, 0x22, 7, 1, 0x30004));
    LogOn(Key(1, 0x22, 0, 1));
    LogOn(Key(1, 0x22, 1, 1));
    EXPECT_EQ("*VOQ*ORG LIST NOT FIND, plcno=1, regid=16, addr=9,width=4\r\n", lookup(Key(1, 0x22, 9, 4), 0));
    EXPECT_EQ("*VOQ*THE END:ORG LIST NOT FIND,THIS SHOULD NOT HAPPEN:addr=9 regid=16\r\n",
              lookup(Key(2, 0x22, 9, 4, 4), OrgNone));
    lookup(Key(2, 0x22, 7, 1, 4), OrgNone);  // the high half of the second address word counts here
    EXPECT_EQ("*VOQ*Find list,Offset=44\r\n", lookup(Key(2, 0x22, 7, 1, 0x30004), 68));
    Files files = Load();
    EXPECT_EQ(std::string("\0\0\0\0\1\0\0\0\174\0\0\0\1\0\0\0\1\0\0\0\264\0\0\0\5\0\0\0\2\0\0\0\14\0\0\0", 36),
              files["im1_10_22_0"]);
    EXPECT_EQ(std::string("\7\0\0\0\1\0\3\0\104\0\0\0", 12), files["im2_10_22_4"]);

    // A remainder behind the last entry is passed over, and does not push a new entry off its place.
    files["index"] += "12345678";
    Store(files);
    LogOn(Key(3, 0x22, 7, 1, 0, 0x200));
    EXPECT_EQ(std::string("\3\0\20\0\0\0\x22\1\354\0\0\0\1\0\0\0", 16), Load()["index"].substr(32));
    EXPECT_EQ(1u, Load().count("im3_10_22_0_1"));
    std::filesystem::remove(IndexFileName);
    const std::string name = folder + "index";
    EXPECT_EQ("*VOQ*RO open file " + name + " error\r\nopen index error\n*VOQ*Index FILE OPEN ERROR!\r\n",
              lookup(Key(1, 0x22, 0, 1), OrgNone));
    EXPECT_EQ("*VOQ*RW open file " + name + " error\n\r\n*VOQ*InitindexMap: open index error\n\r\n",
              Output([] { InitIndexMap(); }));
    const RegRequest request{Key(1, 0x22, 0, 1), 1, 0, 7, 0};
    Output([&] { EXPECT_EQ(-1, LogOnOff2OrgList(&request, OrgMode::LogOn, 7)); });
    EXPECT_EQ("*VOQ*RO open file " + name + " error\r\nopen index error\nmek: Checkorglist:ret=-1",
              Output([&] { EXPECT_EQ(-1, CheckOrgList(&request.key)); }));
}

TEST_F(ListTest, WriteIsCarriedIntoCoveredRecords)
{
    for (const auto& [addr, width] : {std::pair{95, 10}, {100, 2}, {104, 4}, {108, 4}, {110, 1}}) {
        LogOn(Key(1, 0x22, static_cast<std::uint32_t>(addr), static_cast<std::uint16_t>(width)));
    }
    const Files before = Load();
    std::string value;
    for (char c = 'a'; c < 'a' + 20; ++c) value += c;
    const RegKey written = Key(1, 0x22, 100, 10);
    UpdateOrgAfterWrite(written, 20, value.data());
    Files after = Load();
    std::string data(42, '\0');
    data.replace(20, 4, "abcd").replace(24, 8, "ijklmnop");
    EXPECT_EQ(data, after["data"]);
    for (std::uint32_t i = 0; i < 5; ++i) {
        const std::uint32_t at = 12 + 56 * i;
        EXPECT_EQ(i == 1 || i == 2, after["org"][at + 36] == 1) << i;
        EXPECT_EQ(i == 1 || i == 2, before.at("org").substr(at, 56) != after["org"].substr(at, 56)) << i;
    }
    // A value that would reach past the bytes written, and a group that is not indexed, change nothing.
    Store(before);
    Gate.made = 0;
    UpdateOrgAfterWrite(written, 3, value.data());
    UpdateOrgAfterWrite(Key(9, 0x22, 100, 10), 20, value.data());
    EXPECT_EQ(0, Gate.made);

    const MutexLock lock(DatabaseLock);
    OrgNode node;
    InitOrgListNode(&node, Key(1, 0x24, 104, 2));
    node.dataoffset = 3;
    EXPECT_TRUE(Copy2DataFile(node, Key(1, 0x24, 100, 8), value.data(), 16));
    EXPECT_EQ("ijklmnop", Load()["data"].substr(3, 8));
    EXPECT_FALSE(Copy2DataFile(node, Key(1, 0x24, 100, 8), value.data(), 15));
    EXPECT_FALSE(Copy2DataFile(node, Key(1, 0x24, 105, 8), value.data(), 16));
}

TEST_F(ListTest, RefusalsLeaveNothingBehind)
{
    const auto refused = [this](const RegKey& key, const char* message) {
        const Files before = Load();
        const RegRequest request{key, 1, 0, 7, 0};
        const std::string said = Output([&] {
            LogOnOff2OrgList(&request, OrgMode::LogOn, 7);
            LogOnOff2OrgList(&request, OrgMode::LogOff, 7);
            CheckOrgList(&key);
        });
        EXPECT_NE(std::string::npos, said.find(message)) << said;
        EXPECT_TRUE(before == Load());
    };
    const RegKey oversize = Key(1, 0x28, 1, 8225);
    for (int filled = 0; filled < 2; ++filled) {
        refused(oversize, "*VOQ*range of 65800 bytes refused");
        Files files = Load();
        Files without = files;
        without.erase("data");
        Store(without);
        refused(Key(1, 0x28, 8, 1), "RW open file");
        refused(Key(5, 0x28, 8, 1), "RW open file");
        Store(files);
        LogOn(Key(1, 0x28, 1, 8224));
        LogOn(Key(2, 0x28, 1, 1));
        LogOn(Key(1, 0x28, 5, 1));
    }
    // Chain 12 -> 124 -> 68. Its damage ends every walk with a message, before anything is written.
    const Files sound = Load();
    const auto damage = [&](std::size_t at, std::uint32_t value, const RegKey& key, const char* message) {
        Files files = sound;
        SetWord(files["org"], at, value);
        Store(files);
        refused(key, message);
        Output([&] { EXPECT_NE(12u, GetOrgOffset(key)); });
        Output([] { InitIndexMap(); });
    };
    const RegKey last = Key(1, 0x28, 9, 1), fresh = Key(3, 0x28, 9, 1);
    damage(124 + 52, 12, last, "the chain returns to offset 12");
    damage(124 + 52, 69, last, "no record at offset 69");
    damage(124 + 52, 180, last, "no record at offset 180");
    damage(124 + 48, 68, Key(1, 0x28, 3, 1), "wrong next link in the record at offset 68");
    damage(12 + 48, 68, Key(1, 0x28, 0, 1), "wrong next link in the record at offset 68");
    damage(68 + 52, 12, fresh, "wrong next link in the record at offset 68");
    damage(8, 0xFFFFFFFC, fresh, "no record at offset 4294967292");
    for (const auto& [first, message] :
         {std::pair{68u, "another group"}, {0u, "names no record"}, {OrgNone, "names no"}}) {
        Files files = sound;
        SetWord(files["index"], 8, first);
        Store(files);
        refused(last, message);
    }
    // An index that outlived its org list: the new group is the first record.
    Files files = sound;
    files["org"].assign(12, '\0');
    Store(files);
    LogOn(fresh);
    EXPECT_EQ(1u, Word(Load()["org"], 0));
    EXPECT_EQ(12u, Word(Load()["index"], 32 + 8));
}

TEST_F(ListTest, FastListFullAndWrapped)
{
    const auto add = [](std::uint32_t addr, std::uint16_t fileno) {
        std::uint16_t slot = 0;
        Output([&] { slot = AddFastIndex(Key(1, 0x22, addr, 1), fileno, 1000 + addr); });
        return slot;
    };
    const auto remove = [](std::uint16_t fileno) { return Output([&] { DelFastIndex(fileno); }); };
    EXPECT_EQ("*VOQ*FILENO not find in list,FILENO=9\r\n*VOQ*del fast fileno=9 error!!!\r\n", remove(9));
    for (std::uint16_t i = 1; i <= 2047; ++i) ASSERT_EQ(i, add(i, i));
    EXPECT_EQ(0xFFFF, add(5000, 1));
    EXPECT_EQ(3, add(3, 9000)) << "a range that is there already needs no slot";
    EXPECT_EQ("", remove(3));
    EXPECT_EQ(0xFFFF, add(5000, 1));
    remove(5);
    remove(2);
    EXPECT_EQ(2, add(5000, 1)) << "the search wraps to 1, never 0";
    EXPECT_EQ(5, add(5001, 1));
    {
        const ReadLock lock(fast_rwlock);
        EXPECT_EQ(2047, OrgFastListHead.count);
        Output([] {
            const ReadLock inner(fast_rwlock);
            EXPECT_EQ(5, FindFastIndex(Key(9, 0, 0, 0), 6001));
            EXPECT_EQ(7, FindFastIndex(Key(1, 0x22, 7, 1, 0, 0x100), 0));
            EXPECT_EQ(0xFFFF, FindFastIndex(Key(1, 0x22, 7, 1, 0x10000), 0));
            EXPECT_EQ(7, FindFastIndexUseStrart(Key(1, 0x22, 7, 99)));
            EXPECT_EQ(0xFFFF, FindFastIndexUseStrart(Key(1, 0x22, 2, 1)));
        });
    }
    EXPECT_EQ(1, FastNow());
    remove(1);  // the first, then the entries at the end
    EXPECT_EQ(3, FastNow());
    const auto setNow = [](std::uint16_t slot) {
        const WriteLock lock(fast_rwlock);
        CurrentFastList = slot;
    };
    setNow(100);
    remove(100);
    EXPECT_EQ(101, FastNow());
    for (const std::uint16_t slot : {2, 5}) {
        const WriteLock lock(fast_rwlock);
        OrgFastList[slot].fileno = static_cast<std::uint16_t>(4000 + slot);
    }
    setNow(5);
    remove(4005);
    EXPECT_EQ(3, FastNow()) << "the last entry removed: the pass starts over";
    remove(4002);
    for (std::uint16_t i = 3; i <= 2047; ++i) remove(i);
    EXPECT_EQ(0, FastNow());
    const ReadLock lock(fast_rwlock);
    EXPECT_EQ(std::make_tuple(0, 0, 0),
              std::make_tuple(OrgFastListHead.count, OrgFastListHead.head, OrgFastListHead.tail));
}
