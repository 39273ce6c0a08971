// The PLC simulator: where registers lie, moving values, failures on demand, the log.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>

#include "driver.h"
#include "drivers/sim/sim_control.h"

namespace
{

class Sim : public testing::Test
{
protected:
    Sim()
    {
        close(mkstemp(path));
        setenv("VOQ_SIM", path, 1);
        driver.info.slaveNo = 7;
        EXPECT_EQ(driver.Init(), 0);
        const int fd = open(path, O_RDWR);
        void* memory = mmap(nullptr, sizeof(SimControl), PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
        close(fd);
        if (memory == MAP_FAILED) throw std::runtime_error("no control file");
        control = static_cast<SimControl*>(memory);
    }
    ~Sim() override
    {
        munmap(control, sizeof(SimControl));
        unlink(path);
    }
    void Fail(SimFailure failure, std::uint32_t station, std::uint32_t count, std::uint32_t command = 0)
    {
        control->failStation = station;
        control->failCount = count;
        control->failCommand = command;
        control->failure = failure;
    }

    char path[32] = "/tmp/voqsimXXXXXX";
    Driver driver{SIM_DRIVER};
    SimControl* control;
};

TEST_F(Sim, RegistersLieWhereTheyShouldAndHostileRangesAreSafe)
{
    EXPECT_EQ(driver.Write(Key(9, 0x22, 12, 10, 2), {1, 2, 3, 4}), 0);
    const std::uint8_t* words = control->registers[1][4] + 20;
    EXPECT_EQ(Bytes(words, words + 4), (Bytes{1, 2, 3, 4}));
    control->registers[2][0][65535] = 1;  // the value runs over the end of its area
    control->registers[2][0][1] = 1;
    Bytes bits(3);
    EXPECT_EQ(driver.Read(Key(2, 0x00, 0, 65535, 3), bits), 0);
    EXPECT_EQ(bits, (Bytes{1, 0, 1}));

    for (const unsigned layout : {0x00u, 0x11u, 0x22u, 0x48u, 0xF8u, 0x03u})
        for (std::uint16_t regid = 0; regid < 8; regid++) {
            const unsigned size = layout % 16 == 0 ? 1 : layout % 16;
            const RegKey key =
                Key(255, static_cast<std::uint8_t>(layout), static_cast<std::uint16_t>(65528 + regid), ~0u, 65535);
            Bytes large(65535 * size);
            EXPECT_EQ(driver.Read(key, large), 0);
            EXPECT_EQ(driver.Write(key, large), regid < 6 ? 0 : 3);
            large.pop_back();
            EXPECT_EQ(driver.Read(key, large), 3);
        }
    Bytes none(1);
    EXPECT_EQ(driver.Read(Key(0, 0x0F, 0, 0, 1), none), 3);
}

TEST_F(Sim, ValuesMove)
{
    Bytes words(4), earlier(4);
    driver.Read(Key(3, 0x22, 5, 0, 2), words);
    EXPECT_EQ(words, (Bytes{1, 0, 1, 0}));
    driver.Write(Key(3, 0x22, 5, 0, 1), {0xFF, 0x01});
    driver.Read(Key(3, 0x22, 5, 7, 2), words);
    EXPECT_EQ(words, (Bytes{0, 2, 0, 2}));

    driver.Read(Key(3, 0x22, 6, 0, 2), earlier);
    std::this_thread::sleep_for(std::chrono::milliseconds(60));
    driver.Read(Key(3, 0x22, 6, 0, 2), words);
    EXPECT_NE(words, earlier);
    EXPECT_LE(words[0] + 256 * words[1], 2000);
    driver.Read(Key(3, 0x22, 7, 0, 2), words);
    EXPECT_TRUE(words == (Bytes{0, 0, 0, 0}) || words == (Bytes{0xE8, 3, 0xE8, 3}));
}

TEST_F(Sim, FailsAsToldAndLogsEveryCall)
{
    Bytes word(2);
    Fail(SIM_FAIL_TIMEOUT, 4, 2, SIM_RDONE);
    EXPECT_EQ(driver.Read(Key(5, 0x22, 0, 0, 1), word), 0);
    EXPECT_EQ(driver.Write(Key(4, 0x22, 0, 0, 1), word), 0);
    EXPECT_EQ(driver.Read(Key(4, 0x22, 0, 0, 1), word), 2);
    EXPECT_EQ(driver.Read(Key(4, 0x22, 0, 0, 1), word), 2);
    EXPECT_EQ(driver.Read(Key(4, 0x22, 0, 0, 1), word), 0);
    Fail(SIM_FAIL_ERROR, SimAllStations, SimForever);
    for (int i = 0; i < 5000; i++) EXPECT_EQ(driver.Write(Key(1, 0x22, 0, 6, 1), word), 3);

    const SimCall last = SimLoggedCall(*control, control->logged);
    EXPECT_EQ(control->logged, 1u + 5 + 5000);
    EXPECT_EQ(last.sequence, control->logged);
    EXPECT_EQ(last.command, SIM_WRONE);
    EXPECT_EQ(last.result, 3);
    EXPECT_EQ(last.addr, 6u);
    EXPECT_EQ(control->reads, 4u);
    EXPECT_EQ(control->writes, 5001u);
    EXPECT_NE(SimLoggedCall(*control, 1).sequence, 1u);  // overwritten, and it shows

    Fail(SIM_FAIL_NONE, 0, 0);
    control->delayUs = 30000;
    const auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(driver.Read(Key(1, 0x22, 0, 6, 1), word), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST_F(Sim, HeldCallGoesOnWhenLetGo)
{
    Fail(SIM_FAIL_HANG, 4, 1);
    Bytes word(2);
    std::atomic<int> result = -1;
    std::thread caller([&] { result = driver.Read(Key(4, 0x22, 0, 0, 1), word); });
    for (int i = 0; i < 2000 && control->hanging == 0; i++) std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(control->hanging, 1u);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(result, -1);
    control->failure = SIM_FAIL_NONE;
    caller.join();
    EXPECT_EQ(result, 0);
}

std::uint16_t LocalWords[2];
int LocalWrites;
int ReadLocal(const char*, std::uint32_t addr, std::uint16_t, void* buf, int)
{
    return memcpy(buf, LocalWords + addr, 2) != nullptr;
}
int WriteLocal(const char*, std::uint32_t addr, std::uint16_t, const void* data, int)
{
    LocalWrites++;
    return memcpy(LocalWords + addr, data, 2) != nullptr;
}

TEST_F(Sim, LivesThroughItsCommands)
{
    void* first = driver.instance;
    EXPECT_EQ(driver.Init(), 0);
    EXPECT_EQ(driver.instance, first);
    EXPECT_EQ(SimLoggedCall(*control, 1).command, SIM_INIT);
    EXPECT_EQ(SimLoggedCall(*control, 1).width, 7);

    UserOper oper = {nullptr, ReadLocal, WriteLocal};
    LocalWords[0] = 1234;
    void* args[] = {&driver.info, &oper};
    for (int i = 0; i < 3; i++) EXPECT_EQ(driver.entry("Loop", driver.instance, args), 0);
    EXPECT_EQ(LocalWords[1], 1234);
    EXPECT_EQ(LocalWrites, 1);
    EXPECT_EQ(control->loops, 3u);
    EXPECT_EQ(control->loopSlaveNo, 7u);

    Bytes word = {5, 6};
    driver.Write(Key(0, 0x22, 0, 0, 1), word);
    driver.Destroy();
    driver.Destroy();
    EXPECT_EQ(driver.instance, nullptr);
    EXPECT_EQ(driver.Read(Key(0, 0x22, 0, 0, 1), word), 3);
    EXPECT_EQ(control->destroys, 1u);
    driver.Init();
    word = {0, 0};
    driver.Read(Key(0, 0x22, 0, 0, 1), word);
    EXPECT_EQ(word, (Bytes{5, 6}));  // the file outlives the instance

    driver.Destroy();
    const std::string other = std::string(path) + ".txt";
    std::ofstream(other) << "not a simulator file";
    setenv("VOQ_SIM", other.c_str(), 1);
    EXPECT_NE(driver.Init(), 0);
    EXPECT_EQ(driver.instance, nullptr);
    unlink(other.c_str());
    unsetenv("VOQ_SIM");
    EXPECT_EQ(driver.Init(), 0);
    driver.Read(Key(0, 0x22, 0, 0, 1), word);
    EXPECT_EQ(word, (Bytes{0, 0}));
}

}  // namespace
