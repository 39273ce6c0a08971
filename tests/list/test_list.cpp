// The register database and the fast list against a model of their own, and byte for byte in cases computed by hand.
#include <algorithm>
#include <ctime>
#include <random>

#include "list/index.h"
#include "list_fixture.h"

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
                ASSERT_EQ(std::tuple(expected[i].logtimes, expected[i].offset, expected[i].dataoffset),
                          std::tuple(row.logtimes, row.offset, row.dataoffset));
                ASSERT_LE(std::time(nullptr) - Word(org, row.offset + 24), 60);
                ASSERT_EQ(std::string(10, '\0'), org.substr(row.offset + 34, 10));
            }
            const std::string name = MapName(expected[0].key);
            ASSERT_EQ(groups[g].map, files.count(name) != 0 ? files.at(name) : "") << name;
            index += IndexBytes(expected, groups[g].map.size() / 12);
        }
        ASSERT_EQ(index, files.at("index"));
        const ReadLock lock(fast_rwlock);
        ASSERT_EQ(fast.size(), OrgFastListHead.count);
        std::uint16_t slot = fast.empty() ? 0xFFFF : OrgFastListHead.head, before = 0;
        for (const Subscription& s : fast) {
            const FastItem& item = OrgFastList[slot];
            ASSERT_EQ(0, std::memcmp(&s.key, &item.key, 24));
            ASSERT_EQ(std::tuple(s.orgoffset, s.fileno, s.logtimes, before, 1),
                      std::tuple(item.orgoffset, item.fileno, item.logtimes, item.prev, item.inuse));
            before = slot;
            slot = item.next;
        }
        ASSERT_EQ(std::tuple(0xFFFF, before), std::tuple(slot, OrgFastListHead.tail));
    }
};

void MoveFastCursor(std::uint16_t slot)
{
    const WriteLock lock(fast_rwlock);
    CurrentFastList = slot;
}
}  // namespace

TEST_F(ListTest, RandomHistoryMatchesModel)
{
    std::mt19937 random(20);
    const auto pick = [&](auto... choices) {
        const unsigned all[] = {static_cast<unsigned>(choices)...};
        return all[random() % sizeof...(choices)];
    };
    Model model;
    for (int i = 0; i < 4000; ++i) {
        const RegKey key = Key(pick(1, 2), pick(0, 0x22, 0x14), random() % 20, random() % 4,
                               pick(0, 5) | (random() % 10 == 0 ? 0x10000u : 0), pick(0, 0x100, 0x200));
        const auto fileno = static_cast<std::uint16_t>(random() % 400);
        const std::uint32_t kind = random() % 10;
        const int mode = kind == 0 ? 0 : kind < 7 ? 1 : 2;
        model.Register(key, mode);
        if (mode == 1) model.Subscribe(key, fileno);
        if (mode == 2) model.Unsubscribe(fileno);
        Request(key, mode == 0 ? OrgMode::Register : mode == 1 ? OrgMode::LogOn : OrgMode::LogOff, 0, fileno);
        if (i % 100 < 2) model.Compare(Load());
        if (HasFatalFailure()) FAIL() << "operation " << i;
    }
    model.Compare(Load());
    EXPECT_GT(model.records, 1000u);
    EXPECT_EQ(0, VoqFileOpenCount.load());
}

// Order of the writes and place of the syncs: the region before its record, links towards the header, the index last.
TEST_F(ListTest, WritesGoFromTheRecordToTheHeader)
{
    for (const RegKey& key : {Key(1, 2, 5, 1), Key(2, 2, 5, 1)}) LogOn(key);
    const auto trace = [](const RegKey& key, OrgMode mode) {
        std::string written;
        Gate.trace = &written;
        Request(key, mode);
        Gate.trace = nullptr;
        return written;
    };
    EXPECT_EQ(
        "data@4+2 data! org@124+56 org@68+56 org@12+56 org@0+12 im1_10_2_0@0+12 im1_10_2_0! "
        "im1_10_2_0@12+12 im1_10_2_0! index@0+16 index! ",
        trace(Key(1, 2, 7, 1), OrgMode::LogOn));
    EXPECT_EQ(
        "data@6+2 data! org@180+56 org@68+56 org@0+12 org! index@32+16 index! im3_10_2_0@0+12 im3_10_2_0! "
        "index@32+16 index! ",
        trace(Key(3, 2, 5, 1), OrgMode::LogOff));
    EXPECT_EQ("data@8+2 data! org@236+56 org@12+56 org@0+12 index@0+16 index! org! ",
              trace(Key(1, 2, 4, 1), OrgMode::Register));
}

TEST_F(ListTest, WriteIsCarriedIntoCoveredRecords)
{
    for (const auto& [addr, width] : {std::pair{95u, 10u}, {100, 2}, {104, 4}, {108, 4}, {110, 1}}) {
        LogOn(Key(1, 0x22, addr, width));
    }
    const Files before = Load();
    const char value[] = "abcdefghijklmnopqrst";
    const RegKey written = Key(1, 0x22, 100, 10);
    UpdateOrgAfterWrite(written, 20, value);
    Files after = Load();
    EXPECT_EQ(std::string(20, '\0') + "abcd" + "ijklmnop" + std::string(10, '\0'), after["data"]);
    for (std::uint32_t i = 0; i < 5; ++i) {
        const std::uint32_t at = 12 + 56 * i;
        EXPECT_EQ(i == 1 || i == 2, after["org"][at + 36] == 1) << i;
        EXPECT_EQ(i == 1 || i == 2, before.at("org").substr(at, 56) != after["org"].substr(at, 56)) << i;
    }
    // A value that would reach past the bytes written, and a group that is not indexed, change nothing.
    Store(before);
    Gate.made = 0;
    UpdateOrgAfterWrite(written, 3, value);
    UpdateOrgAfterWrite(Key(9, 0x22, 100, 10), 20, value);
    EXPECT_EQ(0, Gate.made);
}

TEST_F(ListTest, RefusalsLeaveNothingBehind)
{
    const auto refused = [this](const Files& files, const RegKey& key, const char* message) {
        Store(files);
        std::string said;
        for (const OrgMode mode : {OrgMode::LogOn, OrgMode::LogOff, OrgMode::Register}) {
            const RegRequest request{key, 1, 0, 7, 0};
            said +=
                Output([&] { mode == OrgMode::Register ? CheckOrgList(&key) : LogOnOff2OrgList(&request, mode, 7); });
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
    const struct {
        const char* file;
        std::uint32_t at, value;
        RegKey key;
        const char* message;
    } cases[] = {
        {"org", 124 + 52, 12, last, "the chain returns to offset 12"},
        {"org", 124 + 52, 69, last, "no record at offset 69"},
        {"org", 124 + 52, 180, last, "no record at offset 180"},
        {"org", 124 + 48, 68, Key(1, 0x28, 3, 1), "wrong next link in the record at offset 68"},
        {"org", 12 + 48, 68, Key(1, 0x28, 0, 1), "wrong next link in the record at offset 68"},
        {"org", 68 + 52, 12, fresh, "wrong next link in the record at offset 68"},
        {"org", 8, 0xFFFFFFFC, fresh, "no record at offset 4294967292"},
        {"index", 8, 68, last, "another group"},
        {"index", 8, 0, last, "names no record"},
        {"index", 8, OrgNone, last, "names no"},
    };
    for (const auto& each : cases) {
        Files files = sound;
        SetWord(files[each.file], each.at, each.value);
        refused(files, each.key, each.message);
        Output([&] { EXPECT_NE(12u, GetOrgOffset(each.key)); });
        Output([] { InitIndexMap(); });
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
    // Removes an entry while the cursor stands on a slot; where the cursor then stands.
    const auto remove = [](std::uint16_t fileno, std::uint16_t cursor = 1) {
        MoveFastCursor(cursor);
        Output([&] { DelFastIndex(fileno); });
        const ReadLock lock(fast_rwlock);
        return CurrentFastList;
    };
    for (std::uint16_t i = 1; i <= 2047; ++i) ASSERT_EQ(i, add(i, i));
    EXPECT_EQ(0xFFFF, add(5000, 1));
    EXPECT_EQ(3, add(3, 9000)) << "a range that is there already needs no slot";
    remove(3);
    EXPECT_EQ(0xFFFF, add(5000, 1));
    remove(5);
    remove(2);
    EXPECT_EQ(2, add(5000, 3000)) << "the search wraps to 1, never 0";
    EXPECT_EQ(5, add(5001, 3001));
    EXPECT_EQ(3, remove(1, 1));
    EXPECT_EQ(101, remove(100, 100));
    EXPECT_EQ(3, remove(3001, 5)) << "the last entry removed: the pass starts over";
}
