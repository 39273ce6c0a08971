// The driver interface, PLC operations with their chunks, retries and markers, and the local registers, on a recording
// driver and real files.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "comm/local_reg.h"
#include "comm/marker.h"
#include "comm/plc_oper.h"
#include "list/log_on_off.h"
#include "support/capture.h"
#include "support/scratch.h"

namespace
{
class Comm : public testing::Test
{
protected:
    Comm()
    {
        ComInfo = {};
        ComInfo.wordLimit = 64;
        ComInfo.bitLimit = 128;
        comIntervals = 0;
        FakeDriver::Use();
        buffer.assign(2 * 65536, 0xAA);
    }

    Scratch scratch;
    std::vector<unsigned char> buffer;
};

TEST_F(Comm, SplitsARangeIntoChunksOfThePort)
{
    struct Chunk {
        std::uint32_t addr;
        std::uint16_t width;
        std::size_t at;
        std::int32_t length;
    };
    struct {
        std::uint8_t layout;
        std::uint16_t width, wordLimit, bitLimit;
        int result;
        std::vector<Chunk> chunks;
    } const cases[] = {
        {0x22, 150, 64, 0, 1, {{1000, 64, 0, 128}, {1064, 64, 128, 128}, {1128, 22, 256, 44}}},
        {0x22, 128, 64, 0, 1, {{1000, 64, 0, 128}, {1064, 64, 128, 128}}},
        {0x00, 300, 0, 128, 1, {{1000, 128, 0, 128}, {1128, 128, 128, 128}, {1256, 44, 256, 44}}},
        {0x20, 3, 0, 2, 1, {{1000, 2, 0, 2}, {1002, 1, 2, 1}}},     // a bit step counts addresses
        {0x02, 10, 6, 0, 1, {{1000, 6, 0, 12}, {1012, 4, 12, 8}}},  // address unit 0 counts as 1
        {0x24, 3, 2, 0, 1, {{1000, 2, 0, 8}, {1004, 1, 8, 4}}},     // two units per element
        {0x29, 6, 4, 0, 1, {{1000, 4, 0, 0}, {1018, 2, 36, 0}}},    // an element size that has no length
        {0x22, 200, 0, 9, 1, {{1000, 200, 0, 400}}},                // limit 0: none
        {0x00, 200, 9, 0, 1, {{1000, 200, 0, 200}}},
        {0x41, 5, 2, 0, PLC_ERROR, {}},  // a step of 0 addresses
        {0x41, 2, 2, 0, 1, {{1000, 2, 0, 2}}},
        {0x22, 0, 64, 64, 1, {}},
    };
    for (const auto& c : cases) {
        ComInfo.wordLimit = c.wordLimit;
        ComInfo.bitLimit = c.bitLimit;
        const RegKey key = WordKey(1000, c.width, c.layout);
        int (*const opers[])(RegKey, void*) = {
            [](RegKey k, void* b) { return PlcOper(k, b, PLC_READ_ONCE); },
            [](RegKey k, void* b) { return PlcOper(k, b, PLC_READ_RETRY); },
            [](RegKey k, void* b) { return PlcOper(k, b, PLC_WRITE); },
            PlcDrvReadPack,
            PlcDrvWritePack,
        };
        for (const auto& oper : opers) {
            EXPECT_EQ(c.result, oper(key, buffer.data()));
            const std::vector<DriverCall> calls = FakeDriver::Transfers();
            ASSERT_EQ(c.chunks.size(), calls.size()) << "layout " << int{c.layout} << " width " << c.width;
            for (std::size_t i = 0; i < calls.size(); ++i) {
                RegKey expected = key;
                expected.addr = c.chunks[i].addr;
                expected.width = c.chunks[i].width;
                EXPECT_EQ(0, std::memcmp(&expected, &calls[i].key, sizeof expected)) << "chunk " << i;
                EXPECT_EQ(buffer.data() + c.chunks[i].at, calls[i].data);
                EXPECT_EQ(c.chunks[i].length, calls[i].length);
            }
        }
    }
    EXPECT_EQ(1, PlcOper(WordKey(0, 3), buffer.data(), 5));  // no such mode: no call
    EXPECT_EQ(0u, FakeDriver::Transfers().size());
}

TEST_F(Comm, RetriesAndPausesAsTheModeSays)
{
    comIntervals = 20;
    const struct {
        std::vector<std::int32_t> script;
        int mode, result;
        std::size_t calls;
        int pauses;
        const char* line;
    } cases[] = {
        {{3, 3, 0, 0}, PLC_WRITE, PLC_SUCCESS, 4, 2, ""},
        {{0, 2, 0}, PLC_READ_RETRY, PLC_SUCCESS, 3, 1, ""},
        {{2, 2, 2}, PLC_READ_RETRY, PLC_TIMEOUT, 3, 3, "*VOQ*ERROR timeout! mode:2 error:3\r\n"},
        {{0, 2, 3, 7}, PLC_WRITE, PLC_ERROR, 4, 3, "*VOQ*ERROR timeout! mode:1 error:3\r\n"},
        {{0, 7}, PLC_READ_ONCE, PLC_ERROR, 2, 0, ""},
        {{2}, PLC_READ_ONCE, PLC_TIMEOUT, 1, 0, ""},
    };
    PlcDrvRead(WordKey(0, 1), buffer.data());  // makes the instance
    FakeDriver::Calls.clear();
    for (const auto& c : cases) {
        FakeDriver::Script = c.script;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(c.line, Output([&] { EXPECT_EQ(c.result, PlcOper(WordKey(0, 100), buffer.data(), c.mode)); }));
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(c.calls, FakeDriver::Transfers().size());
        EXPECT_GE(took, std::chrono::milliseconds(20) * c.pauses);
        EXPECT_LT(took, std::chrono::milliseconds(20) * (c.pauses + 1) + std::chrono::milliseconds(100));
    }
    FakeDriver::Script = {1};
    EXPECT_EQ(PLC_ERROR, PlcDrvReadPack(WordKey(0, 100), buffer.data()));
    FakeDriver::Script = {2};
    EXPECT_EQ(PLC_TIMEOUT, PlcDrvWritePack(WordKey(0, 100), buffer.data()));
    EXPECT_EQ(2u, FakeDriver::Transfers().size());

    // An instance that could not be made is asked for again; without an entry point nothing counts as a failure.
    FakeDriver::Use();
    FakeDriver::InitFails = true;
    PlcDrvRead(WordKey(0, 1), buffer.data());
    FakeDriver::InitFails = false;
    for (int i = 0; i < 2; ++i) PlcDrvRead(WordKey(0, 1), buffer.data());
    std::string commands;
    for (const DriverCall& call : FakeDriver::Calls) commands += call.command + " ";
    EXPECT_EQ("Init RdOne Init RdOne RdOne ", commands);
    _cmd = nullptr;
    GlobeComError = 0;
    EXPECT_EQ("*VOQ*ERROR timeout! mode:1 error:3\r\n",
              Output([&] { EXPECT_EQ(PLC_ERROR, PlcOper(WordKey(0, 1), buffer.data(), PLC_WRITE)); }));
    EXPECT_EQ(3, PlcDrvLoop());
    EXPECT_EQ(0, GlobeComError.load());
}

TEST_F(Comm, MarkersFollowConsecutiveFailures)
{
    const auto fail = [this](std::int32_t driver, int times) {
        for (int i = 0; i < times; ++i) {
            FakeDriver::Script = {driver};
            EXPECT_EQ(driver == 2 ? PLC_TIMEOUT : PLC_ERROR, i % 2 == 0 ? PlcDrvRead(WordKey(0, 1), buffer.data())
                                                                        : PlcDrvWrite(WordKey(0, 1), buffer.data()));
        }
    };
    const auto succeed = [this] { EXPECT_EQ(PLC_SUCCESS, PlcDrvRead(WordKey(0, 1), buffer.data())); };

    EXPECT_EQ(0, SetComError());  // left by an earlier run: stays while its counter is 0
    succeed();
    EXPECT_TRUE(CheckIfComError());
    EXPECT_EQ(0, ClrComError());
    const struct {
        std::int32_t driver;
        int times, timeouts, errors;  // the counters behind it
        bool timeout, error;          // the markers
    } steps[] = {{2, 2, 2, 0, false, false},     {1, 4, 2, 4, false, false}, {2, 1, 3, 4, true, false},
                 {0, 0, 0, 0, false, false},     {7, 4, 0, 4, false, false}, {0x7FFFFFFF, 1, 0, 5, false, true},
                 {3, 995, 0, 1000, false, true}, {3, 1, 0, 10, false, true}, {2, 1001, 10, 10, true, true}};
    for (const auto& step : steps) {
        step.times == 0 ? succeed() : fail(step.driver, step.times);
        EXPECT_EQ(std::pair(step.timeouts, step.errors), std::pair(GlobeTimeout.load(), GlobeComError.load()));
        EXPECT_EQ(std::pair(step.timeout, step.error), std::pair(CheckIfTimeout() != 0, CheckIfComError() != 0));
    }
    EXPECT_EQ(0u, FileBytes(TimeoutName).size());
}

TEST_F(Comm, FlaggedRangesReadAsZerosAndWritesReachTheDatabase)
{
    RegKey flagged = WordKey(0, 100);
    flagged.flag |= REG_FLAG_GROUP;
    FakeDriver::Script = {2};
    GlobeTimeout = 1;
    EXPECT_EQ(PLC_SUCCESS, PlcOper(flagged, buffer.data(), PLC_READ_ONCE));
    EXPECT_TRUE(FakeDriver::Calls.empty());
    EXPECT_EQ(1, GlobeTimeout.load());
    EXPECT_EQ(0, buffer[199]);
    EXPECT_EQ(0xAA, buffer[200]);
    EXPECT_EQ(PLC_TIMEOUT, PlcDrvWrite(flagged, buffer.data()));

    EXPECT_EQ(PLC_SUCCESS, PlcDrvRead(WordKey(0, 3, 0x29), buffer.data() + 1000));  // no length: 27 zeros, not 0xAA
    EXPECT_EQ(std::vector<unsigned char>(27, 0), std::vector(&buffer[1000], &buffer[1027]));
    EXPECT_EQ(0xAA, buffer[1027]);

    const RegKey range = WordKey(104, 4);
    EXPECT_EQ(0, CheckOrgList(&range));
    std::string value = "abcdefghijklmnopqrst";
    for (const int result : {PLC_ERROR, PLC_SUCCESS}) {
        FakeDriver::Script = {result == PLC_SUCCESS ? 0 : 3};
        EXPECT_EQ(result, PlcDrvWrite(WordKey(100, 10), value.data()));
        EXPECT_EQ(result == PLC_SUCCESS ? "ijklmnop" : std::string(8, '\0'), FileBytes(DataFileName));
    }
    EXPECT_EQ(1, ReadOrgNode(FileBytes(OrgFileName), 12).state);
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
        {true, 255, 65534, 1, 1, LWName, 131072, lw + "*VOQ*need add len=2\r\n"},
        {false, 255, 65533, 1, 1, LWName, 131070, lw},
        {false, 254, 65534, 1, 1, LBName, 65536, lw + "*VOQ*LB need add len=1\r\n"},
        {true, 254, 65534, 1, 1, LBName, 65536, lw + "*VOQ*need add len=1\r\n"},
        {false, 254, 65533, 1, 1, LBName, 65535, lw},
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
