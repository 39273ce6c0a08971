// Fresh values on their way into the files: what is written, in how many calls, and what a record says of a value lost.
#include <sys/resource.h>

#include <algorithm>
#include <csignal>
#include <random>

#include "database/write_through.h"
#include "support/database_files.h"

class FreshValuesTest : public DatabaseTest
{
protected:
    // One write of `value` from address 0 on.
    static std::string Write(const std::string& value)
    {
        const auto length = static_cast<std::uint32_t>(value.size());
        return ChangesOf([&] { UpdateOrgAfterWrite(Key(1, 0x22, 0, length / 2), length, value.data()); });
    }
    // In chain order.
    [[nodiscard]] std::string States() const
    {
        std::string states;
        for (const auto& record : Records(Load().at("org"))) states += std::to_string(record.node.state);
        return states;
    }
};

TEST_F(FreshValuesTest, WhatLiesSideBySideGoesInOneCall)
{
    for (const std::uint32_t addr : {0, 1, 2, 3, 5, 4}) LogOn(Key(1, 0x22, addr, 1));
    const std::string records = "org@12+224 org@292+56 org@236+56 ";
    EXPECT_EQ("data@0+8 data@10+2 data@8+2 " + records + "data! org! ", Write("abcdefghijkl"));
    EXPECT_EQ(records + "org! ", Write("abcdefghijkl"));
    EXPECT_EQ("data@2+2 data@6+1 " + records + "data! org! ", Write("abCDefGhijkl"));
    EXPECT_EQ("abCDefGhklij", Load().at("data"));
}

TEST_F(FreshValuesTest, OneValueGoesToItsRegion)
{
    for (const std::uint32_t addr : {0, 1}) LogOn(Key(1, 0x22, addr, 1));
    const MutexLock lock(DatabaseLock);
    OrgNode record = Records(Load().at("org"))[1].node;
    EXPECT_EQ(Copied::Stored, Copy2DataFile(record, Key(1, 0x22, 0, 2), "abcd", 4));
    EXPECT_EQ(std::string("\0\0cd", 4), Load().at("data"));
    EXPECT_EQ(Copied::Outside, Copy2DataFile(record, Key(1, 0x22, 0, 2), "ab", 2));
    record.dataoffset = INT32_MAX;
    EXPECT_EQ(Copied::Failed, Copy2DataFile(record, Key(1, 0x22, 0, 2), "abcd", 4));
    record.key = Key(1, 0x28, 0, 65535);
    EXPECT_EQ(Copied::Outside, Copy2DataFile(record, record.key, "", 0));
}

// Any order, sizes beyond what is gathered and read at once.
TEST_F(FreshValuesTest, EveryValueGoesToItsRegion)
{
    std::mt19937 random(5);
    std::vector<RegKey> keys;
    for (std::uint32_t addr = 0; keys.size() < 600; addr += keys.back().width) {
        keys.push_back(Key(1, 0x22, addr, keys.size() % 50 == 0 ? 2000 : 1 + random() % 3));
    }
    std::string value(2 * (keys.back().addr + keys.back().width), '\0');
    std::ranges::shuffle(keys.begin(), keys.begin() + 300, random);
    for (const RegKey& key : keys) Output([&] { Request(key, OrgMode::Register); });
    for (const unsigned one : {1, 3, 40, 4000}) {  // byte in so many changes
        for (char& byte : value) byte = static_cast<char>(random() % one == 0 ? random() : byte);
        Write(value);
        const std::string data = Load().at("data");
        for (const auto& [offset, node] : Records(Load().at("org"))) {
            const std::size_t bytes = 2u * node.key.width;
            EXPECT_EQ(0, value.compare(2 * node.key.addr, bytes, data, node.dataoffset, bytes));
        }
    }
    EXPECT_EQ(std::string(600, '1'), States());
}

TEST_F(FreshValuesTest, ValueThatIsNotStoredIsNotPromised)
{
    for (const std::uint32_t addr : {0, 2000, 4000, 4001}) LogOn(Key(1, 0x22, addr, addr < 4000 ? 2000 : 1));
    std::string value(8004, 'v');
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{}, most{};
    getrlimit(RLIMIT_FSIZE, &most);
    limit = {4096, most.rlim_max};  // bytes of a file
    setrlimit(RLIMIT_FSIZE, &limit);
    Write(value);
    EXPECT_EQ("3333", States());  // of one run nobody knows how much got there
    value[4000] = 'w';
    Write(value);
    EXPECT_EQ("1333", States());
    setrlimit(RLIMIT_FSIZE, &most);
    Write(value);
    EXPECT_EQ("1111", States());
    EXPECT_EQ(value, Load().at("data"));
}
