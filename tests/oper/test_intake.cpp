// Frame cutting and request intake: one step at a time on a pipe, into the real lists.
#include <gtest/gtest.h>
#include <unistd.h>

#include "list/log_on_off.h"
#include "list/rt_list.h"
#include "oper/frame.h"
#include "oper/intake.h"
#include "support/capture.h"
#include "support/scratch.h"

namespace
{
std::string FrameOf(RequestCommand cmd, std::uint16_t fileno, const RegKey& key, std::uint32_t orgoffset = 0,
                    std::string payload = "", std::uint8_t subcmd = 0)
{
    const RegRequest request{key, static_cast<std::uint8_t>(cmd), subcmd, fileno, orgoffset};
    const std::size_t length = FrameMinBytes + payload.size();
    std::string frame{static_cast<char>(FrameMarker), static_cast<char>(length), static_cast<char>(length >> 8)};
    frame.append(reinterpret_cast<const char*>(&request), sizeof request);
    return frame + payload;
}

std::string ReloadFrame(std::uint32_t address, std::uint8_t port)
{
    ComInfoRecord image;
    std::memset(&image, 0x77, sizeof image);
    image.baudOrAddress = address;
    image.dataBits = port;
    std::string frame{static_cast<char>(ReloadMarker), 1, 2};
    return frame.append(reinterpret_cast<const char*>(&image), sizeof image);
}

class IntakeTest : public testing::Test
{
protected:
    IntakeTest()
    {
        EXPECT_EQ(0, pipe(gui));
        EXPECT_EQ(0, pipe(mek));
        GuiFifo_fd = gui[0];
        MekFifo_fd = mek[0];
        Restart();
    }
    ~IntakeTest() override
    {
        for (const int descriptor : {gui[0], gui[1], mek[0], mek[1]}) close(descriptor);
    }

    void Restart()
    {
        scratch.ResetDatabase();
        ResetRtList();
        GuiFifo_index = MekFifo_index = 0;
        ComInfo = {};
        FakeDriver::Use();
    }

    // One step that reads exactly these bytes; what the service printed.
    std::string Gui(const std::string& bytes) { return Step(gui[1], CheckGuiRtList, bytes); }
    std::string Mek(const std::string& bytes) { return Step(mek[1], CheckMekRtList, bytes); }

    static std::string Step(int descriptor, void (*check)(), const std::string& bytes)
    {
        EXPECT_EQ(std::ssize(bytes), write(descriptor, bytes.data(), bytes.size()));
        return Output(check);
    }

    // The commands of the listed one-shot requests, head first.
    static std::vector<int> Listed()
    {
        std::vector<int> commands;
        const ReadLock lock(rt_rwlock);
        for (std::uint16_t slot = GuiListHead.head, i = 0; i < GuiListHead.count; ++i, slot = GuiRtList[slot].next) {
            commands.push_back(GuiRtList[slot].command);
        }
        return commands;
    }

    Scratch scratch;
    int gui[2], mek[2];
};

constexpr RequestCommand Unknown4{4}, Unknown255{255};

TEST_F(IntakeTest, AStreamMayBeCutAnywhere)
{
    const std::string stream =
        FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 68) + FrameOf(Unknown4, 1, WordKey(0, 1), 0, "xxxx") +
        FrameOf(RequestCommand::LogOn, 8, WordKey(10, 2)) +
        FrameOf(RequestCommand::Write, 9, WordKey(1, 2), 0, "wxyz") +
        FrameOf(RequestCommand::LogOff, 7, WordKey(0, 2), 68) + FrameOf(Unknown255, 2, WordKey(0, 1)) +
        FrameOf(RequestCommand::ReadChangeWrite, 10, WordKey(1, 2), 0, std::string("\4\0\0\0abcd", 8), 2) +
        FrameOf(RequestCommand::Read, 11, WordKey(1, 2));
    for (std::size_t first = 0; first < stream.size(); ++first) {
        for (const std::size_t second : {first, first + 1, first + 40}) {
            if (first == 0 && second != 0) continue;
            for (const bool isGui : {true, false}) {
                Restart();
                std::size_t at = 0;
                for (const std::size_t end : {first, std::min(second, stream.size()), stream.size()}) {
                    if (end == at) continue;
                    isGui ? Gui(stream.substr(at, end - at)) : Mek(stream.substr(at, end - at));
                    at = end;
                }
                ASSERT_EQ(0, isGui ? GuiFifo_index : MekFifo_index) << "cut at " << first << " and " << second;
                ASSERT_EQ(isGui ? 1 : 0, LogOnAmount.load());
                ASSERT_EQ(1, FastHead().count);
                const ReadLock lock(fast_rwlock);
                ASSERT_EQ(std::pair(8, 12u), std::pair(+OrgFastList[OrgFastListHead.head].fileno,
                                                       +OrgFastList[OrgFastListHead.head].orgoffset));
                ASSERT_EQ((std::vector<int>{7, 0x0206, 3}), Listed());
            }
        }
    }
    EXPECT_EQ("wxyz", FileBytes(scratch.Folder() + "rtData9"));
    EXPECT_EQ(std::string("\4\0\0\0abcd", 8), FileBytes(scratch.Folder() + "rtData10"));
    EXPECT_EQ(1, ReadOrgNode(FileBytes(OrgFileName), 12).logtimes);
}

// The buffer filled to its last byte by what is no frame, and by the longest frame; damage behind a served frame.
TEST_F(IntakeTest, BytesThatAreNoFrameAreBounded)
{
    for (int i = 0; i < 4; ++i) Mek(ReloadFrame(1, 2) + std::string(16384 - 63, 'x'));
    EXPECT_EQ("", Mek(std::string(512, 'x')));
    EXPECT_EQ("mekfifo too long index=66048,nread=1\n", Mek("x"));
    EXPECT_TRUE(FakeDriver::Calls.empty());  // a reload is not for this client
    const std::string longest = FrameOf(RequestCommand::Write, 9, WordKey(20, 2), 0, std::string(65500, 'p'));
    for (std::size_t at = 0; at < longest.size(); at += 16384) Mek(longest.substr(at, 16384));
    EXPECT_EQ(std::vector<int>{7}, Listed());

    std::string damaged = FrameOf(RequestCommand::LogOn, 9, WordKey(20, 2), 12);
    damaged[1] = 34;
    const std::string before = FrameOf(Unknown4, 1, WordKey(0, 1));
    EXPECT_EQ("*VOQ*gui fifo: no frame at byte 0, 70 bytes dropped\r\n", Gui(damaged + before));
    EXPECT_EQ("*VOQ*mek fifo: no frame at byte 35, 36 bytes dropped\r\n", Mek(before + damaged + "x"));
    EXPECT_EQ("*VOQ*mek fifo: no frame at byte 35, 63 bytes dropped\r\n", Mek(before + ReloadFrame(1, 2)));
    EXPECT_EQ(0, GuiFifo_index + MekFifo_index + FastHead().count);

    // A payload shorter than its command needs is answered, not listed.
    Mek(FrameOf(RequestCommand::Write, 12, WordKey(20, 4), 0, "1234567"));
    Mek(FrameOf(RequestCommand::ReadChangeWrite, 13, WordKey(20, 4), 0, "\3"));
    Mek(FrameOf(RequestCommand::ReadChangeWrite, 14, WordKey(20, 4), 0, std::string("\xFF\xFF\0\0abcd", 8)));
    EXPECT_EQ(1u, Listed().size());
    for (const char* name : {"12", "13", "14"}) {
        const std::string answer = FileBytes(scratch.Folder() + name);
        EXPECT_TRUE(answer.size() == 40 && answer[26] == 3) << name;
    }
}

TEST_F(IntakeTest, AReloadFrameBehindAFrameWaitsForItsEnd)
{
    const std::string logOn = FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 12), reload = ReloadFrame(6, 92);
    ComInfo.portNo = 3;
    Gui(logOn + reload.substr(0, 20));
    EXPECT_EQ(0u, ComInfo.baudOrAddress);
    Gui(reload.substr(20) + FrameOf(RequestCommand::LogOn, 8, WordKey(9, 2), 12));
    EXPECT_TRUE(ComInfo.baudOrAddress == 6 && ComInfo.dataBits == 92 && ComInfo.parity == 0x77);
    EXPECT_TRUE(ComInfo.portNo == 3 && ComInfo.stopBits == 0 && ComInfo.wordLimit == 0);
    EXPECT_EQ(0 + 1, GuiFifo_index + FastHead().count);  // the log-on behind it is gone
}
}  // namespace
