// The RTU master on a pseudo-terminal that lies and is unplugged, and what a dead station costs the others.
#include <chrono>
#include <optional>

#include "driver.h"
#include "drivers/modbus/stations.h"
#include "lying_server.h"
#include "pty.h"

namespace
{

using std::chrono::milliseconds;
using std::chrono::steady_clock;

TEST(Stations, AreLostAskedEverMoreRarelyAndFound)
{
    StationTable table = {};
    std::uint64_t now = 1000;
    for (int i = 0; i < 2; i++) NoteTimeout(table, 9, now);
    NoteAnswer(table, 9);
    for (int i = 0; i < 3; i++) {
        EXPECT_TRUE(MayAsk(table, 9, now)) << i;
        EXPECT_EQ(TakeNotice(table, 9, now), Notice::None);
        NoteFailure(table, 9, now);  // says nothing of the station
        NoteTimeout(table, 9, now);
    }
    EXPECT_EQ(TakeNotice(table, 9, now), Notice::Lost);
    for (const unsigned interval : {250u, 500u, 1000u, 2000u, 4000u, 8000u, 8000u}) {
        EXPECT_FALSE(MayAsk(table, 9, now + interval - 1)) << interval;
        EXPECT_TRUE(MayAsk(table, 9, now += interval)) << interval;
        interval % 1000 == 0 ? NoteTimeout(table, 9, now) : NoteFailure(table, 9, now);
    }
    EXPECT_FALSE(MayAsk(table, 9, now));
    ProbeAll(table);
    EXPECT_TRUE(MayAsk(table, 9, now));
    for (const std::uint8_t other : {0, 8, 10, 255}) EXPECT_TRUE(MayAsk(table, other, now));

    // It comes and goes: one message in ten seconds, the last of them true.
    int notices = 0;
    Notice last = Notice::Lost;
    for (const std::uint64_t end = now + 60000; now < end; now += 100) {
        now % 1000 < 500 ? NoteAnswer(table, 9) : NoteTimeout(table, 9, now);
        const Notice notice = TakeNotice(table, 9, now);
        notices += notice != Notice::None;
        if (notice != Notice::None) last = notice;
    }
    EXPECT_GE(notices, 5);
    EXPECT_LE(notices, 7);
    NoteAnswer(table, 9);
    if (const Notice notice = TakeNotice(table, 9, now + NoticeEveryMs); notice != Notice::None) last = notice;
    EXPECT_EQ(last, Notice::Found);
    NoteTimeout(table, 9, now);
    EXPECT_TRUE(MayAsk(table, 9, now));
}

// Stations 1 to 4 at the other end of the line, honest unless they are to say something else.
class Rtu : public testing::Test
{
protected:
    Rtu()
    {
        driver.Init();
        Pty::Settings(driver.info, 115200);
        TimeoutMs(200);
        Begin();
    }
    ~Rtu() override { End(); }

    void Begin()
    {
        stop = false;
        thread = std::thread([this] {
            while (!stop) {
                Bytes request = line.Receive(3);
                if (request.size() < 8) continue;
                requests++;
                if (WithCrc({request.begin(), request.end() - 2}) != request || request[0] == deadUnit) continue;
                Bytes tcp(6);
                tcp.insert(tcp.end(), request.begin(), request.end() - 2);
                const Bytes honest = LyingServer::Honest(tcp);
                std::this_thread::sleep_for(milliseconds(late.exchange(0)));
                std::lock_guard lock(mutex);
                line.Send(lie ? *lie : WithCrc({honest.begin() + 6, honest.end()}));
                lie.reset();
            }
        });
    }
    void End()
    {
        stop = true;
        thread.join();
    }
    void Next(const Bytes& reply)
    {
        std::lock_guard lock(mutex);
        lie = reply;
    }
    void TimeoutMs(int ms)
    {
        driver.info.driverPara[2] = static_cast<std::uint8_t>(ms);
        driver.info.driverPara[3] = static_cast<std::uint8_t>(ms >> 8);
    }
    int ReadTrue(std::uint8_t unit)
    {
        Bytes words(4);
        const int result = driver.Read(Key(unit, 0x22, 4, 0x1234, 2), words);
        return result == 0 && words != Bytes{0x12, 0x34, 0x12, 0x35} ? 4 : result;
    }

    Pty line;
    std::atomic<bool> stop;
    std::atomic<int> requests = 0, deadUnit = -1, late = 0;
    std::mutex mutex;
    std::optional<Bytes> lie;
    std::thread thread;
    Driver driver{RTU_DRIVER};
};

TEST_F(Rtu, ReadsWritesAndBelievesNoLie)
{
    Bytes data(600);
    ASSERT_EQ(driver.Read(Key(2, 0x22, 3, 1000, 300), data), 0);
    for (std::size_t i = 0; i < 300; i++) ASSERT_EQ(data[2 * i] << 8 | data[2 * i + 1], 1000 + static_cast<int>(i));
    ASSERT_EQ(driver.Write(Key(2, 0x22, 4, 0, 100), Bytes(200, 0x0D)), 0);  // no byte means anything to the line
    ASSERT_EQ(driver.Write(Key(2, 0x00, 0, 0, 9), Bytes(9, 1)), 0);
    EXPECT_EQ(requests, 5);
    for (const int unit : {0, 248})
        EXPECT_EQ(ReadTrue(static_cast<std::uint8_t>(unit)), 3);  // no answer to a broadcast
    EXPECT_EQ(requests, 5);

    const Bytes wrong = {3, 3, 4, 0xDE, 0xAD, 0xBE, 0xEF};
    Bytes spoilt = WithCrc(wrong), twice = WithCrc({3, 3, 4, 0x12, 0x34, 0x12, 0x35});
    spoilt.back() ^= 1;
    for (const std::uint8_t byte : WithCrc(wrong)) twice.push_back(byte);
    const struct {
        int result;
        Bytes reply;
    } lies[] = {{3, spoilt},
                {3, WithCrc({4, 3, 4, 0xDE, 0xAD, 0xBE, 0xEF})},
                {3, WithCrc({3, 4, 4, 0xDE, 0xAD, 0xBE, 0xEF})},
                {3, WithCrc({3, 3, 2, 0xDE, 0xAD})},
                {3, Bytes(300, 0xFF)},
                {3, WithCrc({3, 0x83, 2})},
                {2, WithCrc({3, 0x83, 11})},
                {2, {3, 3, 4, 0xDE}},
                {0, twice},
                {2, {}}};
    for (const auto& row : lies) {
        Next(row.reply);
        EXPECT_EQ(ReadTrue(3), row.result) << testing::PrintToString(row.reply);
        EXPECT_EQ(ReadTrue(3), 0) << testing::PrintToString(row.reply);
    }

    // A late answer fits the next request; that one's own answer gives it away.
    Next(WithCrc(wrong));
    late = 300;
    EXPECT_EQ(ReadTrue(3), 2);
    EXPECT_EQ(ReadTrue(3), 3);
    EXPECT_EQ(ReadTrue(3), 0);
}

TEST_F(Rtu, FollowsTheSettings)
{
    ASSERT_EQ(ReadTrue(1), 0);
    EXPECT_EQ(line.Speed(), B115200);
    driver.info.baudOrAddress = 19200;
    driver.info.stopBits = 2;
    driver.info.parity = 1;
    ASSERT_EQ(ReadTrue(1), 0);
    EXPECT_EQ(line.Speed(), B19200);
    EXPECT_EQ(line.State().c_cflag & (CSTOPB | PARODD), CSTOPB | PARODD);
    driver.info.parity = 2;
    ASSERT_EQ(ReadTrue(1), 0);
    EXPECT_EQ(line.State().c_cflag & PARODD, 0u);
    for (const std::uint32_t baud : {0u, 12345u}) {
        driver.info.baudOrAddress = baud;
        EXPECT_EQ(ReadTrue(1), 3);
    }
    driver.info.baudOrAddress = 1200;  // the line's own time is no time-out
    TimeoutMs(100);
    EXPECT_EQ(ReadTrue(1), 0);
    deadUnit = 2;
    const auto start = steady_clock::now();
    Bytes data(200);
    EXPECT_EQ(driver.Read(Key(2, 0x22, 4, 0, 100), data), 2);
    EXPECT_GE(steady_clock::now() - start, milliseconds(100 + 1900));
}

TEST_F(Rtu, LivesThroughUnplugging)
{
    ASSERT_EQ(ReadTrue(1), 0);
    End();
    line.Unplug();
    const auto start = steady_clock::now();
    for (int i = 0; i < 20; i++) EXPECT_EQ(ReadTrue(1), 3);
    EXPECT_LT(steady_clock::now() - start, milliseconds(200));
    for (int again = 0; again < 3; again++) {  // the second and third time nobody looks while it is gone
        line.Plug();
        Begin();
        EXPECT_EQ(ReadTrue(1), 0);
        End();
        line.Unplug();
    }
    line.Plug();
    Begin();
    EXPECT_EQ(ReadTrue(4), 0);
}

// The middle one of the times that the alive stations wait between two reads of theirs, station 4 read in between.
milliseconds::rep MiddlePeriodUs(Driver& driver, milliseconds length)
{
    std::vector<milliseconds::rep> periods;
    for (const auto end = steady_clock::now() + length; steady_clock::now() < end;) {
        const auto start = steady_clock::now();
        Bytes word(2);
        for (std::uint8_t unit = 1; unit <= 4; unit++) {
            const int result = driver.Read(Key(unit, 0x22, 4, 100, 1), word);
            EXPECT_TRUE(result == 0 || unit == 4) << int{unit} << " " << result;
            std::this_thread::sleep_for(milliseconds(1));
        }
        periods.push_back(std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start).count());
    }
    std::sort(periods.begin(), periods.end());
    return periods[periods.size() / 2];
}

void DeadStation(Driver& driver, std::atomic<int>& deadUnit)
{
    const auto alive = MiddlePeriodUs(driver, milliseconds(300));
    deadUnit = 4;
    const auto dead = MiddlePeriodUs(driver, milliseconds(3500));
    EXPECT_LE(dead, alive * 12 / 10);
    std::printf("period with all alive %ld us, with one of four dead %ld us\n", long{alive}, long{dead});
    deadUnit = -1;
    const auto start = steady_clock::now();
    Bytes word(2);
    while (driver.Read(Key(4, 0x22, 4, 100, 1), word) != 0 && steady_clock::now() - start < milliseconds(10000))
        std::this_thread::sleep_for(milliseconds(1));
    EXPECT_LT(steady_clock::now() - start, milliseconds(4000));
    EXPECT_LE(MiddlePeriodUs(driver, milliseconds(200)), alive * 15 / 10);
}

TEST_F(Rtu, DeadStationDoesNotHoldUpTheOthers)
{
    TimeoutMs(500);
    DeadStation(driver, deadUnit);
}

TEST(Tcp, DeadStationDoesNotHoldUpTheOthers)
{
    LyingServer gateway;
    Driver driver{MODBUS_DRIVER};
    driver.Init();
    driver.info.baudOrAddress = 0x7F000001;
    driver.info.driverPara[0] = static_cast<std::uint8_t>(gateway.port);
    driver.info.driverPara[1] = static_cast<std::uint8_t>(gateway.port >> 8);
    DeadStation(driver, gateway.deadUnit);
    int asked = 0;
    for (const Bytes& request : gateway.Requests()) asked += request[0] == 4 && request[2] == 0 && request[3] == 100;
    EXPECT_LE(gateway.connections, 1 + 3 + 3);  // one for each time-out: three to the loss, then the probes
    EXPECT_GE(asked, gateway.connections - 1);
}

}  // namespace
