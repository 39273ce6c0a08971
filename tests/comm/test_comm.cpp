// The driver interface, PLC operations with their chunks, retries and markers, and the local registers, on a recording
// driver and real files.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <chrono>

#include "comm/local_reg.h"
#include "comm/marker.h"
#include "comm/plc_oper.h"
#include "list/log_on_off.h"
#include "support/scratch.h"

namespace
{
std::string Output(const auto& operation)
{
    testing::internal::CaptureStdout();
    operation();
    std::fflush(stdout);
    return testing::internal::GetCapturedStdout();
}

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
    [[nodiscard]] std::size_t Transfers() const
    {
        std::size_t count = 0;
        for (const DriverCall& call : FakeDriver::Calls) count += call.command == "RdOne" || call.command == "WrOne";
        return count;
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
            FakeDriver::Use();
            EXPECT_EQ(c.result, oper(key, buffer.data()));
            std::erase_if(FakeDriver::Calls, [](const DriverCall& call) { return call.command == "Init"; });
            ASSERT_EQ(c.chunks.size(), FakeDriver::Calls.size()) << "layout " << int{c.layout} << " width " << c.width;
            for (std::size_t i = 0; i < c.chunks.size(); ++i) {
                const DriverCall& call = FakeDriver::Calls[i];
                RegKey expected = key;
                expected.addr = c.chunks[i].addr;
                expected.width = c.chunks[i].width;
                EXPECT_EQ(0, std::memcmp(&expected, &call.key, sizeof expected)) << "chunk " << i;
                EXPECT_EQ(c.chunks[i].at, static_cast<std::size_t>(call.data - buffer.data()));
                EXPECT_EQ(c.chunks[i].length, call.length);
            }
        }
    }
    EXPECT_EQ(1, PlcOper(WordKey(0, 3), buffer.data(), 5));  // no such mode: no call
    EXPECT_EQ(0u, Transfers());
}

TEST_F(Comm, RetriesAndPausesAsTheModeSays)
{
    comIntervals = 20;
    const auto run = [this](std::vector<std::int32_t> script, int mode, int result, std::size_t calls, int pauses,
                            const char* line) {
        FakeDriver::Use();
        {
            const MutexLock lock(DriverLock);
            PlcDrvThiz();
        }
        FakeDriver::Calls.clear();
        FakeDriver::Script = script;
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(line, Output([&] { EXPECT_EQ(result, PlcOper(WordKey(0, 100), buffer.data(), mode)); }));
        const auto took = std::chrono::steady_clock::now() - start;
        EXPECT_EQ(calls, Transfers());
        EXPECT_GE(took, std::chrono::milliseconds(20) * pauses);
        EXPECT_LT(took, std::chrono::milliseconds(20) * (pauses + 1) + std::chrono::milliseconds(100));
    };
    run({3, 3, 0, 0}, PLC_WRITE, PLC_SUCCESS, 4, 2, "");
    run({0, 2, 0}, PLC_READ_RETRY, PLC_SUCCESS, 3, 1, "");
    run({2, 2, 2}, PLC_READ_RETRY, PLC_TIMEOUT, 3, 3, "*VOQ*ERROR timeout! mode:2 error:3\r\n");
    run({0, 2, 3, 7}, PLC_WRITE, PLC_ERROR, 4, 3, "*VOQ*ERROR timeout! mode:1 error:3\r\n");
    run({0, 7}, PLC_READ_ONCE, PLC_ERROR, 2, 0, "");
    run({2}, PLC_READ_ONCE, PLC_TIMEOUT, 1, 0, "");

    FakeDriver::Script = {1, 0};
    EXPECT_EQ(PLC_ERROR, PlcDrvReadPack(WordKey(0, 100), buffer.data()));
    FakeDriver::Script = {2, 0};
    EXPECT_EQ(PLC_TIMEOUT, PlcDrvWritePack(WordKey(0, 100), buffer.data()));
    EXPECT_EQ(3u, Transfers());

    _cmd = nullptr;
    GlobeComError = 0;
    EXPECT_EQ("*VOQ*ERROR timeout! mode:1 error:3\r\n",
              Output([&] { EXPECT_EQ(PLC_ERROR, PlcOper(WordKey(0, 1), buffer.data(), PLC_WRITE)); }));
    EXPECT_EQ("", Output([] { EXPECT_EQ(3, PlcDrvLoop()); }));
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
    fail(2, 2);
    fail(1, 4);
    EXPECT_FALSE(CheckIfTimeout());
    fail(2, 1);
    EXPECT_TRUE(CheckIfTimeout());
    EXPECT_EQ(3, GlobeTimeout.load());
    EXPECT_EQ(4, GlobeComError.load());
    succeed();
    EXPECT_FALSE(CheckIfTimeout());
    EXPECT_FALSE(CheckIfComError());
    EXPECT_EQ(0, GlobeTimeout.load() + GlobeComError.load());

    EXPECT_EQ(0, SetComError());
    succeed();
    EXPECT_TRUE(CheckIfComError());
    EXPECT_EQ(0, ClrComError());
    fail(7, 4);
    EXPECT_FALSE(CheckIfComError());
    fail(0x7FFFFFFF, 1);
    EXPECT_TRUE(CheckIfComError());
    fail(3, 995);
    EXPECT_EQ(1000, GlobeComError.load());
    fail(3, 1);
    EXPECT_EQ(10, GlobeComError.load());
    fail(2, 1001);
    EXPECT_EQ(10, GlobeTimeout.load());
    EXPECT_TRUE(CheckIfComError() && CheckIfTimeout());
    EXPECT_EQ(0u, FileBytes(TimeoutName).size());

    std::strcpy(TimeoutName, "/dev/shm/none/timeout");
    EXPECT_EQ("set timeout error\n", Output([] { EXPECT_EQ(-1, SetTimeout()); }));
    std::strcpy(ComErrorName, "/dev/shm/none/comerror");
    EXPECT_EQ("set com error\n", Output([] { EXPECT_EQ(-1, SetComError()); }));
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
    for (int i = 0; i < 20; ++i) buffer[i] = static_cast<unsigned char>(i);
    FakeDriver::Script = {3};
    EXPECT_EQ(PLC_ERROR, PlcDrvWrite(WordKey(100, 10), buffer.data()));
    EXPECT_EQ(std::string(8, '\0'), FileBytes(DataFileName));
    EXPECT_EQ(PLC_SUCCESS, PlcDrvWrite(WordKey(100, 10), buffer.data()));
    EXPECT_EQ(std::string("\x08\x09\x0A\x0B\x0C\x0D\x0E\x0F"), FileBytes(DataFileName));
    EXPECT_EQ(1, ReadOrgNode(FileBytes(OrgFileName), 12).state);
}

TEST_F(Comm, FindsTheLibraryAndKeepsOneInstance)
{
    std::strcpy(PlcDrvDir, "/d");
    struct {
        std::uint8_t mode, link;
        std::uint16_t port;
        const char* path;
    } const cases[] = {
        {0, 0, 2, "/d/Serial/drv_2"},         {0, 2, 65535, "/d/Ethernet/drv_65535"}, {0, 1, 0, "/ddrv_0"},
        {1, 0, 1, "/d/Service/Serial/drv_1"}, {1, 2, 0, "/d/Service/Ethernet/drv_0"}, {2, 0, 1, "/ddrv_1"},
    };
    for (const auto& c : cases) {
        ComInfo.masterSlaveMode = c.mode;
        ComInfo.linkType = c.link;
        ComInfo.portNo = c.port;
        char path[DrvPathBytes];
        EXPECT_EQ(1, loadDrvName(path));
        EXPECT_STREQ(c.path, path);
    }
    EXPECT_EQ(1, PlcDrvSet());  // an entry point is there already
    _cmd = nullptr;
    EXPECT_EQ(0u, Output([] { EXPECT_EQ(0, PlcDrvSet()); }).find("*VOQ*dlopen(/ddrv_1) error("));

    FakeDriver::Use();
    FakeDriver::InitFails = true;
    PlcDrvRead(WordKey(0, 1), buffer.data());
    FakeDriver::InitFails = false;
    PlcDrvRead(WordKey(0, 1), buffer.data());
    PlcDrvRead(WordKey(0, 1), buffer.data());
    ComInfo.lineMode = 1;
    ComInfoRecord image;
    std::memset(&image, 0x5A, sizeof image);
    const std::string log = Output([&] { ReloadDriver(image); });
    EXPECT_EQ(0u, log.find("*VOQ*PLC destroy!_cmd="));
    EXPECT_NE(std::string::npos, log.find("*VOQ*Destroy PLC drv="));
    EXPECT_NE(std::string::npos, log.find("*VOQ*--==>PLC init!_cmd="));
    EXPECT_NE(std::string::npos, log.find(" thiz=0\r\n*VOQ*Init PLC drv thiz="));
    std::string commands;
    for (const DriverCall& call : FakeDriver::Calls) commands += call.command + " ";
    EXPECT_EQ("Init RdOne Init RdOne RdOne Destroy Init ", commands);
    EXPECT_TRUE(ComInfo.dataBits == 0x5A && ComInfo.parity == 0x5A && ComInfo.baudOrAddress == 0x5A5A5A5A);
    EXPECT_TRUE(ComInfo.stopBits == 0 && ComInfo.lineMode == 1 && ComInfo.portNo == 1);
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
    MakeLocReg(&key, "LB", 7, 2, 2);
    EXPECT_TRUE(key.flag == 6 && key.layout == 0 && key.regid == 254 && key.subaddr == 0xFFFFFFFF && key.width == 2);
    for (const char* name : {"LW", "SRB", "lb", ""}) {
        MakeLocReg(&key, name, 0, 1, 0);
        EXPECT_EQ(255, key.regid);
    }
    const UserOper* const table = GetUserOper();
    EXPECT_EQ(nullptr, table->reserved);
    EXPECT_EQ(1, table->write("RW", 10, 3, "abcdef", 0));
    EXPECT_EQ(1, table->read("RW", 11, 1, buffer.data(), 0));
    EXPECT_EQ(0, std::memcmp("cd\xAA", buffer.data(), 3));

    const auto touched = [] {
        struct stat info;
        EXPECT_EQ(0, stat(RWName, &info));
        return info.st_mtime != 1;
    };
    const timespec old[] = {{1, 0}, {1, 0}};
    EXPECT_EQ(0, utimensat(AT_FDCWD, RWName, old, 0));
    EXPECT_EQ(1, table->write("RW", 10, 3, "abcdef", 0));
    EXPECT_FALSE(touched());
    EXPECT_EQ(1, table->write("RW", 10, 3, "abcdeg", 0));
    EXPECT_TRUE(touched());

    EXPECT_EQ(1, table->write("SRW", 9999, 1, "xy", 0));
    EXPECT_EQ(1, table->read("SRW", 9999, 2, buffer.data() + 100, 0));  // nothing behind the end
    EXPECT_EQ(0, std::memcmp("xy\xAA\xAA", buffer.data() + 100, 4));

    EXPECT_EQ(0, mknod(LWName, S_IFSOCK | 0777, 0));  // exists, but cannot be opened
    EXPECT_EQ(3, table->write("LW", 0, 1, "xy", 0));
    EXPECT_EQ(3, table->read("LW", 0, 1, buffer.data() + 200, 0));
    EXPECT_EQ(0xAA, buffer[200]);
}
}  // namespace
