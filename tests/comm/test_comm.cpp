// The panel's local registers on real files, and what a driver call may leave behind.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "comm/local_reg.h"
#include "comm/plc_oper.h"
#include "list/fast_list.h"
#include "support/capture.h"
#include "support/scratch.h"

namespace
{
class Comm : public testing::Test
{
protected:
    Scratch scratch;
    std::vector<unsigned char> buffer = std::vector<unsigned char>(2 * 65536, 0xAA);
};

// The driver is told a length of 0 for element sizes that have none; what it leaves alone reads as zeros.
TEST_F(Comm, NothingOfTheBufferIsTakenForAValue)
{
    FakeDriver::Use();
    EXPECT_EQ(PLC_SUCCESS, PlcDrvRead(WordKey(0, 3, 0x29), buffer.data()));
    EXPECT_EQ(0, FakeDriver::Calls.at(1).length);
    EXPECT_EQ(std::vector<unsigned char>(27, 0), std::vector(&buffer[0], &buffer[27]));
    EXPECT_EQ(0xAA, buffer[27]);
}

TEST_F(Comm, SubscriptionsAreFoundByPlaceElseByRange)
{
    const std::uint16_t one = AddFastIndex(WordKey(1, 2), 7, 12), other = AddFastIndex(WordKey(5, 2), 8, 68);
    const ReadLock lock(fast_rwlock);
    EXPECT_EQ(one, FindFastIndex(WordKey(5, 2), 12));
    EXPECT_EQ(other, FindFastIndex(WordKey(5, 2), 0));
    EXPECT_EQ(FastEnd, FindFastIndex(WordKey(5, 2), 124));
    EXPECT_EQ(FastEnd, FindFastIndex(WordKey(5, 3), 0));
}

TEST_F(Comm, LocalRegistersCreateGrowAndRefuse)
{
    const std::string lw = "*VOQ*Lw.DAT not find,build one \r\n", rw = "*VOQ*RW.DAT not find,build one \r\n";
    const auto built = [](const char* path) { return "*VOQ*" + std::string(path) + " not find,build one \r\n"; };
    struct {
        bool write;
        std::uint16_t regid;
        std::uint32_t addr;
        std::uint16_t width;
        int result;
        const char* path;
        std::size_t size;  // 0: no file
        std::string output;
    } const cases[] = {
        {false, 255, 70000, 1, 1, LWName, 140004, lw + "*VOQ*LW need add len=8934\r\n"},
        {true, 255, 70000, 1, 1, LWName, 140004, lw + "*VOQ*need add len=8934\r\n"},
        {false, 255, 65533, 1, 1, LWName, 131070, lw},
        {false, 254, 65534, 1, 1, LBName, 65536, lw + "*VOQ*LB need add len=1\r\n"},
        {false, 253, 799989, 10, 1, RWName, 1600000, lw + "*VOQ*RW need add len=1468930\r\n"},
        {true, 253, 0, 65535, 1, RWName, 131072, rw + "*VOQ*need add len=2\r\n"},
        {true, 253, 799990, 10, 3, RWName, 0, ""},
        {false, 255, 2097000, 2000, 3, LWName, 0, ""},
        {false, 254, 2097151, 1, 3, LBName, 0, ""},
        {false, 253, 0xFFFFFFFF, 2, 3, RWName, 0, ""},
        {false, 300, 0xFFFFFFFF, 2, 3, LWName, 0, ""},
        {true, 300, 5, 2, 1, LWName, 0, ""},
        {false, 256, 9999, 1, 1, SRWName, 20000, built(SRWName)},
        {true, 256, 10005, 1, 1, vSRWName, 20000, built(vSRWName)},
        {true, 257, 9999, 1, 1, SRBName, 10000, built(SRBName)},
        {false, 257, 10000, 1, 1, vSRBName, 10000, built(vSRBName)},
    };
    for (const auto& c : cases) {
        RegKey key = WordKey(c.addr, c.width);
        key.regid = c.regid;
        buffer.assign(buffer.size(), 0x5A);
        const std::size_t bytes = c.width * (c.regid == 254 || c.regid == 257 ? 1u : 2u);
        EXPECT_EQ(c.output, Output([&] {
                      EXPECT_EQ(c.result, c.write ? WriteLocal(key, buffer.data()) : ReadLocal(key, buffer.data()));
                  }))
            << c.regid << " at " << c.addr;
        const std::string file = FileBytes(c.path);
        EXPECT_EQ(c.size, file.size()) << c.regid << " at " << c.addr;
        if (c.size != 0 && c.write) {
            const std::size_t at = (c.addr >= 10000 && c.regid >= 256 ? c.addr - 10000 : c.addr) * bytes / c.width;
            EXPECT_TRUE(std::string(bytes, 0x5A) == file.substr(at, bytes)) << c.regid << " at " << c.addr;
            EXPECT_EQ(static_cast<long>(bytes), std::ranges::count(file, 0x5A));
        } else {
            EXPECT_EQ(c.size != 0 ? 0 : 0x5A, buffer[0]);
            EXPECT_EQ(0x5A, buffer[c.size != 0 ? bytes : 1]);
        }
        std::filesystem::remove(c.path);
    }
}

TEST_F(Comm, CallbacksSelectByNameAndSpareRetainedWords)
{
    RegKey key;
    MakeLocReg(&key, "SRW", 7, 2, 3);
    EXPECT_TRUE(key.flag == 0x8006 && key.portno == 0xFF && key.layout == 0x22 && key.regid == 256);
    const UserOper* const table = GetUserOper();
    EXPECT_EQ(nullptr, table->reserved);
    EXPECT_EQ(1, table->write("RW", 10, 3, "abcdef", 0));
    EXPECT_EQ(1, table->read("RW", 11, 1, buffer.data(), 0));
    EXPECT_EQ(0, std::memcmp("cd\xAA", buffer.data(), 3));
    for (const bool changed : {false, true}) {  // an equal value is not written
        const auto old = std::filesystem::file_time_type::clock::now() - std::chrono::hours(1);
        std::filesystem::last_write_time(RWName, old);
        EXPECT_EQ(1, table->write("RW", 10, 3, changed ? "abcdeg" : "abcdef", 0));
        EXPECT_EQ(changed, std::filesystem::last_write_time(RWName) != old);
    }
    EXPECT_EQ(1, table->write("SRW", 9999, 1, "xy", 0));
    EXPECT_EQ(1, table->read("SRW", 9999, 2, buffer.data() + 100, 0));  // nothing behind the end
    EXPECT_EQ(0, std::memcmp("xy\xAA\xAA", buffer.data() + 100, 4));

    EXPECT_EQ(0, mknod(LWName, S_IFSOCK | 0777, 0));  // exists, but cannot be opened
    EXPECT_EQ(3, table->write("LW", 0, 1, "xy", 0));
    EXPECT_EQ(3, table->read("LW", 0, 1, buffer.data() + 200, 0));
    EXPECT_EQ(0xAA, buffer[200]);
}
}  // namespace
