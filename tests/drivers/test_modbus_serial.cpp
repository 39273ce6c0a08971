// When a station counts as lost, and the RTU master on a pseudo-terminal that lies.
#include <optional>

#include "driver.h"
#include "drivers/modbus/stations.h"
#include "lying_server.h"
#include "pty.h"

namespace
{

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
        driver.Para(0, 200);
        thread = std::thread([this] { Answer(); });
    }
    ~Rtu() override
    {
        stop = true;
        thread.join();
    }

    void Answer()
    {
        while (!stop) {
            const Bytes request = line.Receive(3);
            if (request.size() < 8) continue;
            requests++;
            if (WithCrc({request.begin(), request.end() - 2}) != request || request[0] == deadUnit) continue;
            const Bytes honest = LyingServer::Honest(Join(Bytes(6), {request.begin(), request.end() - 2}));
            Pause(late.exchange(0));
            std::lock_guard lock(mutex);
            line.Send(lie ? *lie : WithCrc({honest.begin() + 6, honest.end()}));
            lie.reset();
        }
    }
    void Next(const Bytes& reply)
    {
        std::lock_guard lock(mutex);
        lie = reply;
    }
    int ReadTrue(std::uint8_t unit)
    {
        Bytes words(4);
        const int result = driver.Read(Key(unit, 0x22, 4, 0x1234, 2), words);
        return result == 0 && words != Bytes{0x12, 0x34, 0x12, 0x35} ? 4 : result;
    }

    Pty line;
    std::atomic<bool> stop = false;
    std::atomic<int> requests = 0, deadUnit = -1, late = 0;
    std::mutex mutex;
    std::optional<Bytes> lie;
    std::thread thread;
    Driver driver{RTU_DRIVER};
};

TEST_F(Rtu, ReadsWritesAndBelievesNoLie)
{
    ASSERT_EQ(driver.Write(Key(2, 0x22, 4, 0, 100), Bytes(200, 0x0D)), 0);  // no byte means anything to the line
    for (const std::uint8_t unit : {0, 248}) EXPECT_EQ(ReadTrue(unit), 3);  // no answer to a broadcast
    EXPECT_EQ(requests, 1);

    const Bytes wrong = {3, 3, 4, 0xDE, 0xAD, 0xBE, 0xEF};
    const Bytes twice = Join(WithCrc({3, 3, 4, 0x12, 0x34, 0x12, 0x35}), WithCrc(wrong));
    Bytes spoilt = WithCrc(wrong);
    spoilt.back() ^= 1;
    const struct {
        int result;
        Bytes reply;
    } lies[] = {{3, spoilt},
                {3, WithCrc({4, 3, 4, 0xDE, 0xAD, 0xBE, 0xEF})},
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
    driver.info.baudOrAddress = 19200;
    driver.info.stopBits = 2;
    driver.info.parity = 1;
    ASSERT_EQ(ReadTrue(1), 0);
    const termios state = line.State();
    EXPECT_EQ(cfgetospeed(&state), B19200);
    EXPECT_EQ(state.c_cflag & (CSTOPB | PARODD), CSTOPB | PARODD);
    driver.info.parity = 2;
    ASSERT_EQ(ReadTrue(1), 0);
    EXPECT_EQ(line.State().c_cflag & PARODD, 0u);
    driver.info.baudOrAddress = 12345;
    EXPECT_EQ(ReadTrue(1), 3);
    driver.info.baudOrAddress = 1200;  // the line's own time is no time-out
    driver.Para(0, 100);
    EXPECT_EQ(ReadTrue(1), 0);
    deadUnit = 2;
    const Stopwatch dead;
    Bytes data(200);
    EXPECT_EQ(driver.Read(Key(2, 0x22, 4, 0, 100), data), 2);
    EXPECT_GE(dead.Ms(), 100 + 1900);
}

}  // namespace
