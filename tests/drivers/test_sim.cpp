// The PLC simulator: where registers lie, failures on demand, the log.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>

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
}

TEST_F(Sim, ForeignFileIsRefused)
{
    driver.Destroy();
    driver.Destroy();
    EXPECT_EQ(control->destroys, 1u);
    std::ofstream(path) << "not a simulator file";
    EXPECT_NE(driver.Init(), 0);
    EXPECT_EQ(driver.instance, nullptr);
    Bytes word(2);
    EXPECT_EQ(driver.Read(Key(0, 0x22, 0, 0, 1), word), 3);
}

}  // namespace
