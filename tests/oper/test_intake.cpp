// Frame cutting and request intake: one step at a time on a pipe, into the real lists.
#include <gtest/gtest.h>
#include <unistd.h>

#include "list/log_on_off.h"
#include "list/rt_list.h"
#include "oper/frame.h"
#include "oper/intake.h"
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
                EXPECT_EQ(8, FirstFastItem().fileno);
                EXPECT_EQ(12u, FirstFastItem().orgoffset);
                ASSERT_EQ((std::vector<int>{7, 0x0206, 3}), Listed());
            }
        }
    }
    EXPECT_EQ("wxyz", FileBytes(scratch.Folder() + "rtData9"));
    EXPECT_EQ(std::string("\4\0\0\0abcd", 8), FileBytes(scratch.Folder() + "rtData10"));
    EXPECT_EQ(1, ReadOrgNode(FileBytes(OrgFileName), 12).logtimes);
}

TEST_F(IntakeTest, BytesThatAreNoFrameAreBounded)
{
    const std::string good = FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 12);
    for (int i = 0; i < 4; ++i) EXPECT_EQ("", Gui(std::string(16384, 'x')));
    EXPECT_EQ("gui fifo too long index=65536,nread=16384\n", Gui(std::string(16384, 'x')));
    EXPECT_EQ(0, GuiFifo_index);
    for (int i = 0; i < 4; ++i) EXPECT_EQ("", Mek(ReloadFrame(1, 2) + std::string(16384 - 63, 'x')));
    EXPECT_EQ("", Mek(std::string(512, 'x')));
    EXPECT_EQ("mekfifo too long index=66048,nread=1\n", Mek("x"));
    Gui(good);
    Mek(FrameOf(RequestCommand::LogOn, 8, WordKey(9, 2), 12));
    EXPECT_EQ(2, FastHead().count);
    EXPECT_TRUE(FakeDriver::Calls.empty());

    // A length that no frame can have, first or behind a served frame, and foreign bytes behind one: dropped, said.
    const auto damaged = [](int length) {
        std::string frame = FrameOf(RequestCommand::LogOn, 9, WordKey(20, 2), 12);
        frame[1] = static_cast<char>(length);
        frame[2] = 0;
        return frame;
    };
    const std::string before = FrameOf(Unknown4, 1, WordKey(0, 1));
    EXPECT_EQ("*VOQ*gui fifo: no frame at byte 0, 35 bytes dropped\r\n", Gui(damaged(0)));
    EXPECT_EQ("*VOQ*gui fifo: no frame at byte 0, 70 bytes dropped\r\n", Gui(damaged(34) + before));
    EXPECT_EQ("*VOQ*mek fifo: no frame at byte 35, 36 bytes dropped\r\n", Mek(before + damaged(1) + "x"));
    EXPECT_EQ("*VOQ*mek fifo: no frame at byte 35, 63 bytes dropped\r\n", Mek(before + ReloadFrame(1, 2)));
    EXPECT_EQ("*VOQ*gui fifo: no frame at byte 35, 1 bytes dropped\r\n", Gui(before + "x"));
    EXPECT_EQ(0, GuiFifo_index + MekFifo_index);

    // A frame longer than what is there waits; the longest one still fits.
    std::string longest = FrameOf(RequestCommand::Write, 9, WordKey(20, 2), 0, std::string(65500, 'p'));
    for (std::size_t at = 0; at < longest.size(); at += 16384) Mek(longest.substr(at, 16384));
    EXPECT_EQ(0, MekFifo_index);
    EXPECT_EQ(std::vector<int>{7}, Listed());
    EXPECT_EQ(2, FastHead().count);

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

TEST_F(IntakeTest, AReloadFrameRestartsTheDriver)
{
    const auto commands = [] {
        std::string all;
        for (const DriverCall& call : FakeDriver::Calls) all += call.command + " ";
        FakeDriver::Calls.clear();
        return all;
    };
    ComInfo.portNo = 3;
    const std::string log = Gui(ReloadFrame(0xC0A80102, 90) + FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 12));
    EXPECT_EQ(0u, log.find("*VOQ*reload cominfo\r\n*VOQ*IP=0xc0a80102, PORT=90\r\n*VOQ*PLC destroy!_cmd="));
    EXPECT_TRUE(ComInfo.baudOrAddress == 0xC0A80102 && ComInfo.dataBits == 90 && ComInfo.parity == 0x77);
    EXPECT_TRUE(ComInfo.portNo == 3 && ComInfo.stopBits == 0 && ComInfo.wordLimit == 0);
    EXPECT_EQ(0, GuiFifo_index);  // the log-on behind it is gone
    EXPECT_EQ(0, FastHead().count);
    EXPECT_EQ("Init ", commands());

    // Behind a frame: at once when it is whole, else in the step that brings the rest.
    Gui(FrameOf(Unknown4, 1, WordKey(0, 1)) + ReloadFrame(5, 91));
    EXPECT_EQ(5u, ComInfo.baudOrAddress);
    EXPECT_EQ("Destroy Init ", commands());
    const std::string reload = ReloadFrame(6, 92);
    Gui(FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 12) + reload.substr(0, 20));
    EXPECT_EQ(5u, ComInfo.baudOrAddress);
    EXPECT_EQ(1, FastHead().count);
    Gui(reload.substr(20));
    EXPECT_EQ(6u, ComInfo.baudOrAddress);
    Gui(reload.substr(0, 40));  // at the start it waits for nothing
    EXPECT_EQ("Destroy Init Destroy Init ", commands());

    EXPECT_EQ("", Mek(ReloadFrame(7, 93)));
    EXPECT_EQ(63, MekFifo_index);
    EXPECT_EQ("", commands());
    EXPECT_EQ(6u, ComInfo.baudOrAddress);
}

TEST_F(IntakeTest, AFailedReadPauses)
{
    GuiFifo_index = 0;
    const std::string frame = FrameOf(RequestCommand::LogOn, 7, WordKey(0, 2), 12);
    std::memcpy(guififo_buf, frame.data(), frame.size());
    std::memcpy(mekfifo_buf, frame.data(), frame.size());
    GuiFifo_index = MekFifo_index = static_cast<std::int32_t>(frame.size());
    GuiFifo_fd = MekFifo_fd = -1;
    EXPECT_EQ("Mek fifo nread=-1\n", Output(CheckMekRtList));
    EXPECT_EQ(0, FastHead().count);
    EXPECT_EQ("", Output(CheckGuiRtList));  // serves what it holds all the same
    EXPECT_EQ(1, FastHead().count);
    close(gui[1]);
    GuiFifo_fd = gui[0];
    EXPECT_EQ("", Output(CheckGuiRtList));  // 0 bytes
    gui[1] = dup(gui[0]);
}
}  // namespace
